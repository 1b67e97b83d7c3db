// Storage volumes: the mount table filtered by the appliance's patterns,
// read afresh at every call (disks come and go), and free space by statvfs.
// Records are malloc'd one by one, so a caller's free of the list never
// depends on how it was built.
#include <fnmatch.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <cerrno>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mero_owners.h"
#include "merocore.h"
#include "merosdk.h"

namespace {

constexpr char kSettingsFile[] = "/etc/meroinfo.conf";
constexpr int kSettingsValueBytes = 4096;

#define MEROSDK_LOG(fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, "merosdk", __LINE__, ##__VA_ARGS__)

// Value of `key` in the appliance settings, or `fallback` when the file or
// the key is absent. False when the file exists but could not be read.
bool ReadSetting(const char* key, const char* fallback, std::string* value) {
  char path[4096];
  char text[kSettingsValueBytes];
  if (MeroAppliancePath(kSettingsFile, path, sizeof path) < 0) return false;
  const int found = MLIBCFileGetKeyValue(path, key, text, sizeof text, 0);
  if (found < 0 && MLIBCErrGet() != MERO_ERR_NOT_FOUND) {
    MEROSDK_LOG("cannot read %s", path);
    return false;
  }
  *value = found == 1 ? text : fallback;
  return true;
}

std::vector<std::string> SplitBlanks(const std::string& text) {
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
    const size_t end = std::min(text.find_first_of(" \t", at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

// A mount table field with its octal escapes (\040 blank, \011 tab, \012
// line feed, \134 backslash) decoded.
std::string Unescape(const std::string& field) {
  auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) &&
        isOctal(field[i + 2]) && isOctal(field[i + 3])) {
      out += static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) |
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

bool HasOption(const std::string& options, const std::string& option) {
  return ("," + options + ",").find("," + option + ",") != std::string::npos;
}

// The whole table: it is small, and its lines have no length limit (an
// overlay's options run to kilobytes).
bool ReadTable(const std::string& path, std::string* text) {
  mero::UniqueFile table(std::fopen(path.c_str(), "re"));
  if (!table) return false;
  char chunk[8192];
  size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, table.get())) > 0) text->append(chunk, got);
  return !std::ferror(table.get());
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& path) {
  for (const std::string& pattern : patterns)
    if (fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0) return true;
  return false;
}

bool HasWildcard(const std::string& pattern) {
  return pattern.find_first_of("*?[") != std::string::npos;
}

VolumeInfo MakeVolume(const std::string& path, bool mounted, bool writable, const std::string& fsType) {
  VolumeInfo volume{};
  volume.mounted = mounted ? 1 : 0;
  std::snprintf(volume.path, sizeof volume.path, "%s", path.c_str());
  volume.writable = writable ? 1 : 0;
  std::snprintf(volume.fsType, sizeof volume.fsType, "%s", fsType.c_str());
  return volume;
}

// The volumes in list order; false (logged, error code set) on failure.
bool ListVolumes(std::vector<VolumeInfo>* volumes) {
  std::string patternText, tablePath;
  if (!ReadSetting("storage_volumes", MERO_VOLUME_DEFAULT_PATTERNS, &patternText) ||
      !ReadSetting("mount_table", MERO_VOLUME_DEFAULT_MOUNT_TABLE, &tablePath)) {
    MERO_ERR_SET(MERO_ERR_IO);
    return false;
  }
  const std::vector<std::string> patterns = SplitBlanks(patternText);
  std::string table;
  if (!ReadTable(tablePath, &table)) {
    MEROSDK_LOG("cannot read the mount table %s: %s", tablePath.c_str(), std::strerror(errno));
    MERO_ERR_SET(MERO_ERR_IO);
    return false;
  }
  for (size_t at = 0; at < table.size();) {
    const size_t end = std::min(table.find('\n', at), table.size());
    const std::vector<std::string> fields = SplitBlanks(table.substr(at, end - at));
    at = end + 1;
    if (fields.size() < 4) continue;
    const std::string mountPoint = Unescape(fields[1]);
    if (!MatchesAny(patterns, mountPoint)) continue;
    if (mountPoint.size() >= MERO_VOLUME_PATH_BYTES) {
      MEROSDK_LOG("volume skipped: its mount point is longer than %d bytes",
                  MERO_VOLUME_PATH_BYTES - 1);
      continue;
    }
    // Mounted over: the later mount is the one in use.
    for (auto it = volumes->begin(); it != volumes->end(); ++it) {
      if (mountPoint == it->path) {
        volumes->erase(it);
        break;
      }
    }
    volumes->push_back(MakeVolume(mountPoint, true, !HasOption(fields[3], "ro"), fields[2]));
  }
  for (const std::string& pattern : patterns) {
    if (HasWildcard(pattern) || pattern.size() >= MERO_VOLUME_PATH_BYTES) continue;
    bool listed = false;
    for (const VolumeInfo& volume : *volumes) listed = listed || pattern == volume.path;
    if (!listed) volumes->push_back(MakeVolume(pattern, false, false, ""));
  }
  return true;
}

VolumeInfo* ToList(const std::vector<VolumeInfo>& volumes) {
  VolumeInfo* head = nullptr;
  for (auto it = volumes.rbegin(); it != volumes.rend(); ++it) {
    auto* node = static_cast<VolumeInfo*>(std::malloc(sizeof(VolumeInfo)));
    if (!node) {
      MEROMountVolInfoFree(head);
      MERO_ERR_SET(MERO_ERR_NO_MEMORY);
      return nullptr;
    }
    *node = *it;
    node->next = head;
    head = node;
  }
  return head;
}

}  // namespace

extern "C" {

VolumeInfo* MEROMountVolInfoEnum(int /*type: reserved*/, int /*flags: reserved*/) {
  try {
    std::vector<VolumeInfo> volumes;
    if (!ListVolumes(&volumes)) return nullptr;
    MERO_ERR_SET(MERO_ERR_NONE);
    return ToList(volumes);
  } catch (...) {  // only the lists' allocations throw
    MERO_ERR_SET(MERO_ERR_NO_MEMORY);
    return nullptr;
  }
}

void MEROMountVolInfoFree(VolumeInfo* list) {
  while (list) {
    VolumeInfo* next = list->next;
    std::free(list);
    list = next;
  }
}

int VolumeAvailGet(unsigned long long bytes, VolumeInfo* volume, int* reason, int /*flags*/) {
  if (!volume) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  VolumeInfo* list = MEROMountVolInfoEnum(0, 0);
  if (!list && MLIBCErrGet() != MERO_ERR_NONE) return -1;
  int seen = 0;
  bool anyUsable = false;
  const VolumeInfo* chosen = nullptr;
  for (const VolumeInfo* at = list; at && !chosen; at = at->next) {
    if (!at->mounted) continue;
    if (!at->writable) {
      seen |= MERO_VOLUME_REASON_READ_ONLY;
      continue;
    }
    anyUsable = true;
    struct statvfs space;
    if (statvfs(at->path, &space) != 0) {
      MEROSDK_LOG("statvfs(%s) failed: %s", at->path, std::strerror(errno));
      seen |= MERO_VOLUME_REASON_STAT_FAILED;
      continue;
    }
    const unsigned long long available =
        static_cast<unsigned long long>(space.f_bavail) * static_cast<unsigned long long>(space.f_frsize);
    if (available >= bytes)
      chosen = at;
    else
      seen |= MERO_VOLUME_REASON_FULL;
  }
  if (chosen) {
    *volume = *chosen;
    volume->next = nullptr;
    seen = 0;
  } else if (!anyUsable) {
    seen |= MERO_VOLUME_REASON_NO_VOLUME;
  }
  MEROMountVolInfoFree(list);
  if (reason) *reason = seen;
  return chosen ? 1 : 0;
}

}  // extern "C"
