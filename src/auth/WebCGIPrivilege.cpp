// Running as the logged-in user: switching the process's ids to those of
// the session's user, and the login-name conversion, which needs root.
#include <grp.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "../util/LogSource.h"
#include "merocgi.h"
#include "merocore.h"
#include "merosdk.h"
#include "webapi/WebCGI.h"
#define WEBAPI_RUN_AS_SOURCE ::MERO::detail::kWebCgiSource
#include "webapi/RunAsGuard.h"

namespace MERO {
namespace {

using detail::kWebCgiSource;

constexpr size_t kUserBufferBytes = 493;

// Supplementary groups, then the group, then the user: each step needs the
// privilege the next one gives up. setEUGID's and setUGID's log lines differ
// in their first letter only; each stays a literal the compiler checks.
int SwitchIds(const char* sid, const std::string& user, bool permanent) {
  if (!sid) {
    syslog(LOG_ERR, permanent ? "%s:%d bad parameter" : "%s:%d Bad parameter", kWebCgiSource,
           __LINE__);
    return -1;
  }
  const char* name = user.c_str();
  const int gid = MeroCgiGIDGet(sid, name);
  if (gid == -1) {
    syslog(LOG_ERR,
           permanent ? "%s:%d failed to get GID for user=%s, sid=%s"
                     : "%s:%d Failed to get GID for user=%s, sid=%s",
           kWebCgiSource, __LINE__, name, sid);
    return -1;
  }
  if (::initgroups(name, static_cast<gid_t>(gid)) == -1)
    syslog(LOG_ERR,
           permanent ? "%s:%d failed to initgroup for user=%s, sid=%s"
                     : "%s:%d Failed to initgroup for user=%s, sid=%s",
           kWebCgiSource, __LINE__, name, sid);
  if ((permanent ? MeroCgiGidSet(sid, name) : WebCGI::SetEGid(sid, name)) < 0) {
    syslog(LOG_ERR,
           permanent ? "%s:%d failed to set GID for user=%s, sid=%s"
                     : "%s:%d Failed to set GID for user=%s, sid=%s",
           kWebCgiSource, __LINE__, name, sid);
    return -1;
  }
  if ((permanent ? MeroCgiUidSet(sid, name) : WebCGI::SetEUid(sid, name)) < 0) {
    syslog(LOG_ERR,
           permanent ? "%s:%d failed to set UID for user=%s, sid=%s"
                     : "%s:%d Failed to set UID for user=%s, sid=%s",
           kWebCgiSource, __LINE__, name, sid);
    return -1;
  }
  return 0;
}

}  // namespace

int WebCGI::SetEGid(const char* sid, const char* user) {
  if (!sid || !user) {
    syslog(LOG_ERR, "%s:%d Bad parameter", kWebCgiSource, __LINE__);
    return -1;
  }
  const int gid = MeroCgiGIDGet(sid, user);
  if (gid == -1) return -1;
  return ::setresgid(static_cast<gid_t>(-1), static_cast<gid_t>(gid), static_cast<gid_t>(-1)) == 0
             ? 0
             : -1;
}

int WebCGI::SetEUid(const char* sid, const char* user) {
  if (!sid || !user) {
    syslog(LOG_ERR, "%s:%d Bad parameter", kWebCgiSource, __LINE__);
    return -1;
  }
  const int admin = MLIBGroupIsAdminGroupMem(user, 0);
  if (admin < 0) {
    syslog(LOG_ERR, "%s:%d MLIBGroupIsAdminGroupMem(%s) failed. [0x%04X %s:%d]", kWebCgiSource,
           __LINE__, user, MLIBCErrGet(), MLIBCErrorGetFile(), MLIBCErrorGetLine());
    return -1;
  }
  // An administrator keeps the effective user root, with their own group.
  uid_t uid = 0;
  if (admin != 1) {
    const int found = MeroCgiUIDGet(sid, user);
    if (found == -1) return -1;
    uid = static_cast<uid_t>(found);
  }
  return ::setresuid(static_cast<uid_t>(-1), uid, static_cast<uid_t>(-1)) == 0 ? 0 : -1;
}

int WebCGI::setEUGID() {
  return SwitchIds(GetSessionID(), priv->loginUser, false);
}

int WebCGI::setUGID() {
  return SwitchIds(GetSessionID(), priv->loginUser, true);
}

std::string WebCGI::GetRealUsername(const std::string& name) {
  if (name.empty() || name == "guest") return name;
  IF_RUN_AS(0, 0) {
    char buffer[kUserBufferBytes];
    std::memset(buffer, 0, sizeof buffer);
    if (MEROUserLoginNameConvert(name.c_str(), buffer, sizeof buffer) < 1) {
      std::memset(buffer, 0, sizeof buffer);
      std::strncpy(buffer, name.c_str(), sizeof buffer - 1);
    }
    return buffer;
  } else {
    syslog(LOG_ERR, "%s:%d Run as failed.", kWebCgiSource, __LINE__);
    return name;
  }
}

}  // namespace MERO
