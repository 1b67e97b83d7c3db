// The scoped switch of effective ids: the exact order of calls matters,
// because a process that is not root must become root before it may take
// another group, and must take the group before it gives up root.
#include "webapi/RunAsGuard.h"

#include <syslog.h>
#include <unistd.h>

namespace MERO {
namespace {

constexpr uid_t kNoUid = static_cast<uid_t>(-1);
constexpr gid_t kNoGid = static_cast<gid_t>(-1);

}  // namespace

RunAsGuard::RunAsGuard(uid_t uid, gid_t gid, const char* file_, int line_, const char* name_)
    : savedEuid(::geteuid()), savedEgid(::getegid()), file(file_), line(line_), name(name_), ok(true) {
  const uid_t euid = ::geteuid();
  const gid_t egid = ::getegid();
  if (euid == uid && egid == gid) return;
  if (euid != uid && euid != 0 && ::setresuid(kNoUid, 0, kNoUid) < 0)
    ok = false;
  else if (egid != gid && ::setresgid(kNoGid, gid, kNoGid) != 0)
    ok = false;
  else if (euid != uid && ::setresuid(kNoUid, uid, kNoUid) != 0)
    ok = false;
  if (!ok)
    syslog(LOG_AUTH | LOG_ERR, "%s:%d ERROR: %s(%d, %d)", file, line, name, static_cast<int>(uid),
           static_cast<int>(gid));
}

RunAsGuard::~RunAsGuard() {
  const uid_t euid = ::geteuid();
  const gid_t egid = ::getegid();
  if (euid == savedEuid && egid == savedEgid) return;
  bool restored = true;
  if (savedEuid != euid && euid != 0 && ::setresuid(kNoUid, 0, kNoUid) < 0)
    restored = false;
  else if (savedEgid != kNoGid && savedEgid != egid && ::setresgid(kNoGid, savedEgid, kNoGid) != 0)
    restored = false;
  else if (savedEuid != kNoUid && savedEuid != euid && ::setresuid(kNoUid, savedEuid, kNoUid) != 0)
    restored = false;
  if (!restored)
    syslog(LOG_AUTH | LOG_CRIT, "%s:%d ERROR: ~%s(%d, %d)", file, line, name,
           static_cast<int>(savedEuid), static_cast<int>(savedEgid));
}

}  // namespace MERO
