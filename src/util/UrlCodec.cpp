// Percent-encoding of URLs and form bodies, byte by byte (RFC 3986's
// unreserved set less "~", which we encode). The encoder sizes its result in
// one pass and fills it in a second without a branch on the data: it copies
// four bytes from a table row and moves on by the row's length. The decoder
// reads the usual escape (two hex digits) through a table and writes
// through a small stack chunk into a reserved result, so a large result
// touches only the pages it fills. The tables are built at compile time.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "RowEncode.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

struct ByteTables {
  // Each byte as it is encoded: itself or "%XY", padded to four bytes so a
  // row is copied whole; and how many of them count.
  std::array<std::array<char, 4>, 256> encoded{};
  std::array<unsigned char, 256> encodedLength{};
  std::array<signed char, 256> hexValue{};  // -1: not a hex digit
};

constexpr ByteTables MakeByteTables() {
  constexpr char kUpperHex[] = "0123456789ABCDEF";
  ByteTables tables;
  for (int byte = 0; byte < 256; ++byte) {
    const bool digit = byte >= '0' && byte <= '9';
    const bool upper = byte >= 'A' && byte <= 'Z';
    const bool lower = byte >= 'a' && byte <= 'z';
    if (digit || upper || lower || byte == '-' || byte == '.' || byte == '_') {
      tables.encoded[byte] = {static_cast<char>(byte), 0, 0, 0};
      tables.encodedLength[byte] = 1;
    } else {
      tables.encoded[byte] = {'%', kUpperHex[byte >> 4], kUpperHex[byte & 0xF], 0};
      tables.encodedLength[byte] = 3;
    }
    tables.hexValue[byte] = static_cast<signed char>(digit                        ? byte - '0'
                                                     : byte >= 'A' && byte <= 'F' ? byte - 'A' + 10
                                                     : byte >= 'a' && byte <= 'f' ? byte - 'a' + 10
                                                                                  : -1);
  }
  return tables;
}

constexpr ByteTables kTables = MakeByteTables();
constexpr size_t kChunkBytes = 8192;  // results are written through a stack chunk

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
  for (; i < 2 && kTables.hexValue[pair[i]] >= 0; ++i)
    value = value * 16 + kTables.hexValue[pair[i]];
  return static_cast<unsigned char>(negative ? -value : value);  // keeps the low 8 bits
}

}  // namespace

std::string URLEncode(const std::string& text) {
  return detail::EncodeByRows(text, kTables.encoded, kTables.encodedLength, 3);  // "%XY" at most
}

std::string URLDecode(const std::string& text, bool plusAsSpace) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  std::string decoded;
  // Decoding never grows a text. Reserved, not filled: pages of a large
  // result that the decoded text does not reach are never touched.
  decoded.reserve(length);
  const unsigned char plus = plusAsSpace ? '+' : '%';  // '%' never reaches that test
  char chunk[kChunkBytes];
  size_t i = 0;
  // Two characters follow every position before `length - 2`, so a '%' there
  // is a whole escape. Each position gives one byte, so a run of
  // kChunkBytes positions fills at most the chunk.
  while (length > 2 && i < length - 2) {
    const size_t stop = std::min(length - 2, i + kChunkBytes);
    char* out = chunk;
    // This loop branches on '%' on purpose: where the next position comes
    // from depends on it, and a predicted branch lets the CPU run ahead,
    // where a branch-free select waits for every load (a third slower here).
    for (; i < stop; ++out) {
      const unsigned char c = in[i];
      const bool escape = c == '%';
      const int high = kTables.hexValue[in[i + 1]];
      const int low = kTables.hexValue[in[i + 2]];
      if (escape && (high | low) < 0) {  // rare: not two hex digits
        *out = static_cast<char>(ReadLikeHexStream(in[i + 1], in[i + 2]));
        i += 3;
        continue;
      }
      const unsigned char plain = c == plus ? ' ' : c;
      *out = static_cast<char>(escape ? high << 4 | low : plain);
      i += escape ? 3 : 1;
    }
    decoded.append(chunk, static_cast<size_t>(out - chunk));
  }
  for (; i < length; ++i) {
    if (in[i] == '%') return std::string();  // a cut escape spoils the whole text
    decoded += in[i] == plus ? ' ' : static_cast<char>(in[i]);
  }
  return decoded;
}

}  // namespace WebAPIUtil
}  // namespace MERO
