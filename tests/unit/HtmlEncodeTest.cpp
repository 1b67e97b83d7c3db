#include <gtest/gtest.h>

#include <string>

#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::EncodeHtml;

TEST(HtmlEncodeTest, ReplacesMarkupBytesAndSpacesOnlyOnRequest) {
  struct Case { std::string in; bool nbsp; std::string want; };
  const Case cases[] = {
      {"", true, ""},
      {"a<b>&c", false, "a&lt;b&gt;&amp;c"},
      {"  ", false, "  "},
      {"  ", true, "&nbsp;&nbsp;"},
      {"&amp; &lt;", false, "&amp;amp; &amp;lt;"},   // encoded again, not recognised
      {"\"it's\"\t\n", true, "\"it's\"\t\n"},        // quotes and controls kept
      {"<\xC3\xA9> \xE2\x82\xAC", true, "&lt;\xC3\xA9&gt;&nbsp;\xE2\x82\xAC"},
      {"\xFF<\xC3", false, "\xFF&lt;\xC3"},           // not UTF-8: bytes kept
      {std::string("a\0<", 3), false, std::string("a\0&lt;", 6)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in + (c.nbsp ? " (nbsp)" : ""));
    EXPECT_EQ(EncodeHtml(c.in, c.nbsp), c.want);
  }
}

TEST(HtmlEncodeTest, EveryOtherByteStaysItself) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    if (one == "<" || one == ">" || one == "&" || one == " ") continue;
    EXPECT_EQ(EncodeHtml(one, true), one) << byte;
  }
}

TEST(HtmlEncodeTest, LongTextsAcrossTheOutputChunks) {
  std::string in, want;
  for (int i = 0; i < 2000; ++i) {
    in += "< ";
    want += "&lt;&nbsp;";
  }
  EXPECT_EQ(EncodeHtml(in, true), want);
  EXPECT_EQ(EncodeHtml(std::string(20000, 'x') + "&", false), std::string(20000, 'x') + "&amp;");
}

}  // namespace
