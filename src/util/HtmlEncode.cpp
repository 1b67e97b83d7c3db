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

#include "RowEncode.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

constexpr size_t kMaxEntityBytes = 6;  // &nbsp;
constexpr size_t kRowBytes = 8;

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
  return detail::EncodeByRows(text, table.row, table.length, kMaxEntityBytes);
}

}  // namespace WebAPIUtil
}  // namespace MERO
