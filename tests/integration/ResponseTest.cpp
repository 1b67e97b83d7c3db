// The bytes a browser receives from a CGI program on the library: header
// block and body, exactly, and what happens to CR, LF and NUL that arrive
// through parameters, cookies or handler data.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"

namespace {

using Env = std::map<std::string, std::string>;

webapi_test::ChildResult RunProbe(const std::string& query, Env env = {}) {
  env["PATH"] = "/usr/bin:/bin";
  env["MERO_APPLIANCE_ROOT"] = webapi_test::ApplianceRoot().string();
  env["REQUEST_METHOD"] = "GET";
  env["QUERY_STRING"] = query;
  return webapi_test::RunChild(RESPONSE_PROBE_PATH, env, "");
}

TEST(ResponseTest, PrintsTheHeaderBlockAndBodyExactly) {
  const webapi_test::ChildResult plain = RunProbe("h=hello&c=v1", {{"HTTP_COOKIE", "pref=dark"}});
  ASSERT_EQ(plain.exitStatus, 0) << plain.err;
  EXPECT_EQ(plain.out,
            "X-From-Param: hello\r\n"
            "X-Named: named\r\n"
            "Content-type: application/json; charset=\"UTF-8\"\r\n"
            "Set-Cookie: fromParam=v1; Path=/; HttpOnly; SameSite=Strict\r\n"
            "Set-Cookie: fromCookie=dark; Path=/; HttpOnly; SameSite=Strict\r\n"
            "\r\n"
            "{\"cookies\":{\"fromCookie\":\"fromCookie=dark; Path=/; HttpOnly; SameSite=Strict\","
            "\"fromParam\":\"fromParam=v1; Path=/; HttpOnly; SameSite=Strict\"},"
            "\"headers\":{\"X-From-Param\":\"hello\",\"X-Named\":\"named\"}}\n");

  const webapi_test::ChildResult https = RunProbe("c=s", {{"HTTP_X_FORWARDED_PROTO", "https"}});
  EXPECT_NE(https.out.find("Set-Cookie: fromParam=s; Path=/; Secure; HttpOnly; SameSite=Strict\r\n"),
            std::string::npos)
      << https.out;

  const webapi_test::ChildResult redirect = RunProbe("redirect=%2Flogin%3Fnext%3D1");
  EXPECT_EQ(redirect.exitStatus, 0);
  EXPECT_EQ(redirect.out, "Status: 302 Found\r\nLocation: /login?next=1\r\n\r\n");
}

TEST(ResponseTest, RequestDataNeverSplitsTheResponse) {
  struct Case {
    const char* name;
    std::string query;
    Env env;
    const char* refusedLog;
  };
  const Case cases[] = {
      {"encoded CR LF in a header value", "h=a%0D%0ASet-Cookie:%20id=evil", {}, "header value"},
      {"encoded LF in a header value", "h=a%0ALocation:%20http://evil", {}, "header value"},
      {"encoded CR LF in a header name", "hn=X-A%0D%0AX-B", {}, "header name"},
      {"encoded CR LF in a cookie value", "c=a%0D%0AX-Evil:%201", {}, "cookie value"},
      {"encoded CR LF in a cookie path", "path=/%0D%0AX-Evil:%201", {}, "cookie path"},
      {"raw CR LF in a cookie", "", {{"HTTP_COOKIE", "pref=a\r\nX-Evil: 1"}}, "malformed pair"},
      {"encoded CR LF in the content type", "type=text/html%0D%0AX-Evil:%201", {}, "header value"},
      {"encoded CR LF in a redirect", "redirect=/x%0D%0ASet-Cookie:%20a=b", {}, "redirect URL"},
      {"encoded NUL anywhere", "h=a%00b", {}, "NUL byte"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const webapi_test::ChildResult result = RunProbe(c.query, c.env);
    // The header block ends at the first empty line; nothing of the
    // attacker's text may stand in it as a line of its own.
    const std::string block = result.out.substr(0, result.out.find("\r\n\r\n"));
    for (const char* injected : {"\r\nSet-Cookie: id=evil", "\r\nX-Evil", "\r\nLocation: http://evil",
                                 "\r\nX-B", "\nX-Evil", "Set-Cookie: a=b"})
      EXPECT_EQ(block.find(injected), std::string::npos) << block;
    EXPECT_EQ(result.out.find('\0'), std::string::npos);
    EXPECT_NE(result.err.find(c.refusedLog), std::string::npos) << result.err;
  }
}

}  // namespace
