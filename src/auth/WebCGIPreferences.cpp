// Preferences: the preference directories of the logged-in user and of a
// group, and the user's settings document.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "merosdk.h"
#include "webapi/WebAPIUtil.h"
#include "webapi/WebCGI.h"

namespace MERO {
namespace {

constexpr size_t kDirBufferBytes = 1024;
constexpr const char kFallbackDir[] = "/tmp";
constexpr const char kUserSettingsFile[] = "usersettings";

std::string PreferenceDir(int (*get)(const char*, char*, int), const char* name) {
  char buffer[kDirBufferBytes];
  std::memset(buffer, 0, sizeof buffer);
  if (get(name, buffer, sizeof buffer) < 0) return kFallbackDir;
  return buffer;
}

}  // namespace

std::string WebCGI::GetPreferenceDir() {
  return PreferenceDir(&MEROUserPreferenceDirGet, priv->loginUser.c_str());
}

std::string WebCGI::GetGroupPreferenceDir(const char* group) {
  return PreferenceDir(&MEROGroupPreferenceDirGet, group);
}

bool WebCGI::loadUserJsonSettings(Json::Value& settings) {
  const std::string path = GetPreferenceDir() + "/" + kUserSettingsFile;
  // The user owns the directory and could have put a link in place of the
  // file; the reader then goes through the descriptor opened here, which
  // never follows one.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  char throughDescriptor[64];
  std::snprintf(throughDescriptor, sizeof throughDescriptor, "/proc/self/fd/%d", fd);
  const bool read = WebAPIUtil::ReadJsonFile(settings, throughDescriptor);
  ::close(fd);
  return read;
}

}  // namespace MERO
