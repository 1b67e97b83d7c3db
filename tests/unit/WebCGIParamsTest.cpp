// Parameters of a GET request, in-process (POST bodies come from stdin and
// are tested with a child process).
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "ApplianceRootEnv.h"
#include "WebCGIPeer.h"

namespace {

class WebCGIParamsTest : public webapi_test::ApplianceRootTest {
 protected:
  static void Get(const char* query) {
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", query, 1);
  }
};

TEST_F(WebCGIParamsTest, JsonLinesBecomeJsonParamsAndFormLinesTheTable) {
  struct Case {
    const char* query;
    bool jsonReturned;    // In() non-null
    const char* version;  // In("version", null)
  };
  const Case cases[] = {
      {R"({"api":"x","version":1})", true, nullptr},
      {"api=x&version=1", false, "1"},
      {"[]", false, nullptr},
      {"{}", false, nullptr},
      {"7", false, nullptr},                            // a JSON scalar: no form parameters either
      {R"({"version":)", false, nullptr},               // looks like JSON, is not: read as a form
      {R"({"api":"x","version":1,})", false, nullptr},  // JSON has no trailing comma
      {"{\"api\":\"x\ty\",\"version\":01}", false, nullptr},  // nor a raw tab, nor "01"
      {"1=a&version=2", false, "2"},  // a JSON-like start is not a JSON line
      {R"({"a":1}&version=2)", false, "2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.query);
    Get(c.query);
    MERO::WebCGI cgi("zel", true);
    EXPECT_EQ(cgi.In() != nullptr, c.jsonReturned);
    if (c.version) {
      EXPECT_STREQ(cgi.In("version", nullptr), c.version);
    } else {
      EXPECT_EQ(cgi.In("version", nullptr), nullptr);
    }
    EXPECT_TRUE(MERO::WebCGITestPeer::Priv(cgi).paramsLoaded);
  }
  Get(R"({"api":"x","version":1})");
  MERO::WebCGI cgi("zel", true);
  EXPECT_EQ((*cgi.In())["api"].asString(), "x");
  EXPECT_EQ(cgi.In("api", "none"), std::string("none"));  // JSON members are not form parameters
}

// Comments of a JSON line stay on its values, where jsoncpp's own reader
// puts them (its styled writer shows them).
TEST_F(WebCGIParamsTest, JsonLinesKeepTheirCommentsWhereJsoncppPutsThem) {
  for (const char* line :
       {"// head\n{\"a\":1, // same line\n\"b\":[1 /* c */, 2],\r\n/* d */ \"c\":null} // tail",
        "/* x */[1]\r\n// y\r\n// z", "[1] /* one */ /* two */\n"}) {
    SCOPED_TRACE(line);
    Get(line);
    MERO::WebCGI cgi("zel", true);
    ASSERT_NE(cgi.In(), nullptr);
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    Json::Value want;
    ASSERT_TRUE(Json::parseFromStream(builder, *std::make_unique<std::istringstream>(line), &want,
                                      nullptr));
    EXPECT_EQ(Json::StyledWriter().write(*cgi.In()), Json::StyledWriter().write(want));
  }
}

TEST_F(WebCGIParamsTest, LoadInRunsOnceAndOnlyWhenThereIsALine) {
  MERO::WebCGI empty("zel", true);
  EXPECT_FALSE(MERO::WebCGITestPeer::Priv(empty).paramsLoaded);
  Get("a=1");
  EXPECT_TRUE(empty.LoadIn());  // a later call tries again
  EXPECT_STREQ(empty.In("a", nullptr), "1");
  Get("a=2");
  EXPECT_FALSE(empty.LoadIn());
  EXPECT_STREQ(empty.In("a", nullptr), "1");

  MERO::WebCGI notLoaded("zel", false);
  EXPECT_EQ(notLoaded.In("a", nullptr), nullptr);

  Get("a=1&api=x%00y");  // refused whole: nothing stored, not loaded
  MERO::WebCGI refused("zel", true);
  EXPECT_FALSE(MERO::WebCGITestPeer::Priv(refused).paramsLoaded);
  EXPECT_FALSE(refused.LoadIn());
  EXPECT_EQ(refused.In("a", nullptr), nullptr);
}

TEST_F(WebCGIParamsTest, SetInCreatesTheTableAndReplacesValues) {
  MERO::WebCGI cgi("zel", false);
  EXPECT_EQ(MERO::WebCGITestPeer::Priv(cgi).State()->paramTable, nullptr);
  ASSERT_TRUE(cgi.SetIn("a", "1"));
  EXPECT_STREQ(cgi.In("a", nullptr), "1");
  ASSERT_TRUE(cgi.SetIn("a", "2"));
  EXPECT_STREQ(cgi.In("a", nullptr), "2");
  EXPECT_EQ(cgi.In(), nullptr);
}

TEST_F(WebCGIParamsTest, UploadsLeaveTheirParametersToTheUploadPath) {
  setenv("REQUEST_METHOD", "POST", 1);
  setenv("CONTENT_TYPE", "Multipart/Form-Data; boundary=x", 1);
  setenv("QUERY_STRING", "a=1", 1);
  MERO::WebCGI cgi("zel", true);
  EXPECT_TRUE(cgi.IsUploadRequest());
  EXPECT_FALSE(MERO::WebCGITestPeer::Priv(cgi).paramsLoaded);
}

}  // namespace
