// The appliance root, resolved once per process at first use. Only the
// operator's environment (MERO_APPLIANCE_ROOT) or the build can move it.
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "merocore.h"

#ifndef MERO_DEFAULT_APPLIANCE_ROOT
#define MERO_DEFAULT_APPLIANCE_ROOT "/"
#endif

namespace {

constexpr size_t kMaxRootBytes = 1024;

// Copies `candidate` without trailing slashes; false when it is not a usable
// absolute path (relative, too long, or holding a ".." component).
bool NormaliseRoot(const char* candidate, char* out) {
  if (!candidate || candidate[0] != '/') return false;
  size_t len = std::strlen(candidate);
  if (len >= kMaxRootBytes) return false;
  if (std::strstr(candidate, "/../") || (len >= 3 && std::strcmp(candidate + len - 3, "/..") == 0))
    return false;
  while (len > 0 && candidate[len - 1] == '/') --len;
  std::memcpy(out, candidate, len);
  out[len] = '\0';
  return true;
}

const char* ResolveRoot() {
  static char root[kMaxRootBytes];
  const char* fromEnv = std::getenv("MERO_APPLIANCE_ROOT");
  if (fromEnv && *fromEnv) {
    if (NormaliseRoot(fromEnv, root)) return root;
    syslog(LOG_ERR, "%s:%d MERO_APPLIANCE_ROOT is not a usable absolute path; using the default",
           "merocore", __LINE__);
  }
  if (!NormaliseRoot(MERO_DEFAULT_APPLIANCE_ROOT, root)) root[0] = '\0';
  return root;
}

}  // namespace

extern "C" {

const char* MeroApplianceRoot(void) {
  // Function-local static: resolved on first use, not at load time.
  static const char* root = ResolveRoot();
  return root;
}

int MeroAppliancePath(const char* absolutePath, char* buf, size_t size) {
  if (!buf || size == 0) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  buf[0] = '\0';
  if (!absolutePath || absolutePath[0] != '/') {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  const char* root = MeroApplianceRoot();
  const size_t rootLen = std::strlen(root);
  const size_t pathLen = std::strlen(absolutePath);
  if (rootLen + pathLen >= size) {
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return -1;
  }
  std::memcpy(buf, root, rootLen);
  std::memcpy(buf + rootLen, absolutePath, pathLen + 1);
  return static_cast<int>(rootLen + pathLen);
}

}  // extern "C"
