#include "JsonSkim.h"

namespace MERO {
namespace detail {

int JsonNestingDepth(const char* text, size_t length) {
  int depth = 0, deepest = 0;
  for (size_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (c == '"') {
      for (++i; i < length && text[i] != '"'; ++i)
        if (text[i] == '\\') ++i;
    } else if (c == '/' && i + 1 < length && text[i + 1] == '/') {
      // A "//" comment ends at a line feed or a carriage return, as in jsoncpp.
      while (i < length && text[i] != '\n' && text[i] != '\r') ++i;
    } else if (c == '/' && i + 1 < length && text[i + 1] == '*') {
      for (i += 2; i + 1 < length && !(text[i] == '*' && text[i + 1] == '/'); ++i) {
      }
      ++i;
    } else if (c == '[' || c == '{') {
      if (++depth > deepest) deepest = depth;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

}  // namespace detail
}  // namespace MERO
