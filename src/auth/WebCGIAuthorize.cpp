// Session authorization: which session identifier the request presents, the
// platform's answer for it, and one retry against the default registry.
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "../util/LogSource.h"
#include "webapi/WebCGI.h"

namespace MERO {
namespace {

constexpr int kNoSessionId = -5;
constexpr int kAuthFileUnreadable = -9;
constexpr size_t kUserBufferBytes = 493;
constexpr size_t kSidCookieBytes = 125;
constexpr const char kFallbackRegistry[] = "current.users";
constexpr int kOptionToken = 2;
constexpr int kOptionDevicePkey = 14;

}  // namespace

int WebCGIPrivate::IsAuthorized() {
  const char* sid = MeroCgiGetCGIParam(State(), "_sid", nullptr);
  if (sid && *sid) {
    // The _sid parameter stands in for the cookie for the rest of the
    // request: everything that later asks for the "id" cookie sees it.
    char cookie[kSidCookieBytes];
    std::snprintf(cookie, sizeof cookie, "id=%s", sid);
    setenv("HTTP_COOKIE", cookie, 1);
    MeroCgiLoadInCookies(State());
  } else {
    sid = MeroCgiGetInCookies(State(), "id", nullptr);
    if (!sid) return kNoSessionId;
  }
  char user[kUserBufferBytes];
  std::memset(user, 0, sizeof user);
  const MEROCGI_AUTH_OPTIONS options = {31, 0};
  const int result = MeroCgiIsAuthorizedEx(State(), sid, user, sizeof user, &options,
                                           privilege.empty() ? nullptr : privilege.c_str());
  user[sizeof user - 1] = '\0';
  loginUser = user;
  return result;
}

int WebCGIPrivate::CheckAuthorized() {
  if (!unreadableAuthFile.empty()) {
    syslog(LOG_ERR, "%s:%d auth file %s exists but could not be read; session refused",
           detail::kWebCgiSource, __LINE__, unreadableAuthFile.c_str());
    return kAuthFileUnreadable;
  }
  const int first = IsAuthorized();
  if (first >= 0) return first;
  if (!loginUser.empty()) return first;  // found, but refused: another registry cannot help
  MEROCGI_STATE* state = State();
  const std::string ownRegistry = sessionName;
  const std::string extra = state->extra ? state->extra : "";
  MeroCgiSetSessionParam(state, state->sessionTimeout, state->skipCheckIP, kFallbackRegistry,
                         extra.c_str());
  const int second = IsAuthorized();
  // The platform folds a bare session name into its registry name.
  MeroCgiSetSessionParam(state, state->sessionTimeout, state->skipCheckIP, ownRegistry.c_str(),
                         extra.c_str());
  return second;
}

std::string WebCGIPrivate::GetMeroToken() { return MeroCgiGetOption(State(), kOptionToken, ""); }

std::string WebCGIPrivate::GetDevicePkey() {
  return MeroCgiGetOption(State(), kOptionDevicePkey, "");
}

int WebCGI::CheckAuthorized() { return priv->CheckAuthorized(); }

const char* WebCGI::GetSessionID() { return MeroCgiGetInCookies(priv->State(), "id", nullptr); }

int WebCGI::GetSessionFilePath(char* buf, int size) {
  return MeroCgiGetSessPath(priv->State(), buf, size);
}

int WebCGI::UpdateCookiesHash() { return MeroCgiLoadInCookies(priv->State()); }

std::string WebCGI::GetMeroToken() { return priv->GetMeroToken(); }

std::string WebCGI::GetDevicePkey() { return priv->GetDevicePkey(); }

std::string WebCGI::GetDeviceId() { return std::string(); }

std::string WebCGI::GetLoginUserName() const { return priv->loginUser; }

}  // namespace MERO
