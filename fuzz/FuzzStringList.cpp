// Fuzz target: list splitting and joining (StringExplode, StringImplode,
// ParseToArray). The first byte, modulo 16, is the length of the delimiter
// set that follows it; the rest is the text.
#include <json/value.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "webapi/WebAPIUtil.h"

namespace {

using Strings = std::vector<std::string>;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The array's elements, each checked to be a non-empty string.
Strings Texts(const Json::Value& array) {
  FUZZ_CHECK(array.isArray());
  Strings texts;
  for (const Json::Value& element : array) {
    FUZZ_CHECK(element.isString());
    texts.push_back(element.asString());
    FUZZ_CHECK(!texts.back().empty());
  }
  return texts;
}

std::string Trimmed(const std::string& text) {
  const auto begin = std::find_if_not(text.begin(), text.end(), IsBlank);
  const auto end = std::find_if_not(text.rbegin(), std::string::const_reverse_iterator(begin), IsBlank).base();
  return std::string(begin, end);
}

// `token` written so that ParseToArray reads it back whole: a backslash and
// the first delimiter character get a backslash in front.
std::string Escaped(const std::string& token, char escapable) {
  std::string out;
  for (const char c : token) {
    if (c == '\\' || c == escapable) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace MERO::WebAPIUtil;
  if (size == 0) return 0;
  const char* bytes = reinterpret_cast<const char*>(data) + 1;
  const size_t setLength = std::min<size_t>(data[0] % 16, size - 1);
  const std::string delimiters(bytes, setLength);
  const std::string text(bytes + setLength, size - 1 - setLength);
  // What the C-string interfaces see: everything up to the first NUL.
  const std::string delimitersC(delimiters.c_str());
  const std::string textC(text.c_str());

  const Strings tokens = StringExplode(text, delimiters);
  for (const std::string& token : tokens) {
    FUZZ_CHECK(!token.empty());
    FUZZ_CHECK(token.find_first_of(delimitersC) == std::string::npos);
    FUZZ_CHECK(textC.find(token) != std::string::npos);
  }
  if (!delimitersC.empty()) {
    const std::string joined = StringImplode(tokens, delimitersC.c_str());
    size_t wantLength = tokens.empty() ? 0 : delimitersC.size() * (tokens.size() - 1);
    for (const std::string& token : tokens) wantLength += token.size();
    FUZZ_CHECK(joined.size() == wantLength);
    FUZZ_CHECK(StringExplode(joined, delimiters) == tokens);
  } else {
    FUZZ_CHECK(tokens == (textC.empty() ? Strings{} : Strings{textC}));
  }

  const Strings raw = Texts(ParseToArray(text.c_str(), delimiters.c_str(), false));
  const Strings trimmed = Texts(ParseToArray(text.c_str(), delimiters.c_str(), true));
  for (const std::string& token : trimmed) FUZZ_CHECK(!IsBlank(token.front()) && !IsBlank(token.back()));
  // Trimming works token by token, after the split.
  Strings rawTrimmed;
  for (const std::string& token : raw)
    if (!Trimmed(token).empty()) rawTrimmed.push_back(Trimmed(token));
  FUZZ_CHECK(rawTrimmed == trimmed);
  if (textC.find('\\') == std::string::npos) FUZZ_CHECK(raw == tokens);

  // Escaping each token and joining with the first delimiter gives them back
  // (not when that delimiter is the backslash itself: a glue backslash
  // before an escaped one reads as an escape, so such lists have no
  // unambiguous form).
  if (!delimitersC.empty() && delimitersC[0] != '\\') {
    std::string encoded;
    for (size_t i = 0; i < raw.size(); ++i) {
      if (i > 0) encoded += delimitersC[0];
      encoded += Escaped(raw[i], delimitersC[0]);
    }
    FUZZ_CHECK(Texts(ParseToArray(encoded.c_str(), delimiters.c_str(), false)) == raw);
  }
  return 0;
}
