// Login and logout: throttling, the password check through PAM, the user's
// category, a new session and its cookie, and an audit line for each.
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../CgiLog.h"
#include "../session/SessionCreate.h"
#include "../session/SessionKeys.h"
#include "../session/SessionOptions.h"
#include "LoginAudit.h"
#include "LoginThrottle.h"
#include "merocgi.h"
#include "merocore.h"
#include "mero_pam_login.h"

namespace {

constexpr int64_t kDefaultLifetimeSeconds = int64_t(MERO_CGI_DEFAULT_SESSION_TIMEOUT) * 60;
constexpr size_t kMaxUserBytes = MERO_PAM_MAX_USER_BYTES;

// How the user proves who they are.
enum class Proof { kPassword, kNone };

struct Attempt {
  MEROCGI_STATE* state;
  char* out;
  unsigned int outSize;
  const LOGIN_PARAMS* params;
  Proof proof;
  const char* service;  // PAM service; null: the default
  const char* confDir;  // PAM service directory; null: the default
  const char* user;
  const char* password;
};

void WriteOut(char* out, unsigned int outSize, const std::string& text) {
  if (!out || outSize < 1) return;
  const size_t length = std::min<size_t>(text.size(), outSize - 1);
  std::memcpy(out, text.data(), length);
  out[length] = '\0';
}

bool IsUsableUser(const char* user) {
  const size_t length = user ? ::strnlen(user, kMaxUserBytes + 1) : 0;
  if (length == 0 || length > kMaxUserBytes) return false;
  for (size_t i = 0; i < length; ++i)
    if (static_cast<unsigned char>(user[i]) < 0x20 || user[i] == 0x7f) return false;
  return true;
}

bool IsAdministrator(const char* user) { return MLIBGroupIsAdminGroupMem(user, 0) > 0; }

// Whether the category bits admit `user` (the categories are in merocgi.h).
bool CategoryAdmitted(const char* user, bool administrator, unsigned int flags) {
  if (std::strchr(user, '\\')) return flags & MERO_LOGIN_FLAG_DOMAIN;
  if (std::strchr(user, '@')) return flags & MERO_LOGIN_FLAG_LDAP;
  return flags & (administrator ? MERO_LOGIN_FLAG_ADMIN : MERO_LOGIN_FLAG_LOCAL);
}

int64_t LifetimeSeconds(const MEROCGI_STATE* state) {
  const int minutes = state->session ? state->session->lifetimeMinutes : 0;
  if (minutes == -1) return 0;
  return minutes > 0 ? int64_t(minutes) * 60 : kDefaultLifetimeSeconds;
}

int RefusedByPam(int pamResult, const Attempt& attempt, const char* client) {
  switch (pamResult) {
    case MERO_PAM_ACCOUNT_REFUSED:
      merocgi::AuditLoginFailure(attempt.user, client, "account");
      return MERO_LOGIN_ACCOUNT_REFUSED;
    case MERO_PAM_UNAVAILABLE:
      merocgi::AuditLoginFailure(attempt.user, client, "unavailable");
      return MERO_LOGIN_UNAVAILABLE;
    case MERO_PAM_INVALID:
      merocgi::AuditLoginFailure(attempt.user, client, "password");
      return MERO_LOGIN_INVALID;
    default:
      merocgi::AuditLoginFailure(attempt.user, client, "password");
      return MERO_LOGIN_FAILED;
  }
}

// The new session becomes the request's own: its cookie goes out, and the
// rest of the request sees it as the "id" cookie.
bool AdoptSession(MEROCGI_STATE* state, const std::string& id, const std::string& csrf) {
  if (!MeroCgiSetCookies(state, "id", id.c_str(), 0, "/", 0, nullptr)) return false;
  if (!state->inCookieTable && !(state->inCookieTable = MLIBCSzHashAlloc(8))) return false;
  if (MLIBCSzHashSetValue(&state->inCookieTable, "id", id.c_str()) < 0) return false;
  return merocgi::RememberSession(state, csrf, 1);
}

int LogIn(const Attempt& attempt) {
  WriteOut(attempt.out, attempt.outSize, "");
  const char* client = std::getenv("REMOTE_ADDR");
  const bool logErrors = !(attempt.params->flags & MERO_LOGIN_FLAG_NO_ERROR_LOG);
  if (!IsUsableUser(attempt.user) || !client || !*client || !attempt.state->registry) {
    if (logErrors) MEROCGI_LOG("login refused: no usable user name or client address");
    merocgi::AuditLoginFailure(attempt.user, client, "invalid");
    return MERO_LOGIN_INVALID;
  }
  const int64_t now = static_cast<int64_t>(::time(nullptr));

  if (attempt.proof == Proof::kPassword) {
    merocgi::LoginThrottle throttle(attempt.user, client);
    int retryAfter = 0;
    switch (throttle.Attempt(now, &retryAfter)) {
      case merocgi::LoginThrottle::Verdict::kLocked:
        WriteOut(attempt.out, attempt.outSize, std::to_string(retryAfter));
        merocgi::AuditLoginThrottled(attempt.user, client, retryAfter);
        return MERO_LOGIN_THROTTLED;
      case merocgi::LoginThrottle::Verdict::kStoreError:
        merocgi::AuditLoginFailure(attempt.user, client, "store");
        return MERO_LOGIN_STORE_ERROR;
      case merocgi::LoginThrottle::Verdict::kProceed:
        break;
    }
    const int pam = MeroPamAuthenticate(attempt.service, attempt.confDir, attempt.user,
                                        attempt.password ? attempt.password : "");
    if (pam != MERO_PAM_OK) return RefusedByPam(pam, attempt, client);
    if (!throttle.Succeeded(now) && logErrors)
      MEROCGI_LOG("login of a user succeeded but its failed attempts could not be cleared");
  }

  const bool administrator = IsAdministrator(attempt.user);
  if (!CategoryAdmitted(attempt.user, administrator, attempt.params->flags)) {
    merocgi::AuditLoginFailure(attempt.user, client, "category");
    return MERO_LOGIN_CATEGORY_REFUSED;
  }
  std::string id, csrf;
  if (merocgi::CreateSession(attempt.state->registry, attempt.user, client,
                             LifetimeSeconds(attempt.state), administrator ? "admin" : "", false,
                             &id, &csrf) != MERO_SESSION_AUTHORIZED ||
      !AdoptSession(attempt.state, id, csrf)) {
    if (logErrors) MEROCGI_LOG("login could not create or hand out a session");
    merocgi::AuditLoginFailure(attempt.user, client, "store");
    return MERO_LOGIN_STORE_ERROR;
  }
  WriteOut(attempt.out, attempt.outSize, csrf);
  merocgi::AuditLoginSuccess(attempt.user, client);
  return MERO_LOGIN_SUCCESS;
}

int GuardedLogIn(const Attempt& attempt) {
  if (!attempt.state || !attempt.params || !attempt.out || attempt.outSize < 1)
    return MERO_LOGIN_INVALID;
  try {
    return LogIn(attempt);
  } catch (...) {
    MEROCGI_LOG("login failed: out of memory");
    return MERO_LOGIN_STORE_ERROR;
  }
}

}  // namespace

extern "C" {

int MeroCgiLoginEx2(MEROCGI_STATE* state, char* out, unsigned int outSize, LOGIN_PARAMS* params,
                    const char* /*loginArg: not used here*/) {
  if (!params) return MERO_LOGIN_INVALID;
  return GuardedLogIn({state, out, outSize, params, Proof::kPassword, params->service, nullptr,
                       params->user, params->password});
}

int MeroCgiLoginNoAuth(MEROCGI_STATE* state, char* out, unsigned int outSize,
                       LOGIN_PARAMS* params) {
  if (!params) return MERO_LOGIN_INVALID;
  return GuardedLogIn(
      {state, out, outSize, params, Proof::kNone, nullptr, nullptr, params->user, nullptr});
}

int MeroCgiLoginWithPamConf(MEROCGI_STATE* state, char* out, unsigned int outSize,
                            LOGIN_PARAMS* params, int /*pamFlag: not used here*/,
                            const MERO::PamConf* conf) {
  if (!params || !conf) return MERO_LOGIN_INVALID;
  const char* service = conf->GetService().empty() ? nullptr : conf->GetService().c_str();
  const char* confDir = conf->GetConfDir().empty() ? nullptr : conf->GetConfDir().c_str();
  return GuardedLogIn({state, out, outSize, params, Proof::kPassword, service, confDir,
                       conf->GetUser().c_str(), conf->GetAuthTok().c_str()});
}

int MeroCgiLoginWithOIDCSSOAuth(MEROCGI_STATE* state, char* out, unsigned int outSize,
                                LOGIN_PARAMS* params, const char* /*loginArg*/,
                                int /*ssoFlag*/) {
  if (!state || !params) return MERO_LOGIN_INVALID;
  WriteOut(out, outSize, "");
  merocgi::AuditLoginFailure(params->user, std::getenv("REMOTE_ADDR"), "sso-not-configured");
  return MERO_LOGIN_SSO_NOT_CONFIGURED;
}

int MeroCgiLogoutEx(MEROCGI_STATE* state, const char* sid, const char* user) {
  if (!state || !sid) return MERO_SESSION_INVALID;
  try {
    const char* client = std::getenv("REMOTE_ADDR");
    // The cookie goes whatever the store says: the browser should forget it.
    MeroCgiSetCookies(state, "id", "", -1, "/", 0, nullptr);
    const int removed = merocgi::IsSessionIdShape(sid) ? MeroCgiSessionRevoke(sid, nullptr, nullptr) : 0;
    if (removed < 0) return removed;
    merocgi::AuditLogout(user, client, removed > 0);
    return removed > 0 ? 1 : 0;
  } catch (...) {
    MEROCGI_LOG("logout failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

}  // extern "C"
