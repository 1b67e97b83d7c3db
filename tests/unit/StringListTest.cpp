#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "webapi/WebAPIUtil.h"

namespace {

using Strings = std::vector<std::string>;
namespace util = MERO::WebAPIUtil;

Strings Texts(const Json::Value& array) {
  Strings texts;
  for (const Json::Value& element : array) texts.push_back(element.isString() ? element.asString() : "<not text>");
  return texts;
}

TEST(StringListTest, ParseToArrayEscapesOnlyBackslashAndTheFirstDelimiter) {
  struct Case { const char* text; const char* delimiters; bool trim; Strings want; };
  const Case cases[] = {
      {"a,,b", ",", true, {"a", "b"}},        {"a\\,b", ",", true, {"a,b"}},
      {"a\\\\,b", ",", true, {"a\\", "b"}},   {"a\\;b\\,c", ",;", true, {"a\\", "b,c"}},
      {"\\x\\\\\\,y", ",", true, {"\\x\\,y"}}, {" \tx\n", ",", false, {" \tx\n"}},
      {" , \t\r\n,x\n", ",", true, {"x"}},    {"a\\", "", true, {"a\\"}},  // nothing after it to escape
      {",,", ",", false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " / " + c.delimiters);
    EXPECT_EQ(Texts(util::ParseToArray(c.text, c.delimiters, c.trim)), c.want);
  }
  EXPECT_EQ(Texts(util::ParseToArray(" a ;\tb ", ";")), (Strings{"a", "b"}));  // two arguments: trims
  EXPECT_EQ(util::ParseToArray(nullptr, ","), Json::Value(Json::arrayValue));
  EXPECT_EQ(util::ParseToArray("a", nullptr), Json::Value(Json::arrayValue));
}

TEST(StringListTest, StringExplodeSplitsAtRunsAndStopsAtNulWhileImplodeGluesBetween) {
  struct Case { std::string text; std::string delimiters; Strings want; };
  const Case cases[] = {
      {"&&a&&b&", "&", {"a", "b"}}, {"", "&", {}}, {"a b\t\tc", " \t", {"a", "b", "c"}}, {"a b", "", {"a b"}},
      {std::string("a,b\0,c", 6), ",", {"a", "b"}},
      {"a;b,c", std::string(",\0;", 3), {"a;b", "c"}},  // the set is a C string too
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(util::StringExplode(c.text, c.delimiters), c.want);
  }
  EXPECT_EQ(util::StringImplode({"a", "b", "c"}, nullptr), "abc");
  EXPECT_EQ(util::StringImplode({"a", "", "c"}, ", "), "a, , c");
  EXPECT_EQ(util::StringImplode({"a"}, ","), "a");
  EXPECT_EQ(util::StringImplode({}, ","), "");
}

}  // namespace
