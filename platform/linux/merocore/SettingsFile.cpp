// Settings files of the appliance: key="value" lines, read with a fixed line
// buffer so a hostile or corrupt file costs bounded memory.
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mero_owners.h"
#include "merocore.h"

namespace {

constexpr int kMaxSettingsLine = 4096;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Trims blanks in place and returns the start of the trimmed text.
char* Trim(char* begin, char* end) {
  while (begin < end && IsBlank(*begin)) ++begin;
  while (end > begin && IsBlank(end[-1])) --end;
  *end = '\0';
  return begin;
}

}  // namespace

extern "C" {

int MLIBCFileExist(const char* path) {
  struct stat st;
  return path && ::stat(path, &st) == 0 ? 1 : 0;
}

int MLIBCFileGetKeyValue(const char* file, const char* key, char* buf, int size, int flags) {
  if (buf && size > 0) buf[0] = '\0';
  if (!file || !key || !*key || !buf || size <= 0 || flags != 0) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  mero::UniqueFile in(std::fopen(file, "re"));
  if (!in) {
    MERO_ERR_SET(errno == ENOENT ? MERO_ERR_NOT_FOUND : MERO_ERR_IO);
    return -1;
  }
  char line[kMaxSettingsLine + 1];  // a line of 4095 bytes, its line feed and the NUL
  bool skippingLongLine = false;
  while (std::fgets(line, sizeof line, in.get())) {
    const size_t len = std::strlen(line);
    const bool complete = len > 0 && line[len - 1] == '\n';
    if (skippingLongLine) {  // the tail of a line longer than the buffer
      skippingLongLine = !complete;
      continue;
    }
    if (!complete && !std::feof(in.get())) {
      skippingLongLine = true;
      continue;
    }
    char* eq = std::strchr(line, '=');
    if (!eq) continue;
    char* name = Trim(line, eq);
    if (*name == '#' || std::strcmp(name, key) != 0) continue;
    char* value = Trim(eq + 1, line + len);
    const size_t valueLen = std::strlen(value);
    if (valueLen >= 2 && value[0] == '"' && value[valueLen - 1] == '"') {
      value[valueLen - 1] = '\0';
      ++value;
    }
    const size_t copyLen = std::strlen(value);
    if (copyLen >= static_cast<size_t>(size)) {
      syslog(LOG_ERR, "%s:%d value of %s in %s cut to %d bytes", "merocore", __LINE__, key,
             file, size - 1);
    }
    std::snprintf(buf, static_cast<size_t>(size), "%s", value);
    return 1;
  }
  // A file that opens but cannot be read (a directory, an I/O error) holds
  // settings nobody knows: that is no answer, not "no such key".
  if (std::ferror(in.get())) {
    MERO_ERR_SET(MERO_ERR_IO);
    return -1;
  }
  return 0;
}

int MLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags) {
  char found[kMaxSettingsLine];
  if (!value) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return 0;
  }
  // The buffer holds any value: longer lines are skipped whole.
  return MLIBCFileGetKeyValue(file, key, found, sizeof found, flags) == 1 &&
                 std::strcmp(found, value) == 0
             ? 1
             : 0;
}

}  // extern "C"
