// Fuzz target: the URL codec. The input is any text. Properties: URLDecode
// agrees with a decoder that reads every escape through an istringstream,
// as the header defines it; the two plus settings differ only where a "+"
// became a space; URLEncode writes only unreserved bytes and "%XY" escapes
// in capital hex, and decoding its output gives the input back.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "FuzzCheck.h"
#include "webapi/WebAPIUtil.h"

namespace {

std::string StreamDecode(const std::string& text, bool plusAsSpace) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (text.size() - i < 3) return std::string();
      std::istringstream pair(text.substr(i + 1, 2));
      int value = 0;
      pair >> std::hex >> value;
      out += static_cast<char>(value & 0xFF);
      i += 2;
    } else {
      out += plusAsSpace && text[i] == '+' ? ' ' : text[i];
    }
  }
  return out;
}

bool IsUnreserved(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
         c == '.' || c == '_';
}

bool IsCapitalHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace MERO::WebAPIUtil;
  const std::string text(reinterpret_cast<const char*>(data), size);

  const std::string plain = URLDecode(text, false);
  const std::string spaced = URLDecode(text, true);
  FUZZ_CHECK(plain == StreamDecode(text, false));
  FUZZ_CHECK(spaced == StreamDecode(text, true));
  FUZZ_CHECK(plain.size() <= text.size());
  FUZZ_CHECK(plain.size() == spaced.size());
  for (size_t i = 0; i < plain.size(); ++i)
    FUZZ_CHECK(plain[i] == spaced[i] || (plain[i] == '+' && spaced[i] == ' '));

  const std::string encoded = URLEncode(text);
  size_t reserved = 0;
  for (const char c : text) reserved += IsUnreserved(c) ? 0 : 1;
  FUZZ_CHECK(encoded.size() == text.size() + 2 * reserved);
  for (size_t i = 0; i < encoded.size(); ++i) {
    if (encoded[i] == '%') {
      FUZZ_CHECK(i + 2 < encoded.size() && IsCapitalHex(encoded[i + 1]) &&
                 IsCapitalHex(encoded[i + 2]));
      i += 2;
    } else {
      FUZZ_CHECK(IsUnreserved(encoded[i]));
    }
  }
  FUZZ_CHECK(URLDecode(encoded, false) == text);
  FUZZ_CHECK(URLDecode(encoded, true) == text);
  return 0;
}
