#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "webapi/JsonValue.h"
#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::GetEnv;
using MERO::WebAPIUtil::ParseBool;
using MERO::WebAPIUtil::ParseInt;

TEST(ScalarParseTest, ParseIntAcceptsOnlyWholeDecimalIntegers) {
  struct Case {
    const char* text;
    bool ok;
    int value;
  };
  const Case cases[] = {
      {"42", true, 42},           {" 42", true, 42},   {"-7", true, -7},   {"+7", true, 7},
      {"42 ", false, 0},          {"4.2", false, 0},   {"0x10", false, 0}, {"", false, 0},
      {"-", false, 0},            {"abc", false, 0},
      {"99999999999", true, INT_MAX}, {"-99999999999", true, INT_MIN},
      {"99999999999999999999999", true, INT_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    int value = 12345;
    EXPECT_EQ(ParseInt(c.text, &value), c.ok);
    EXPECT_EQ(value, c.ok ? c.value : 12345);  // untouched on rejection
  }
  EXPECT_TRUE(ParseInt("5", nullptr));
}

TEST(ScalarParseTest, ParseBoolKnowsSixWordsInAnyCase) {
  struct Case {
    const char* text;
    bool ok;
    bool value;
  };
  const Case cases[] = {{"YES", true, true},  {"True", true, true}, {"1", true, true},
                        {"no", true, false},  {"FALSE", true, false}, {"0", true, false},
                        {"on", false, false}, {" true", false, false}, {"", false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    bool value = !c.value;
    EXPECT_EQ(ParseBool(c.text, &value), c.ok);
    EXPECT_EQ(value, c.ok ? c.value : !c.value);
  }
  EXPECT_FALSE(ParseBool(nullptr, nullptr));
  EXPECT_TRUE(ParseBool("0", nullptr));
}

TEST(ScalarParseTest, GetEnvCutsToTheBufferAndLeavesItAloneWhenUnset) {
  setenv("WEBAPI_TEST_VALUE", "abcdefgh", 1);
  char buf[5] = {'z', 'z', 'z', 'z', 'z'};
  EXPECT_TRUE(GetEnv("WEBAPI_TEST_VALUE", buf, sizeof buf));
  EXPECT_STREQ(buf, "abcd");
  setenv("WEBAPI_TEST_VALUE", "", 1);
  EXPECT_TRUE(GetEnv("WEBAPI_TEST_VALUE", buf, sizeof buf));
  EXPECT_EQ(std::string(buf, sizeof buf), std::string(5, '\0'));
  unsetenv("WEBAPI_TEST_VALUE");
  buf[0] = 'q';
  EXPECT_FALSE(GetEnv("WEBAPI_TEST_VALUE", buf, sizeof buf));
  EXPECT_EQ(buf[0], 'q');
}

TEST(JsonValueTest, FromStringTakesOneWholeDocumentAndNeverHalfAValue) {
  struct Case {
    std::string text;
    bool ok;
  };
  const Case cases[] = {
      {R"({"a":[1,2,{"b":null}]})", true}, {"7", true}, {R"("s")", true}, {"[] ", true},
      {"/* c */ {\"a\":1} // end", true},  {"", false}, {"{} x", false}, {"7]", false},
      {"//c\r7", true}, {"{\"a\":1} //\r]]]", false}, {"{\"a\":1} /* never closed", false},
      {"{\"a\":1 // c\n{\"b\":2 // d\n}", false},  // jsoncpp's Reader alone accepts this
      {"{\"a\":1 // c\n{\"b\":2 // d\n}}", false},  // balanced, still not one object
      {"7x", false}, {"truex", false}, {"nullnull", false}, {"1.5.5", false}, {"01", false},
      {"1=a&api=b", false}, {"-0.5e+3", true}, {"false", true},
      {R"({"a":)", false},                 {"[1,2", false}, {R"({"a":1}{"b":2})", false},
      {std::string(600, '[') + std::string(600, ']'), false},  // deeper than kMaxJsonDepth
      {std::string(100000, '['), false},                        // would make jsoncpp throw
      {std::string(400, '[') + std::string(400, ']'), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    Json::Value value("previous");
    EXPECT_EQ(MERO::JsonValue::fromString(value, c.text), c.ok);
    if (!c.ok) {
      EXPECT_TRUE(value.isNull());
    }
  }
  Json::Value parsed;
  ASSERT_TRUE(MERO::JsonValue::fromString(parsed, R"({"a":"x","n":3})"));
  EXPECT_EQ(parsed["a"].asString(), "x");
  EXPECT_EQ(parsed["n"].asInt(), 3);
}

}  // namespace
