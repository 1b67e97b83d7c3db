// Splitting texts into lists and joining lists into texts. Each pass looks
// at every input byte once: delimiter sets become a byte table (or go to
// strtok_r, which does the same per token), and joins size their result
// before filling it.
#include <string.h>  // strtok_r

#include <array>
#include <cstring>
#include <memory>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

using ByteSet = std::array<bool, 256>;

ByteSet MakeByteSet(const char* chars) {
  ByteSet set{};
  for (const char* c = chars; *c; ++c) set[static_cast<unsigned char>(*c)] = true;
  return set;
}

bool IsTrimmed(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Appends `token` (trimmed first when asked) to `array` unless nothing is
// left of it.
void AppendToken(const std::string& token, bool trim, Json::Value& array) {
  size_t begin = 0;
  size_t end = token.size();
  if (trim) {
    while (begin < end && IsTrimmed(token[begin])) ++begin;
    while (end > begin && IsTrimmed(token[end - 1])) --end;
  }
  if (begin < end) array.append(Json::Value(token.data() + begin, token.data() + end));
}

}  // namespace

Json::Value ParseToArray(const char* text, const char* delimiters, bool trim) {
  Json::Value result(Json::arrayValue);
  if (!text || !delimiters) return result;
  const ByteSet isDelimiter = MakeByteSet(delimiters);
  // The one delimiter a backslash can protect; NUL when the set is empty, so
  // that a backslash at the end of the text stays.
  const char escapable = delimiters[0];
  std::string token;  // reused: one allocation for the longest token
  for (const char* p = text;; ++p) {
    const char c = *p;
    if (c == '\\' && (p[1] == '\\' || (escapable != '\0' && p[1] == escapable))) {
      token += p[1];  // taken literally: ends nothing, escapes nothing
      ++p;
    } else if (c == '\0' || isDelimiter[static_cast<unsigned char>(c)]) {
      AppendToken(token, trim, result);
      token.clear();
      if (c == '\0') break;
    } else {
      token += c;
    }
  }
  return result;
}

Json::Value ParseToArray(const char* text, const char* delimiters) {
  return ParseToArray(text, delimiters, true);
}

std::vector<std::string> StringExplode(const std::string& text, const std::string& delimiters) {
  std::vector<std::string> tokens;
  if (text.empty()) return tokens;
  // strtok_r writes into its text, so it works on a private, NUL-terminated
  // copy; an embedded NUL ends the text there, as it would in C.
  std::unique_ptr<char[]> buffer(new char[text.size() + 1]);
  std::memcpy(buffer.get(), text.data(), text.size());
  buffer[text.size()] = '\0';
  char* rest = nullptr;
  for (char* token = strtok_r(buffer.get(), delimiters.c_str(), &rest); token;
       token = strtok_r(nullptr, delimiters.c_str(), &rest))
    tokens.emplace_back(token);
  return tokens;
}

std::string StringImplode(const std::vector<std::string>& parts, const char* glue) {
  const size_t glueLength = glue ? std::strlen(glue) : 0;
  std::string joined;
  if (parts.empty()) return joined;
  size_t total = glueLength * (parts.size() - 1);
  for (const std::string& part : parts) total += part.size();
  joined.reserve(total);
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0 && glueLength > 0) joined.append(glue, glueLength);
    joined += parts[i];
  }
  return joined;
}

}  // namespace WebAPIUtil
}  // namespace MERO
