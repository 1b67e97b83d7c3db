// Form decoding of the parameter line and the refusals that keep a request
// from being parsed in part.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "ApplianceRootEnv.h"
#include "merocgi.h"

namespace {

using Pairs = std::map<std::string, std::string>;

Pairs Table(const MLIBSZHASH* table) {
  Pairs pairs;
  for (int i = 0; table && i < table->slotCount; ++i) pairs[table->slots[i].key] = table->slots[i].value;
  return pairs;
}

class FormDecodeTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    MeroCgiInit("", &state_);
  }
  void TearDown() override {
    MeroCgiFree(&state_);
    ApplianceRootTest::TearDown();
  }
  void Renew() {
    MeroCgiFree(&state_);
    MeroCgiInit("", &state_);
  }
  MEROCGI_STATE state_{};
};

TEST_F(FormDecodeTest, DecodesFormsAsBrowsersSendThemAndRefusesWholeLinesItCannotCarry) {
  std::string tooMany;
  for (int i = 0; i <= MERO_CGI_MAX_PARAMS; ++i) tooMany += "a&";
  struct Case {
    std::string line;
    int count;  // -1: refused with `error`, and nothing stored
    Pairs want;
    int error = MERO_ERR_NONE;
  };
  const Case cases[] = {
      {"a=1&b=2", 2, {{"a", "1"}, {"b", "2"}}},
      {"q=a+b%20c%2B", 1, {{"q", "a b c+"}}},
      {"n%61me=%e2%82%AC", 1, {{"name", "\xe2\x82\xac"}}},
      {"flag&x=", 2, {{"flag", ""}, {"x", ""}}},             // no '=' is a name with ""
      {"&&a=1&&", 1, {{"a", "1"}}},                         // empty pairs skipped
      {"a=1&a=2", 2, {{"a", "2"}}},                         // the last of a repeated name
      {"p=%zz&r=50%&s=%4", 3, {{"p", "%zz"}, {"r", "50%"}, {"s", "%4"}}},  // kept literally
      {"e=a=b", 1, {{"e", "a=b"}}},
      {"", 0, {}},
      {"a=1&b=x%00y", -1, {}, MERO_ERR_REQUEST_MALFORMED},  // NUL cannot live in a C text
      {"%00=1", -1, {}, MERO_ERR_REQUEST_MALFORMED},
      {tooMany, -1, {}, MERO_ERR_REQUEST_TOO_LARGE},
      {"a=" + std::string(MERO_CGI_MAX_PARAM_LINE_BYTES, 'x'), -1, {}, MERO_ERR_REQUEST_TOO_LARGE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 20));
    Renew();
    MLIBCErrSetEx(MERO_ERR_NONE, "", 0);
    EXPECT_EQ(MeroCgiParseCGIParam(&state_, c.line.c_str()), c.count);
    EXPECT_EQ(Table(state_.paramTable), c.want);
    EXPECT_EQ(MLIBCErrGet(), c.error);
    if (c.count < 0) {
      EXPECT_EQ(state_.paramTable, nullptr);
    }
  }
  // A refused line leaves what was there before.
  ASSERT_EQ(MeroCgiSetCGIParam(&state_, "kept", "1"), 1);
  EXPECT_EQ(MeroCgiParseCGIParam(&state_, "x=%00"), -1);
  EXPECT_EQ(Table(state_.paramTable), (Pairs{{"kept", "1"}}));
}

TEST_F(FormDecodeTest, CookiesFollowRfc6265AndSkipWhatCannotBeACookie) {
  struct Case {
    std::string header;
    int loaded;
    Pairs want;
  };
  const Case cases[] = {
      {"id=abc; theme=dark", 2, {{"id", "abc"}, {"theme", "dark"}}},
      {"id=first; id=second", 1, {{"id", "first"}}},     // the first one wins
      {" a = 1 ;;b=\"quoted value\"", 2, {{"a", "1"}, {"b", "quoted value"}}},
      {"novalue; =anon; c=3", 1, {{"c", "3"}}},
      {"x=ok; y=bad\x01; z=\x7f", 1, {{"x", "ok"}}},
      {"v=a=b; w=%41", 2, {{"v", "a=b"}, {"w", "%41"}}},  // no percent-decoding
      {"e=\"", 1, {{"e", "\""}}},
      {std::string(MERO_CGI_MAX_COOKIE_HEADER_BYTES + 1, 'a'), -1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header.substr(0, 40));
    setenv("HTTP_COOKIE", c.header.c_str(), 1);
    EXPECT_EQ(MeroCgiLoadInCookies(&state_), c.loaded);
    EXPECT_EQ(Table(state_.inCookieTable), c.want);
    for (const auto& [name, value] : c.want)
      EXPECT_STREQ(MeroCgiGetInCookies(&state_, name.c_str(), nullptr), value.c_str());
  }
}

TEST_F(FormDecodeTest, UiLanguagePrefersAnExplicitChoiceThenAcceptLanguage) {
  struct Case {
    const char *param, *cookie, *acceptLanguage, *want;
  };
  const Case cases[] = {
      {nullptr, nullptr, nullptr, "en"},
      {nullptr, nullptr, "de-AT,en;q=0.5", "de"},
      {nullptr, nullptr, "xx, fr;q=0.4, ja;q=0.9", "ja"},
      {nullptr, nullptr, "zh-tw", "zh-TW"},
      {nullptr, nullptr, "fr;q=0, it;q=0.1", "it"},
      {nullptr, nullptr, "ko;q=0.8, de-CH, fr", "de"},
      {"FR", "it", "de", "fr"},
      {"klingon", "it", "de", "it"},  // an unsupported choice falls through
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.want);
    Renew();
    if (c.param) MeroCgiSetCGIParam(&state_, "lang", c.param);
    setenv("HTTP_COOKIE", c.cookie ? (std::string("lang=") + c.cookie).c_str() : "", 1);
    MeroCgiLoadInCookies(&state_);
    webapi_test::SetEnvOrUnset("HTTP_ACCEPT_LANGUAGE", c.acceptLanguage);
    EXPECT_STREQ(MeroCgiGetLang(&state_), c.want);
  }
}

}  // namespace
