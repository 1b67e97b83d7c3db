#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

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

}  // namespace
