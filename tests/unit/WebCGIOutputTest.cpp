// Response headers and cookies as recorded (printing is checked byte for
// byte by the integration tests): nothing that could split a response is
// ever stored, whichever path it takes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ApplianceRootEnv.h"
#include "webapi/WebCGI.h"
#include "merocgi.h"

namespace {

using Output = webapi_test::ApplianceRootTest;

TEST_F(Output, RecordsHeadersAndCookiesAndShowsThemAsJson) {
  MERO::WebCGI cgi("zel", false);
  EXPECT_EQ(cgi.GetSetCookies(), Json::Value(Json::objectValue));  // nothing recorded yet
  EXPECT_EQ(cgi.GetHeaders(), Json::Value(Json::objectValue));
  EXPECT_NE(cgi.AddHeader("X-Trace", "a \"quoted\" \\ value\t!"), 0);
  EXPECT_NE(cgi.AddHeader("Cache-Control", "no-store"), 0);
  EXPECT_NE(cgi.AddHeader("cache-control", "no-cache"), 0);  // same header, any case
  ASSERT_TRUE(cgi.AddCookieToHeader("/api", "id", "abc123"));
  ASSERT_TRUE(cgi.AddCookieToHeader(nullptr, "theme", "\"dark\""));

  Json::Value headers;
  headers["X-Trace"] = "a \"quoted\" \\ value\t!";
  headers["Cache-Control"] = "no-cache";
  EXPECT_EQ(cgi.GetHeaders(), headers);
  EXPECT_EQ(cgi.GetSetHeaders(), headers);
  Json::Value cookies;
  cookies["id"] = "id=abc123; Path=/api; HttpOnly; SameSite=Strict";
  cookies["theme"] = "theme=\"dark\"; Path=/; HttpOnly; SameSite=Strict";
  EXPECT_EQ(cgi.GetSetCookies(), cookies);

  setenv("HTTPS", "on", 1);
  ASSERT_TRUE(cgi.AddCookieToHeader("/", "id", "new"));
  EXPECT_EQ(cgi.GetSetCookies()["id"].asString(), "id=new; Path=/; Secure; HttpOnly; SameSite=Strict");
}

TEST_F(Output, RefusesEverythingThatCouldSplitAResponse) {
  const std::string hugeValue(MERO_CGI_MAX_HEADER_VALUE_BYTES + 1, 'v');
  const char* const badValues[] = {
      "ok\r\nSet-Cookie: id=evil", "ok\nLocation: http://evil", "ok\r", "ok\x1b[0m", "ok\x7f",
      hugeValue.c_str()};
  const char* const badNames[] = {"X-A\r\nX-B", "X-A: v\r\nX", "X A", "", "X-A\n", "X\x01"};
  MERO::WebCGI cgi("zel", false);
  for (const char* value : badValues) {
    SCOPED_TRACE(std::string(value).substr(0, 30));
    EXPECT_EQ(cgi.AddHeader("X-A", value), 0);
    EXPECT_FALSE(cgi.AddCookieToHeader("/", "c", value));
    EXPECT_FALSE(cgi.AddCookieToHeader(value, "c", "v"));  // as a path
    EXPECT_EQ(cgi.Redirect(value), 0);
    EXPECT_FALSE(cgi.WriteHeader(value));
  }
  for (const char* name : badNames) {
    SCOPED_TRACE(name);
    EXPECT_EQ(cgi.AddHeader(name, "v"), 0);
    EXPECT_FALSE(cgi.AddCookieToHeader("/", name, "v"));
  }
  for (const char* value : {"a b", "a;b", "a,b", "a\\b", "\"a\"b\""}) {  // not cookie-octets
    SCOPED_TRACE(value);
    EXPECT_FALSE(cgi.AddCookieToHeader("/", "c", value));
  }
  EXPECT_EQ(cgi.GetHeaders(), Json::Value(Json::objectValue));
  EXPECT_EQ(cgi.GetSetCookies(), Json::Value(Json::objectValue));
}

// A redirect whose Location would not fit records neither header: a 302
// without its Location would send the browser nowhere.
TEST_F(Output, ARedirectThatDoesNotFitRecordsNothing) {
  MERO::WebCGI cgi("zel", false);
  for (int i = 1; i < MERO_CGI_MAX_RESPONSE_HEADERS; ++i)
    ASSERT_NE(cgi.AddHeader(("X-H" + std::to_string(i)).c_str(), "v"), 0);
  EXPECT_EQ(cgi.Redirect("/api/login"), 0);
  const Json::Value headers = cgi.GetHeaders();
  EXPECT_FALSE(headers.isMember("Status"));
  EXPECT_FALSE(headers.isMember("Location"));
  EXPECT_EQ(headers.size(), MERO_CGI_MAX_RESPONSE_HEADERS - 1u);
}

}  // namespace
