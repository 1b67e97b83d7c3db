#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "LogSource.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {

bool GetEnv(const char* name, char* buf, int size) {
  if (!name) return false;
  const char* found = std::getenv(name);
  if (!found) return false;
  if (!buf || size <= 0) return false;
  std::memset(buf, 0, static_cast<size_t>(size));
  if (std::snprintf(buf, static_cast<size_t>(size), "%s", found) < 0) {
    syslog(LOG_ERR, "%s:%d snprintf failed. %m", detail::kWebApiUtilSource, __LINE__);
    return false;
  }
  return true;
}

}  // namespace WebAPIUtil
}  // namespace MERO
