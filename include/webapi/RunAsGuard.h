// MERO::RunAsGuard: runs one scope with other effective user and group ids
// (root, in the library's own use) and restores the previous ones when the
// scope ends, on every way out of it. IF_RUN_AS(uid, gid) { ... } else
// { ... } runs its body only when the switch succeeded; the guard lives for
// both branches.
//
// Only effective ids change (setresuid(-1, id, -1), setresgid(-1, id, -1)),
// so a process whose real or saved user id is root can always come back.
// A failed switch is logged with facility LOG_AUTH at LOG_ERR as
// "<file>:<line> ERROR: IF_RUN_AS(<uid>, <gid>)"; a failed restore at
// LOG_CRIT as "<file>:<line> ERROR: ~IF_RUN_AS(<saved uid>, <saved gid>)",
// leaving the ids as they are. One thread: ids belong to the whole process.
#ifndef WEBAPI_RUNASGUARD_H
#define WEBAPI_RUNASGUARD_H

#include <sys/types.h>

#include "webapi/Export.h"

namespace MERO {

class WEBAPI_EXPORT RunAsGuard {
 public:
  // Switches to `uid` and `gid`; `ok` tells whether it worked. `file` and
  // `line` name the guarded scope in the log, `name` the construct.
  RunAsGuard(uid_t uid, gid_t gid, const char* file, int line, const char* name);
  // Restores the ids saved at construction; an id saved as -1 is left alone.
  ~RunAsGuard();
  RunAsGuard(const RunAsGuard&) = delete;
  RunAsGuard& operator=(const RunAsGuard&) = delete;

  uid_t savedEuid;
  gid_t savedEgid;
  const char* file;
  int line;
  const char* name;
  bool ok;
};

}  // namespace MERO

// The source name in the guard's log lines; a program may define its own
// before including this header.
#ifndef WEBAPI_RUN_AS_SOURCE
#define WEBAPI_RUN_AS_SOURCE __FILE__
#endif

#define IF_RUN_AS(uid, gid)                                                                   \
  if (::MERO::RunAsGuard webapiRunAsGuard{(uid), (gid), WEBAPI_RUN_AS_SOURCE, __LINE__, "IF_RUN_AS"}; \
      webapiRunAsGuard.ok)

#endif  // WEBAPI_RUNASGUARD_H
