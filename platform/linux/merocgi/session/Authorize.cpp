// The session check of a request, and the options of the session it found.
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "../CgiLog.h"
#include "CsrfRule.h"
#include "SessionDb.h"
#include "SessionKeys.h"
#include "SessionOptions.h"
#include "merocgi.h"
#include "merocore.h"

namespace {

constexpr int kOptionCsrfToken = 2;
constexpr int kOptionLoginState = 13;

int64_t Now() { return static_cast<int64_t>(::time(nullptr)); }

void CopyUser(const std::string& user, char* buffer, int size) {
  const size_t length = std::min(user.size(), static_cast<size_t>(size - 1));
  std::memcpy(buffer, user.data(), length);
  buffer[length] = '\0';
}

bool HasPrivilege(const std::string& privileges, const char* wanted) {
  const size_t wantedLength = std::strlen(wanted);
  size_t start = 0;
  while (start < privileges.size()) {
    size_t end = privileges.find(' ', start);
    if (end == std::string::npos) end = privileges.size();
    if (end - start == wantedLength && privileges.compare(start, wantedLength, wanted) == 0)
      return true;
    start = end + 1;
  }
  return false;
}

int Authorize(MEROCGI_STATE* state, const char* sid, char* user, int userSize,
              const char* privilege) {
  if (!merocgi::IsSessionIdShape(sid)) return MERO_SESSION_UNKNOWN;
  const merocgi::Sha256Digest idHash = merocgi::SessionIdHash(sid);
  merocgi::SessionRow row;
  {
    merocgi::SessionDb reader;
    switch (reader.Open(merocgi::SessionDb::Access::kRequest)) {
      case merocgi::SessionDb::OpenResult::kMissing:
        return MERO_SESSION_UNKNOWN;
      case merocgi::SessionDb::OpenResult::kFailed:
        return MERO_SESSION_STORE_ERROR;
      case merocgi::SessionDb::OpenResult::kOpened:
        break;
    }
    const int found = reader.Find(idHash, merocgi::CanonicalRegistry(state->registry), &row);
    if (found < 0) return MERO_SESSION_STORE_ERROR;
    if (found == 0) return MERO_SESSION_UNKNOWN;
  }
  CopyUser(row.user, user, userSize);

  const int64_t now = Now();
  if (row.state != static_cast<int>(merocgi::SessionState::kActive)) return MERO_SESSION_ENDED;
  if (merocgi::IsSessionExpired(row.created, row.lifetime, row.lastSeen, state->sessionTimeout,
                                now))
    return MERO_SESSION_EXPIRED;
  if (!state->skipCheckIP) {
    const char* remote = std::getenv("REMOTE_ADDR");
    if (!remote || !merocgi::SameClientAddress(row.client, remote)) return MERO_SESSION_ENDED;
  }
  if (privilege && *privilege && !HasPrivilege(row.privileges, privilege))
    return MERO_SESSION_NO_PRIVILEGE;
  if (merocgi::HasWord(state->extra, "csrf") && !merocgi::PassesCsrfRule(row.csrf))
    return MERO_SESSION_CSRF_REFUSED;

  // Rarely a write: the reader above is closed first, since LMDB's locks
  // belong to the process and one environment may be open at a time. A lost
  // last-seen write costs at most one touch interval of idle time; it never
  // fails the request. The idle limit is written too when it widens (the
  // first check of a session), for the store's own expiry.
  const int64_t idleMinutes = merocgi::WidestIdleLimit(row.idleMinutes, state->sessionTimeout);
  if (now - row.lastSeen >= merocgi::SessionTouchInterval(state->sessionTimeout) ||
      idleMinutes != row.idleMinutes) {
    merocgi::SessionDb writer;
    if (writer.Open(merocgi::SessionDb::Access::kWriter) == merocgi::SessionDb::OpenResult::kOpened)
      writer.Touch(idHash, now, idleMinutes);
  }

  return merocgi::RememberSession(state, row.csrf, row.state) ? MERO_SESSION_AUTHORIZED
                                                             : MERO_SESSION_STORE_ERROR;
}

}  // namespace

namespace merocgi {

_tag_MEROCGI_SESSION* SessionOptionsOf(MEROCGI_STATE* state) {
  if (!state->session) state->session = new (std::nothrow) _tag_MEROCGI_SESSION;
  return state->session;
}

bool RememberSession(MEROCGI_STATE* state, const std::string& csrfToken, int loginState) {
  _tag_MEROCGI_SESSION* session = SessionOptionsOf(state);
  if (!session) return false;
  session->found = true;
  session->csrfToken = csrfToken;
  if (!session->loginStateSet) session->loginState = std::to_string(loginState);
  return true;
}

}  // namespace merocgi

extern "C" {

int MeroCgiIsAuthorizedEx(MEROCGI_STATE* state, const char* sid, char* user, int userSize,
                          const MEROCGI_AUTH_OPTIONS* /*options: no effect here*/,
                          const char* privilege) {
  if (!state || !sid || !user || userSize < 1) return MERO_SESSION_INVALID;
  try {
    return Authorize(state, sid, user, userSize, privilege);
  } catch (...) {
    MEROCGI_LOG("session check failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

const char* MeroCgiGetOption(MEROCGI_STATE* state, int option, const char* def) {
  if (!state || !state->session) return def;
  const _tag_MEROCGI_SESSION& session = *state->session;
  if (option == kOptionCsrfToken && session.found) return session.csrfToken.c_str();
  if (option == kOptionLoginState && (session.found || session.loginStateSet))
    return session.loginState.c_str();
  return def;
}

int MeroCgiSetOption(MEROCGI_STATE* state, int option, const void* value) {
  if (!state || !value) return 0;
  try {
    if (option == MERO_CGI_OPTION_SESSION_LIFETIME) {
      const int minutes = *static_cast<const int*>(value);
      if (minutes <= 0 && minutes != -1) return 0;
      _tag_MEROCGI_SESSION* session = merocgi::SessionOptionsOf(state);
      if (!session) return 0;
      session->lifetimeMinutes = minutes;
      return 1;
    }
    if (option == MERO_CGI_OPTION_LOGIN_STATE) {
      _tag_MEROCGI_SESSION* session = merocgi::SessionOptionsOf(state);
      if (!session) return 0;
      session->loginState = static_cast<const char*>(value);
      session->loginStateSet = true;
      return 1;
    }
  } catch (...) {
    MEROCGI_LOG("setting option %d failed: out of memory", option);
  }
  return 0;
}

int MeroCgiGetSessPath(MEROCGI_STATE* /*state: one store for all*/, char* buf, int size) {
  if (!buf || size < 1) return 0;
  buf[0] = '\0';
  const char* root = MeroApplianceRoot();
  const size_t rootLength = std::strlen(root), pathLength = std::strlen(MERO_CGI_SESSION_DB);
  if (rootLength + pathLength >= static_cast<size_t>(size)) return 0;
  std::memcpy(buf, root, rootLength);
  std::memcpy(buf + rootLength, MERO_CGI_SESSION_DB, pathLength + 1);
  return 1;
}

}  // extern "C"
