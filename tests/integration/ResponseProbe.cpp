// A CGI program for the response tests: it passes request data (parameters
// and a cookie) into every operation that reaches the header block, then
// answers with what was recorded. PROBE_SECURITY (operator environment)
// names the security options to add. Log lines are copied to stderr.
#include <syslog.h>

#include <cstdlib>

#include "webapi/WebCGI.h"

int main() {
  openlog("response-probe", LOG_PERROR, LOG_USER);  // log lines to stderr for the tests
  MERO::WebCGI cgi("zel", true);
  if (const char* url = cgi.In("redirect", nullptr)) return cgi.Redirect(url) ? 0 : 3;
  if (const char* security = std::getenv("PROBE_SECURITY")) cgi.AddSecurityHeaders(security);
  cgi.AddHeader("X-From-Param", cgi.In("h", "none"));
  cgi.AddHeader(cgi.In("hn", "X-Named"), "named");
  cgi.AddCookieToHeader(cgi.In("path", "/"), "fromParam", cgi.In("c", "none"));
  cgi.AddCookieToHeader("/", "fromCookie", cgi.GetCookie("pref", "none"));
  Json::Value recorded;
  recorded["headers"] = cgi.GetHeaders();
  recorded["cookies"] = cgi.GetSetCookies();
  if (!cgi.WriteHeader(cgi.In("type", "application/json; charset=\"UTF-8\""))) return 2;
  cgi.WriteBody(recorded);
  return 0;
}
