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
  for (const bool plusAsSpace : {false, true})
    EXPECT_EQ(URLDecode(URLEncode(all + all), plusAsSpace), all + all) << plusAsSpace;
}

TEST(UrlCodecTest, DecodeReadsEachEscapeOnceAndEmptiesOnACutOne) {
  struct Case { std::string in; bool plusAsSpace; std::string want; };
  const Case cases[] = {
      {"", false, ""},         {"%41%62", false, "Ab"}, {"a+b", true, "a b"},
      {"a+b", false, "a+b"},   {"%2B+", true, "+ "},    {"%2541", false, "%41"},
      {"%41%", false, ""},     {"abc%4", false, ""},    {"abc%", true, ""},
      {"%", false, ""},        {"%C3%a9 \xFF", false, "\xC3\xA9 \xFF"},  // raw bytes kept
      {"%\t5x", false, Bytes({5, 'x'})},  // a pair read short still ends after two characters
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
