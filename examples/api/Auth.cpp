// Demo.Auth: logging in and out through PAM, and who the session is.
//
//   method=login   user=...&password=... (POST; no session needed)
//                  -> {"data":{"user":"demo","admin":false,"token":"..."},...}
//                  and the session cookie "id" (HttpOnly, SameSite=Strict).
//                  Send the token back as the header X-Mero-Token on every
//                  state-changing request (browsers on our own pages send
//                  Origin, which does as well).
//   method=whoami  -> {"data":{"user":"demo","admin":false,"token":"..."},...}
//   method=logout  ends the session and clears its cookie -> {"success":true}
//
// Refused logins answer, with "error":{"code":N}:
//   400  user or password missing          401  wrong user name or password
//   402  the account may not log in now    403  this kind of user may not log
//                                                in here
//   429  too many failed attempts: "errors":{"retry_after":N}, the seconds
//        to wait
//   503  the login service is not working (see the server's log)
#include <merocgi.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>

#include <strings.h>

#include <cstdlib>
#include <string>

namespace {

constexpr int kErrorMissing = 400;
constexpr int kErrorWrongPassword = 401;
constexpr int kErrorAccountRefused = 402;
constexpr int kErrorCategoryRefused = 403;
constexpr int kErrorThrottled = 429;
constexpr int kErrorUnavailable = 503;

class AuthApi : public MERO::WebAPI {
 public:
  AuthApi() : WebAPI("auth.api", "demo") { cgi.AddSecurityHeaders("default"); }

  void HandleRequest() override {
    if (strcasecmp(method, "login") == 0) return LogIn();
    if (strcasecmp(method, "logout") == 0) return LogOut();
    if (strcasecmp(method, "whoami") == 0) return WhoAmI();
    SetError(103);
  }

 private:
  // Logging in is the one method that needs no session.
  bool CheckPermission() override {
    return strcasecmp(method, "login") == 0 || MERO::WebAPI::CheckPermission();
  }

  void LogIn() {
    const char* user = cgi.In("user", nullptr);
    const char* password = cgi.In("password", nullptr);
    if (!user || !*user || !password) return SetError(kErrorMissing);
    char out[256] = {};
    const int result = cgi.Login(user, password, out, sizeof out);
    if (result == 1) return WhoAmI();
    if (result == MERO_LOGIN_CATEGORY_REFUSED) {
      // The platform may have created the session before the category test
      // refused it: end it, so the browser holds nothing usable.
      cgi.Logout();
      return SetError(kErrorCategoryRefused);
    }
    if (result == MERO_LOGIN_THROTTLED) {
      Json::Value detail;
      detail["retry_after"] = std::atoi(out);
      return SetError(kErrorThrottled, detail);
    }
    if (result == MERO_LOGIN_FAILED) return SetError(kErrorWrongPassword);
    if (result == MERO_LOGIN_ACCOUNT_REFUSED) return SetError(kErrorAccountRefused);
    SetError(kErrorUnavailable);
  }

  void LogOut() {
    cgi.Logout();
    Json::Value none;
    SetResponse(none);
  }

  void WhoAmI() {
    Json::Value data;
    data["user"] = cgi.GetLoginUserName();
    data["admin"] = cgi.IsAdmin();
    data["token"] = cgi.GetMeroToken();
    SetResponse(data);
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<AuthApi>(argc, argv); }
