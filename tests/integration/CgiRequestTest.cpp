// A CGI program on the library, run as a child process with a crafted
// environment and standard input: what it saw of each request.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"
#include "merocgi.h"
#include "webapi/JsonValue.h"

namespace {

using Env = std::map<std::string, std::string>;

struct Seen {
  Json::Value dump;  // the program's JSON answer
  std::string log;   // its log lines (copied to stderr)
};

Seen RunDump(Env env, const std::string& body) {
  env["PATH"] = "/usr/bin:/bin";
  env["MERO_APPLIANCE_ROOT"] = webapi_test::ApplianceRoot().string();
  if (!env.count("DUMP_PARAMS")) env["DUMP_PARAMS"] = "api,method,version,a,b,q";
  if (!env.count("DUMP_COOKIES")) env["DUMP_COOKIES"] = "id,theme,x,lang";
  const webapi_test::ChildResult child = webapi_test::RunChild(CONTEXT_DUMP_PATH, env, body);
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  const size_t bodyStart = child.out.find("\r\n\r\n");
  Seen seen{Json::Value(), child.err};
  EXPECT_TRUE(bodyStart != std::string::npos &&
              MERO::JsonValue::fromString(seen.dump, child.out.substr(bodyStart + 4)))
      << child.out;
  return seen;
}

// Exactly the `want` members of `names` in `got`, with their values.
void ExpectOnly(const Json::Value& got, const std::map<std::string, std::string>& want,
                std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const auto it = want.find(name);
    EXPECT_EQ(got[name], it == want.end() ? Json::Value() : Json::Value(it->second)) << name;
  }
}

Env Post(const std::string& body, Env extra = {}) {
  extra["REQUEST_METHOD"] = "POST";
  extra["CONTENT_LENGTH"] = std::to_string(body.size());
  if (!extra.count("CONTENT_TYPE")) extra["CONTENT_TYPE"] = "application/x-www-form-urlencoded";
  return extra;
}

TEST(CgiRequestTest, ParametersArriveByEveryRoute) {
  struct Case {
    const char* name; Env env; std::string body;
    std::map<std::string, std::string> params;
    std::string json;  // "null" for none
  };
  const Case cases[] = {
      {"GET", {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "api=Demo.Info&version=1&q=a+b%21"}},
       "", {{"api", "Demo.Info"}, {"version", "1"}, {"q", "a b!"}}, "null"},
      {"POST form", Post("api=Demo.Info&method=get&a=%E2%82%AC"), "api=Demo.Info&method=get&a=%E2%82%AC",
       {{"api", "Demo.Info"}, {"method", "get"}, {"a", "\xe2\x82\xac"}}, "null"},
      {"POST JSON", Post(R"({"api":"Demo.Info","version":2})", {{"CONTENT_TYPE", "application/json"}}),
       R"({"api":"Demo.Info","version":2})", {}, R"({"api":"Demo.Info","version":2})"},
      {"POST JSON with query", Post(R"({"x":1})", {{"QUERY_STRING", "api=Q&method=m"}}), R"({"x":1})",
       {{"api", "Q"}, {"method", "m"}}, R"({"x":1})"},
      {"POST with query, body wins", Post("api=Body", {{"QUERY_STRING", "api=Query&b=2"}}), "api=Body",
       {{"api", "Body"}, {"b", "2"}}, "null"},
      {"POST empty body uses query", Post("", {{"QUERY_STRING", "a=1"}}), "", {{"a", "1"}}, "null"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Seen seen = RunDump(c.env, c.body);
    ExpectOnly(seen.dump["params"], c.params, {"api", "method", "version", "a", "b", "q"});
    Json::Value json;
    ASSERT_TRUE(MERO::JsonValue::fromString(json, c.json));
    EXPECT_EQ(seen.dump["json"], json);
    EXPECT_EQ(seen.dump["error"].asInt(), MERO_ERR_NONE) << seen.log;
  }
}

TEST(CgiRequestTest, RefusedBodiesLeaveNoParametersAndSayWhy) {
  const std::string big(MERO_CGI_MAX_PARAM_LINE_BYTES + 1, 'a');
  struct Case { const char* name; Env env; std::string body; int error; const char* log; };
  const Case cases[] = {
      {"oversized", Post(big), big, MERO_ERR_REQUEST_TOO_LARGE, "exceeds the limit"},
      {"short", {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "100"}}, "api=x", MERO_ERR_REQUEST_INCOMPLETE,
       "body ended after 5 of 100 bytes"},
      {"bad length", {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "12abc"}}, "api=x",
       MERO_ERR_REQUEST_MALFORMED, "CONTENT_LENGTH is not a decimal number"},
      {"negative length", {{"REQUEST_METHOD", "POST"}, {"CONTENT_LENGTH", "-5"}}, "api=x",
       MERO_ERR_REQUEST_MALFORMED, "CONTENT_LENGTH"},
      {"NUL in body", Post(std::string("api=x\0y", 7)), std::string("api=x\0y", 7), MERO_ERR_REQUEST_MALFORMED,
       "holds a NUL byte"},
      {"NUL escape", Post("api=x%00y"), "api=x%00y", MERO_ERR_REQUEST_MALFORMED, "decodes to a NUL byte"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Seen seen = RunDump(c.env, c.body);
    EXPECT_TRUE(seen.dump["params"]["api"].isNull());
    EXPECT_EQ(seen.dump["error"].asInt(), c.error);
    EXPECT_NE(seen.log.find(c.log), std::string::npos) << seen.log;
  }
}

TEST(CgiRequestTest, MalformedEscapesAndJsonAreReadAsFormsWithALogLine) {
  const Seen escapes = RunDump(Post("a=100%&b=%zz"), "a=100%&b=%zz");
  EXPECT_EQ(escapes.dump["params"]["a"].asString(), "100%");
  EXPECT_EQ(escapes.dump["params"]["b"].asString(), "%zz");
  EXPECT_NE(escapes.log.find("kept literally"), std::string::npos) << escapes.log;

  const std::string broken = R"({"api":"x", )";
  for (const std::string& body : {broken, std::string(2000, '[')}) {
    const Seen seen = RunDump(Post(body, {{"CONTENT_TYPE", "application/json"}}), body);
    EXPECT_TRUE(seen.dump["json"].isNull());
    EXPECT_NE(seen.log.find("is not JSON; read as a form"), std::string::npos) << seen.log;
  }
}

TEST(CgiRequestTest, HostileCookieHeadersNeverReachTheHandlerAsCookies) {
  struct Case {
    const char* name; std::string header; std::map<std::string, std::string> cookies;
    const char* log;  // "" for any
  };
  const Case cases[] = {
      {"plain", "id=abc123; theme=dark", {{"id", "abc123"}, {"theme", "dark"}}, ""},
      {"huge", "id=" + std::string(MERO_CGI_MAX_COOKIE_HEADER_BYTES, 'x'), {}, "refused Cookie header"},
      {"no equals", "id; theme=light; x", {{"theme", "light"}}, "malformed pair"},
      // Not one quoted string: kept as it came, not stripped of its outer quotes.
      {"two quoted strings", R"(id="zzz "   "ppp"; x="a"b")",
       {{"id", R"("zzz "   "ppp")"}, {"x", R"("a"b")"}}, ""},
      {"control bytes", "id=a\tb\x01; x=\x1b[31m; theme=ok", {{"theme", "ok"}}, "malformed pair"},
      {"separators only", ";;; ; ;", {}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Seen seen = RunDump({{"REQUEST_METHOD", "GET"}, {"HTTP_COOKIE", c.header}}, "");
    ExpectOnly(seen.dump["cookies"], c.cookies, {"id", "theme", "x", "lang"});
    EXPECT_NE(seen.log.find(c.log), std::string::npos) << seen.log;
  }
}

}  // namespace
