// Parameters of a GET request, in-process (POST bodies come from stdin and
// are tested with a child process).
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "ApplianceRootEnv.h"
#include "cgi/WebCGIPrivate.h"
#include "merocore.h"
#include "webapi/JsonValue.h"

namespace {

class WebCGIParamsTest : public webapi_test::ApplianceRootTest {
 protected:
  static void Get(const char* query) {
    setenv("REQUEST_METHOD", "GET", 1);
    setenv("QUERY_STRING", query, 1);
  }
};

TEST_F(WebCGIParamsTest, JsonLinesBecomeJsonParamsAndFormLinesTheTable) {
  struct Case { const char* query; bool jsonReturned; const char* version; };
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
    EXPECT_STREQ(cgi.In("version", nullptr), c.version);
    EXPECT_TRUE(MERO::WebCGIPrivate::Of(cgi).paramsLoaded);
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

// "[0,0,...]" with `zeros` elements (so one more value), padded with blanks
// to `length` bytes.
std::string ZerosLine(size_t zeros, size_t length) {
  std::string line = "[0";
  for (size_t i = 1; i < zeros; ++i) line += ",0";
  line += "]";
  line.resize(std::max(length, line.size()), ' ');
  return line;
}

TEST_F(WebCGIParamsTest, JsonLinesHoldingTooManyValuesAreRefusedWhole) {
  using MERO::JsonValue::MaxJsonParamValues;
  const size_t longLine = 320000;
  ASSERT_EQ(MaxJsonParamValues(longLine), 20000u);
  ASSERT_EQ(MaxJsonParamValues(100), 4096u);
  const struct { size_t zeros, length; bool loaded; } cases[] = {
      {4095, 0, true}, {4096, 0, false}, {19999, longLine, true}, {20000, longLine, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.zeros) + " zeros in " + std::to_string(c.length) + " bytes");
    const std::string line = ZerosLine(c.zeros, c.length);
    Get(line.c_str());
    MLIBCErrSetEx(MERO_ERR_NONE, "", 0);
    MERO::WebCGI cgi("zel", true);
    EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).paramsLoaded, c.loaded);
    EXPECT_EQ(cgi.In() ? cgi.In()->size() : 0u, c.loaded ? c.zeros : 0u);
    EXPECT_EQ(cgi.In(line.c_str(), nullptr), nullptr);  // not read as a form either
    EXPECT_EQ(MLIBCErrGet(), c.loaded ? MERO_ERR_NONE : MERO_ERR_REQUEST_TOO_LARGE);
  }
}

TEST_F(WebCGIParamsTest, LoadInRunsOnceAndOnlyWhenThereIsALine) {
  MERO::WebCGI empty("zel", true);
  EXPECT_FALSE(MERO::WebCGIPrivate::Of(empty).paramsLoaded);
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
  EXPECT_FALSE(MERO::WebCGIPrivate::Of(refused).paramsLoaded);
  EXPECT_FALSE(refused.LoadIn());
  EXPECT_EQ(refused.In("a", nullptr), nullptr);
}

TEST_F(WebCGIParamsTest, SetInCreatesTheTableAndReplacesValues) {
  MERO::WebCGI cgi("zel", false);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).State()->paramTable, nullptr);
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
  EXPECT_FALSE(MERO::WebCGIPrivate::Of(cgi).paramsLoaded);
}

}  // namespace
