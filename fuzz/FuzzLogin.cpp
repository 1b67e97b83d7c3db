// The login parameter path in process: the request's parameters and
// cookies, WebCGI::Login through real PAM (a pam_matrix service knowing one
// account, alice/secret), the throttling store and the session store.
// Input: the query string, then the Cookie header, separated by '\n'.
// Properties: the result is one the login contract documents; a login
// succeeds exactly for alice's right password; on success the session is
// new (never one the request carried) and its cookie is recorded, on any
// other result no session cookie is; the login's output never holds the
// password.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "FuzzCheck.h"
#include "FuzzRoot.h"
#include "merocgi.h"
#include "webapi/WebCGI.h"

namespace {

std::string OnceSetUp() {
  static const std::string root = [] {
    MakeFuzzRoot("login");
    const std::string base = getenv("MERO_APPLIANCE_ROOT");
    std::filesystem::create_directories(base + "/etc/pam.d");
    std::ofstream(base + "/usr/mero/meroman/webapi/fuzz.auth")
        << R"({"timeout": 30, "allow_user": ["admin", "local"]})";
    std::ofstream(base + "/etc/passdb") << "alice:secret:webui\n";
    const std::string module = "/usr/lib/x86_64-linux-gnu/pam_wrapper/pam_matrix.so passdb=" + base + "/etc/passdb";
    std::ofstream(base + "/etc/pam.d/webui") << "auth required " << module << "\naccount required " << module << "\n";
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    close(devNull);
    return base;
  }();
  return root;
}

bool Documented(int result) {
  for (int code : {MERO_LOGIN_SUCCESS, MERO_LOGIN_FAILED, MERO_LOGIN_ACCOUNT_REFUSED,
                   MERO_LOGIN_CATEGORY_REFUSED, MERO_LOGIN_INVALID})
    if (result == code) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string root = OnceSetUp();
  // Each input starts with no failed attempts counted: throttling is tested
  // elsewhere, and would otherwise hide the password check after five tries.
  unlink((root + MERO_CGI_LOGIN_THROTTLE_DB).c_str());
  unlink((root + MERO_CGI_LOGIN_THROTTLE_DB "-lock").c_str());

  const std::string input(reinterpret_cast<const char*>(data), size);
  if (input.find('\0') != std::string::npos) return 0;  // no environment can carry it
  const size_t newline = input.find('\n');
  setenv("REQUEST_METHOD", "GET", 1);
  setenv("REMOTE_ADDR", "127.0.0.1", 1);
  setenv("QUERY_STRING", input.substr(0, newline).c_str(), 1);
  if (newline == std::string::npos)
    unsetenv("HTTP_COOKIE");
  else
    setenv("HTTP_COOKIE", input.substr(newline + 1).c_str(), 1);

  MERO::WebCGI cgi("fuzz", true);
  const char* user = cgi.In("user", nullptr);
  const char* password = cgi.In("password", nullptr);
  if (!user || !password) return 0;
  const std::string userText = user, passwordText = password;
  const char* carried = cgi.GetCookie("id", nullptr);
  const std::string carriedId = carried ? carried : "";

  char out[128] = {};
  const int result = cgi.Login(user, password, out, sizeof out);
  FUZZ_CHECK(Documented(result));
  FUZZ_CHECK((result == MERO_LOGIN_SUCCESS) == (userText == "alice" && passwordText == "secret"));
  const Json::Value cookies = cgi.GetSetCookies();
  if (result == MERO_LOGIN_SUCCESS) {
    const char* id = cgi.GetSessionID();
    FUZZ_CHECK(id && std::strlen(id) == MERO_CGI_SESSION_ID_CHARS && carriedId != id);
    FUZZ_CHECK(cookies.isMember("id"));
    FUZZ_CHECK(std::strlen(out) == MERO_CGI_CSRF_TOKEN_CHARS);
  } else {
    FUZZ_CHECK(!cookies.isMember("id"));
  }
  if (passwordText.size() >= 4) FUZZ_CHECK(std::strstr(out, passwordText.c_str()) == nullptr);
  return 0;
}
