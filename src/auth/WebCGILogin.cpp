// Login and logout: fills the platform's login parameters, calls it, and
// does the library's own part after a successful login.
#include <syslog.h>

#include <cstring>
#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "../util/LogSource.h"
#include "merocgi.h"
#include "mero_pam_login.h"
#include "webapi/WebCGI.h"
#define WEBAPI_RUN_AS_SOURCE ::MERO::detail::kWebCgiSource
#include "webapi/RunAsGuard.h"

namespace MERO {
namespace {

using detail::kWebCgiSource;

constexpr int kDefaultTimeout = 10080;
constexpr size_t kUserBufferBytes = 493;
constexpr const char kLoginService[] = "webui";

// Keeps at most the buffer's worth of a user name, as the platform's
// fixed-size records do.
std::string CutUserName(const std::string& name) { return name.substr(0, kUserBufferBytes - 1); }

}  // namespace

void WebCGI::SetDuration(_tag_login_params& params) {
  const int timeout = priv->State()->sessionTimeout;
  if (timeout == kDefaultTimeout) {
    params.duration = 1;
  } else if (timeout == -1 || timeout > 0) {
    MeroCgiSetOption(priv->State(), MERO_CGI_OPTION_SESSION_LIFETIME, &timeout);
  } else {
    params.duration = 0;
  }
}

void WebCGI::CheckLogin(CGI_LOGIN_RESULT& result, _tag_login_params& params, const char* out) {
  if (result != 1) return;
  priv->loginUser = params.user ? params.user : "";
  if (params.user) {
    const char* user = params.user;
    if (std::strchr(user, '\\')) {
      IF_RUN_AS(0, 0) {
        if (MeroCgiDomValidShareWrite(user, out) < 0)
          syslog(LOG_ERR, "%s (%d) MeroCgiDomValidShareWrite failed.", kWebCgiSource, __LINE__);
      } else {
        syslog(LOG_ERR, "%s:%d Change permission failed.", kWebCgiSource, __LINE__);
      }
    } else if (std::strchr(user, '@')) {
      IF_RUN_AS(0, 0) {
        if (MeroCgiLDAPValidShareWrite(user, out) < 0)
          syslog(LOG_ERR, "%s:%d MeroCgiLDAPValidShareWrite failed. [%s]", kWebCgiSource, __LINE__,
                 user);
      } else {
        syslog(LOG_ERR, "%s:%d Change permission failed.", kWebCgiSource, __LINE__);
      }
    }
  }
  if (!priv->CheckAllowUser()) result = -3;
}

int WebCGI::Login(const char* user, const char* password, char* out, unsigned int outSize,
                  bool sso, const char* loginArg, bool ssoFlag) {
  _tag_login_params params{user, password, kLoginService, priv->loginFlags, 0};
  SetDuration(params);
  CGI_LOGIN_RESULT result =
      sso ? MeroCgiLoginWithOIDCSSOAuth(priv->State(), out, outSize, &params, loginArg, ssoFlag)
          : MeroCgiLoginEx2(priv->State(), out, outSize, &params, loginArg);
  CheckLogin(result, params, out);
  return result;
}

int WebCGI::LoginNoAuth(const char* user, char* out, unsigned int outSize) {
  _tag_login_params params{user, "", kLoginService, priv->loginFlags, 0};
  SetDuration(params);
  CGI_LOGIN_RESULT result = MeroCgiLoginNoAuth(priv->State(), out, outSize, &params);
  CheckLogin(result, params, out);
  return result;
}

int WebCGI::Login(PamConf& conf, char* out, unsigned int outSize, bool pamFlag) {
  const std::string authTok = conf.GetAuthTok();
  conf.SetUser(CutUserName(GetRealUsername(conf.GetUser())));
  const std::string user = conf.GetUser();
  _tag_login_params params{user.c_str(), authTok.c_str(), "", priv->loginFlags, 0};
  SetDuration(params);
  CGI_LOGIN_RESULT result =
      MeroCgiLoginWithPamConf(priv->State(), out, outSize, &params, pamFlag, &conf);
  CheckLogin(result, params, out);
  return result;
}

bool WebCGI::Logout() {
  char user[kUserBufferBytes] = {};
  std::strncpy(user, priv->loginUser.c_str(), sizeof user - 1);
  // Unlike the session check, an empty _sid still names the session to end.
  const char* sid = MeroCgiGetCGIParam(priv->State(), "_sid", nullptr);
  if (!sid) sid = MeroCgiGetInCookies(priv->State(), "id", nullptr);
  if (!sid) return false;
  return MeroCgiLogoutEx(priv->State(), sid, user) == 1;
}

void WebCGI::SetLoginState(const std::string& state) {
  MeroCgiSetOption(priv->State(), MERO_CGI_OPTION_LOGIN_STATE, state.c_str());
}

std::string WebCGI::GetLoginState() {
  return MeroCgiGetOption(priv->State(), MERO_CGI_OPTION_LOGIN_STATE, "");
}

}  // namespace MERO
