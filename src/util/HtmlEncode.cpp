// Escaping text for HTML element content. Byte-oriented: none of the bytes
// replaced can occur inside a multi-byte UTF-8 character, so those pass
// through whole. The result is sized in one pass and written once in a
// second, without a branch on the data: each byte copies an eight-byte table
// row (itself, or its entity) into a stack chunk and moves on by the row's
// length. The tables are built at compile time, one with spaces kept and one
// with &nbsp;.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

constexpr size_t kMaxEntityBytes = 6;  // &nbsp;
constexpr size_t kRowBytes = 8;
constexpr size_t kChunkBytes = 8192;  // the result is written through a stack chunk

struct EntityTable {
  std::array<std::array<char, kRowBytes>, 256> row{};
  std::array<unsigned char, 256> length{};
};

constexpr std::array<char, kRowBytes> Row(const char* text, size_t length) {
  std::array<char, kRowBytes> row{};
  for (size_t i = 0; i < length; ++i) row[i] = text[i];
  return row;
}

constexpr EntityTable MakeEntityTable(bool nbsp) {
  EntityTable table;
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const char* text = &c;
    size_t length = 1;
    if (byte == '<') {
      text = "&lt;", length = 4;
    } else if (byte == '>') {
      text = "&gt;", length = 4;
    } else if (byte == '&') {
      text = "&amp;", length = 5;
    } else if (byte == ' ' && nbsp) {
      text = "&nbsp;", length = 6;
    }
    table.row[byte] = Row(text, length);
    table.length[byte] = static_cast<unsigned char>(length);
  }
  return table;
}

constexpr EntityTable kSpacesKept = MakeEntityTable(false);
constexpr EntityTable kSpacesAsNbsp = MakeEntityTable(true);

}  // namespace

std::string EncodeHtml(const std::string& text, bool nbsp) {
  const EntityTable& table = nbsp ? kSpacesAsNbsp : kSpacesKept;
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  size_t encodedLength = 0;
  for (size_t i = 0; i < length; ++i) encodedLength += table.length[in[i]];
  std::string encoded;
  encoded.reserve(encodedLength);  // reserved, not filled: written once, through the chunk
  // A row is copied whole, so the chunk has room for the last one's padding.
  char chunk[kChunkBytes + kRowBytes];
  for (size_t i = 0; i < length;) {
    const size_t stop = std::min(length, i + kChunkBytes / kMaxEntityBytes);
    char* out = chunk;
    for (; i < stop; ++i) {
      std::memcpy(out, table.row[in[i]].data(), kRowBytes);
      out += table.length[in[i]];
    }
    encoded.append(chunk, static_cast<size_t>(out - chunk));
  }
  return encoded;
}

}  // namespace WebAPIUtil
}  // namespace MERO
