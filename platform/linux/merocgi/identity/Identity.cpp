// The ids of a session's user, and switching the process to them. A session
// vouches for its user only while it is live, so every id comes from a
// session lookup; the switches take the ids only from there.
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "../CgiLog.h"
#include "../session/SessionDb.h"
#include "../session/SessionKeys.h"
#include "mero_accounts.h"
#include "merocgi.h"

namespace {

enum class Id { kUser, kGroup };

// Whether `sid` names a live session of exactly `user`: active and within
// its lifetime. Idle time and client address belong to the request's own
// check (MeroCgiIsAuthorizedEx), which ran before anyone asks for ids.
bool IsLiveSessionOf(const char* sid, const char* user) {
  if (!merocgi::IsSessionIdShape(sid)) return false;
  merocgi::SessionRow row;
  merocgi::SessionDb reader;
  if (reader.Open(merocgi::SessionDb::Access::kRequest) != merocgi::SessionDb::OpenResult::kOpened)
    return false;  // no store yet, or a failure Open logged
  if (reader.FindById(merocgi::SessionIdHash(sid), &row) != 1) return false;
  const int64_t now = static_cast<int64_t>(::time(nullptr));
  return row.state == static_cast<int>(merocgi::SessionState::kActive) &&
         !merocgi::IsSessionExpired(row.created, row.lifetime, row.lastSeen, 0, now) &&
         row.user == user;
}

int SessionId(const char* sid, const char* user, Id which) {
  if (!sid || !user) return -1;
  try {
    if (!IsLiveSessionOf(sid, user)) return -1;
    mero::Account account;
    const mero::Lookup found = mero::FindAccount(user, &account);
    if (found == mero::Lookup::kFailed)
      MEROCGI_LOG("account lookup failed: %s", std::strerror(errno));
    if (found != mero::Lookup::kFound) return -1;
    const unsigned long id = which == Id::kUser ? account.uid : account.gid;
    return id <= static_cast<unsigned long>(INT_MAX) ? static_cast<int>(id) : -1;
  } catch (...) {
    MEROCGI_LOG("session id lookup failed: out of memory");
    return -1;
  }
}

}  // namespace

extern "C" {

int MeroCgiUIDGet(const char* sid, const char* user) { return SessionId(sid, user, Id::kUser); }

int MeroCgiGIDGet(const char* sid, const char* user) { return SessionId(sid, user, Id::kGroup); }

int MeroCgiGidSet(const char* sid, const char* user) {
  const int gid = MeroCgiGIDGet(sid, user);
  if (gid < 0) {
    errno = ENOENT;
    return -1;
  }
  const gid_t id = static_cast<gid_t>(gid);
  return ::setresgid(id, id, id) == 0 ? 0 : -1;
}

int MeroCgiUidSet(const char* sid, const char* user) {
  const int uid = MeroCgiUIDGet(sid, user);
  if (uid < 0) {
    errno = ENOENT;
    return -1;
  }
  const uid_t id = static_cast<uid_t>(uid);
  return ::setresuid(id, id, id) == 0 ? 0 : -1;
}

}  // extern "C"
