#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::URLDecode;
using MERO::WebAPIUtil::URLEncode;

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) bytes += static_cast<char>(value);
  return bytes;
}

TEST(UrlCodecTest, EncodeKeepsOnlyLettersDigitsAndThreeMarks) {
  struct Case { std::string in; std::string want; };
  const Case cases[] = {
      {"", ""},
      {"a-b.c_d~e", "a-b.c_d%7Ee"},
      {"1+1=2", "1%2B1%3D2"},
      {"a b&c/d?e#f%", "a%20b%26c%2Fd%3Fe%23f%25"},
      {"*'()!", "%2A%27%28%29%21"},
      {"\xC3\xA9", "%C3%A9"},                          // UTF-8 é, byte by byte
      {"\xE6\x97\xA5\xF0\x9F\x98\x80", "%E6%97%A5%F0%9F%98%80"},
      {"\xFF\xC3(", "%FF%C3%28"},                      // not UTF-8: encoded all the same
      {std::string("a\0b\n", 4), "a%00b%0A"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    EXPECT_EQ(URLEncode(c.in), c.want);
  }
}

TEST(UrlCodecTest, EveryByteEncodesToItselfOrCapitalHexAndDecodesBack) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    all += one;
    const bool unreserved = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                            (byte >= 'a' && byte <= 'z') || byte == '-' || byte == '.' || byte == '_';
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X", byte);
    const std::string want = unreserved ? one : escape;
    SCOPED_TRACE(byte);
    EXPECT_EQ(URLEncode(one), want);
    EXPECT_EQ(URLDecode(want, false), one);
    EXPECT_EQ(URLDecode(want, true), one);
  }
  EXPECT_EQ(URLDecode(URLEncode(all), true), all);
}

TEST(UrlCodecTest, DecodeReadsEachEscapeOnceAndEmptiesOnACutOne) {
  struct Case { std::string in; bool plusAsSpace; std::string want; };
  const Case cases[] = {
      {"", false, ""},                 {"%41%62", false, "Ab"},
      {"%4a", false, "J"},             {"%4A", true, "J"},
      {"a+b", true, "a b"},            {"a+b", false, "a+b"},
      {"%2B+", true, "+ "},            {"%2541", false, "%41"},
      {"%41", false, "A"},             {"%41%", false, ""},
      {"abc%4", false, ""},            {"abc%", true, ""},
      {"%", false, ""},                {"%C3%a9 \xFF", false, "\xC3\xA9 \xFF"},  // raw bytes kept
      {"%zz", false, Bytes({0})},      {"%4g", false, Bytes({4})},
      {"%-1", false, Bytes({0xFF})},   {"%-f", false, Bytes({0xF1})},
      {"% 7", false, Bytes({7})},      {"%\t5x", false, Bytes({5, 'x'})},
      {"%+F", false, Bytes({0x0F})},   {"%5 ", false, Bytes({5})},
      {"%  ", false, Bytes({0})},      {"%0x", false, Bytes({0})},
      {"%%41", false, Bytes({0, '1'})},  // the second '%' is part of the first escape
      {std::string("a\0%00", 5), false, Bytes({'a', 0, 0})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in + (c.plusAsSpace ? " (plus as space)" : ""));
    EXPECT_EQ(URLDecode(c.in, c.plusAsSpace), c.want);
  }
}

// Each two characters after '%' give the low byte of what an istream reads
// from them as a hex int (0 when it reads nothing): all 65536 pairs.
TEST(UrlCodecTest, EveryEscapePairDecodesAsAHexStreamReadsIt) {
  int mismatches = 0;
  for (int first = 0; first < 256 && mismatches < 5; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string pair = Bytes({first, second});
      std::istringstream stream(pair);
      int value = 0;
      stream >> std::hex >> value;
      const std::string want(1, static_cast<char>(value & 0xFF));
      if (URLDecode("%" + pair, false) != want) {
        ADD_FAILURE() << "pair " << first << "," << second << " should give " << (value & 0xFF);
        ++mismatches;
      }
    }
  }
}

TEST(UrlCodecTest, DecodeOfEncodeGivesTheTextBackWithEitherFlag) {
  const std::string texts[] = {
      "", "plain", "a+b c", "100% & more=yes", "%41%", "~~", "caf\xC3\xA9 \xE2\x82\xAC",
      "\xC3\x28\xFF\xFE", std::string("\0\r\n%", 4), std::string(1000, '%'),
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    const std::string encoded = URLEncode(text);
    EXPECT_EQ(encoded.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._%"),
              std::string::npos);
    EXPECT_EQ(URLDecode(encoded, false), text);
    EXPECT_EQ(URLDecode(encoded, true), text);
  }
}

// Results are written through a fixed-size buffer: escapes and long
// outputs that straddle its edges.
TEST(UrlCodecTest, LongTextsAcrossTheOutputChunks) {
  std::string accents, encodedAccents;
  for (int i = 0; i < 3000; ++i) {
    accents += "\xc3\xa9";
    encodedAccents += "%C3%A9";
  }
  EXPECT_EQ(URLEncode(accents), encodedAccents);
  EXPECT_EQ(URLDecode(encodedAccents, false), accents);
  for (size_t lead : {8189u, 8190u, 8191u, 8192u, 8193u}) {
    const std::string pad(lead, 'a');
    EXPECT_EQ(URLDecode(pad + "%41+b", true), pad + "A b") << lead;
    EXPECT_EQ(URLDecode(pad + "%41%4", false), "") << lead;  // a cut escape empties it all
  }
}

}  // namespace
