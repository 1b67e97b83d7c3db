#include "JsonSkim.h"

#include <string_view>

namespace MERO {
namespace detail {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

constexpr size_t kNotAComment = static_cast<size_t>(-1);
constexpr size_t kUnclosedComment = static_cast<size_t>(-2);

// Skips a comment starting at text[i] == '/' and returns the index after it:
// kNotAComment for a lone '/', kUnclosedComment for a "/*" never closed. A
// "//" comment ends at a line feed or a carriage return, as in jsoncpp.
size_t SkipComment(const char* text, size_t length, size_t i) {
  if (i + 1 < length && text[i + 1] == '/') {
    while (i < length && text[i] != '\n' && text[i] != '\r') ++i;
    return i;
  }
  if (i + 1 < length && text[i + 1] == '*') {
    for (i += 2; i + 1 < length; ++i)
      if (text[i] == '*' && text[i + 1] == '/') return i + 2;
    return kUnclosedComment;
  }
  return kNotAComment;
}

bool IsScalarChar(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '+' ||
         c == '-' || c == '.';
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// True for exactly a JSON number or true, false, null. jsoncpp reads the
// longest number-like prefix and ignores what follows ("7x" reads as 7), so
// the whole token is checked here.
bool IsJsonScalar(const char* token, size_t length) {
  const std::string_view text(token, length);
  if (text == "true" || text == "false" || text == "null") return true;
  size_t i = 0;
  if (i < length && token[i] == '-') ++i;
  if (i == length || !IsDigit(token[i])) return false;
  if (token[i] == '0') {
    ++i;
  } else {
    while (i < length && IsDigit(token[i])) ++i;
  }
  if (i < length && token[i] == '.') {
    if (++i == length || !IsDigit(token[i])) return false;
    while (i < length && IsDigit(token[i])) ++i;
  }
  if (i < length && (token[i] == 'e' || token[i] == 'E')) {
    if (++i < length && (token[i] == '+' || token[i] == '-')) ++i;
    if (i == length || !IsDigit(token[i])) return false;
    while (i < length && IsDigit(token[i])) ++i;
  }
  return i == length;
}

}  // namespace

JsonOutline SkimJson(const char* text, size_t length) {
  JsonOutline outline;
  int depth = 0;
  bool documentDone = false;  // ... and ended
  for (size_t i = 0; i < length;) {
    const char c = text[i];
    if (IsBlank(c)) {
      ++i;
      continue;
    }
    if (c == '/') {
      const size_t after = SkipComment(text, length, i);
      if (after == kUnclosedComment) {  // not JSON, whatever the parser makes of it
        outline.notOneDocument = true;
        return outline;
      }
      if (after != kNotAComment) {
        i = after;
        continue;
      }
    }
    if (documentDone) {
      outline.notOneDocument = true;
      return outline;
    }
    if (c == '"') {
      for (++i; i < length && text[i] != '"'; ++i)
        if (text[i] == '\\') ++i;
      ++i;
      if (depth == 0) documentDone = true;
      continue;
    }
    if (c == '[' || c == '{') {
      if (++depth > outline.maxDepth) outline.maxDepth = depth;
    } else if (c == ']' || c == '}') {
      if (--depth <= 0) {
        depth = 0;
        documentDone = true;
      }
    } else if (depth == 0) {  // a scalar root: the whole token must be one
      const size_t start = i;
      while (i < length && IsScalarChar(text[i])) ++i;
      if (!IsJsonScalar(text + start, i - start)) {
        outline.notOneDocument = true;
        return outline;
      }
      documentDone = true;
      continue;
    }
    ++i;
  }
  // jsoncpp's Reader can stop inside what is left open (after a comment in
  // an object it accepts text up to a later closing bracket).
  if (depth != 0) outline.notOneDocument = true;
  return outline;
}

}  // namespace detail
}  // namespace MERO
