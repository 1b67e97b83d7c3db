// Escaping text for HTML element content. Byte-oriented: none of the bytes
// replaced can occur inside a multi-byte UTF-8 character, so those pass
// through whole. The result is sized in a first pass and filled through a
// pointer, so it is allocated once however many entities it gets.
#include <cstddef>
#include <cstring>
#include <string>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

constexpr char kNbsp[] = "&nbsp;";
constexpr size_t kNbspLength = sizeof kNbsp - 1;

// The entity for `c` when it is one of the three always replaced, else null.
const char* MarkupEntity(unsigned char c) {
  switch (c) {
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '&':
      return "&amp;";
    default:
      return nullptr;
  }
}

}  // namespace

std::string EncodeHtml(const std::string& text, bool nbsp) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  size_t encodedLength = length;
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = in[i];
    if (c == '<' || c == '>') {
      encodedLength += 3;
    } else if (c == '&') {
      encodedLength += 4;
    } else if (c == ' ' && nbsp) {
      encodedLength += kNbspLength - 1;
    }
  }
  std::string encoded(encodedLength, '\0');
  char* out = &encoded[0];
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = in[i];
    const char* entity = MarkupEntity(c);
    if (entity) {
      const size_t entityLength = std::strlen(entity);
      std::memcpy(out, entity, entityLength);
      out += entityLength;
    } else if (c == ' ' && nbsp) {
      std::memcpy(out, kNbsp, kNbspLength);
      out += kNbspLength;
    } else {
      *out++ = static_cast<char>(c);
    }
  }
  return encoded;
}

}  // namespace WebAPIUtil
}  // namespace MERO
