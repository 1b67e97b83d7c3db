// Percent-encoding of URLs and form bodies, byte by byte (RFC 3986's
// unreserved set less "~", which we encode). Both directions size their
// result once and fill it through a pointer, with byte classes from tables
// built at compile time, so each input byte costs one lookup.
#include <array>
#include <cstddef>
#include <string>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

struct ByteTables {
  std::array<bool, 256> unreserved{};
  std::array<signed char, 256> hexValue{};  // -1: not a hex digit
};

constexpr ByteTables MakeByteTables() {
  ByteTables tables;
  for (int byte = 0; byte < 256; ++byte) {
    const bool digit = byte >= '0' && byte <= '9';
    const bool upper = byte >= 'A' && byte <= 'Z';
    const bool lower = byte >= 'a' && byte <= 'z';
    tables.unreserved[byte] = digit || upper || lower || byte == '-' || byte == '.' || byte == '_';
    tables.hexValue[byte] = static_cast<signed char>(digit                            ? byte - '0'
                                                     : byte >= 'A' && byte <= 'F'     ? byte - 'A' + 10
                                                     : byte >= 'a' && byte <= 'f'     ? byte - 'a' + 10
                                                                                      : -1);
  }
  return tables;
}

constexpr ByteTables kTables = MakeByteTables();
constexpr char kUpperHex[] = "0123456789ABCDEF";

// The blanks an istream skips in the "C" locale.
bool IsStreamBlank(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The byte that `stream >> std::hex >> value` gives for a stream holding
// just `first` and `second`: blanks skipped, one optional sign, then hex
// digits up to the first other character; no digit reads as 0. (A "0x"
// prefix needs a digit after it, which two characters cannot hold, and
// reads as 0 either way.)
unsigned char ReadLikeHexStream(unsigned char first, unsigned char second) {
  const unsigned char pair[2] = {first, second};
  int i = 0;
  while (i < 2 && IsStreamBlank(pair[i])) ++i;
  bool negative = false;
  if (i < 2 && (pair[i] == '+' || pair[i] == '-')) {
    negative = pair[i] == '-';
    ++i;
  }
  int value = 0;
  for (; i < 2 && kTables.hexValue[pair[i]] >= 0; ++i) value = value * 16 + kTables.hexValue[pair[i]];
  return static_cast<unsigned char>(negative ? -value : value);  // keeps the low 8 bits
}

unsigned char DecodePair(unsigned char first, unsigned char second) {
  const int high = kTables.hexValue[first];
  const int low = kTables.hexValue[second];
  if ((high | low) >= 0) return static_cast<unsigned char>(high << 4 | low);  // the usual escape
  return ReadLikeHexStream(first, second);
}

}  // namespace

std::string URLEncode(const std::string& text) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  size_t encodedLength = length;
  for (size_t i = 0; i < length; ++i) encodedLength += kTables.unreserved[in[i]] ? 0 : 2;
  std::string encoded(encodedLength, '\0');
  char* out = &encoded[0];
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = in[i];
    if (kTables.unreserved[c]) {
      *out++ = static_cast<char>(c);
    } else {
      out[0] = '%';
      out[1] = kUpperHex[c >> 4];
      out[2] = kUpperHex[c & 0xF];
      out += 3;
    }
  }
  return encoded;
}

std::string URLDecode(const std::string& text, bool plusAsSpace) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  std::string decoded(length, '\0');  // decoding never grows a text
  char* const begin = &decoded[0];
  char* out = begin;
  const unsigned char plus = plusAsSpace ? '+' : '%';  // '%' never reaches that test
  for (size_t i = 0; i < length;) {
    const unsigned char c = in[i];
    if (c == '%') {
      if (length - i < 3) return std::string();  // a cut escape spoils the whole text
      *out++ = static_cast<char>(DecodePair(in[i + 1], in[i + 2]));
      i += 3;
    } else {
      *out++ = c == plus ? ' ' : static_cast<char>(c);
      ++i;
    }
  }
  decoded.resize(static_cast<size_t>(out - begin));
  return decoded;
}

}  // namespace WebAPIUtil
}  // namespace MERO
