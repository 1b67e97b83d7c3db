// Fuzz target: key-value strings into JSON objects and back. The first
// input byte holds the flags (bit 0 URL-decode, bit 1 JSON values), the rest
// is the text. Properties: the members are exactly the named pairs, split
// here without the library, the last of a name winning; a member that is
// not the value text itself is what jsoncpp's Reader reads from that text,
// and never a non-negative int read from more than digits; members not named
// are kept; and writing the object and reading it back with the same flags
// gives it back (with JSON values: when its texts are valid UTF-8, which
// jsoncpp's writer needs to keep them; without: less the empty values,
// which are written as nothing and dropped).
#include <json/reader.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "FuzzCheck.h"
#include "webapi/WebAPIUtil.h"

namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool IsUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80         ? 1
                          : (lead >> 5) == 6  ? 2
                          : (lead >> 4) == 14 ? 3
                          : (lead >> 3) == 30 ? 4
                                              : 0;
    if (length == 0 || i + length > text.size()) return false;
    unsigned codePoint = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = codePoint << 6 | (next & 0x3F);
    }
    static const unsigned kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kMinimum[length] || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF))
      return false;
    i += length;
  }
  return true;
}

bool TextsAreUtf8(const Json::Value& value) {
  if (value.isString()) return IsUtf8(value.asString());
  if (value.isObject()) {
    for (auto it = value.begin(); it != value.end(); ++it)
      if (!IsUtf8(it.name()) || !TextsAreUtf8(*it)) return false;
  } else if (value.isArray()) {
    for (const Json::Value& element : value)
      if (!TextsAreUtf8(element)) return false;
  }
  return true;
}

// name -> value text of the last pair of that name with a non-empty value.
std::map<std::string, std::string> NamedPairs(const std::string& text) {
  std::map<std::string, std::string> pairs;
  const std::string line = text.substr(0, text.find('\0'));
  for (size_t start = 0; start < line.size();) {
    size_t end = line.find('&', start);
    if (end == std::string::npos) end = line.size();
    const std::string piece = line.substr(start, end - start);
    const size_t equals = piece.find('=');
    if (equals != std::string::npos && equals + 1 < piece.size())
      pairs[piece.substr(0, equals)] = piece.substr(equals + 1);
    start = end + 1;
  }
  return pairs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace MERO::WebAPIUtil;
  if (size == 0) return 0;
  const bool urlDecode = data[0] & 1;
  const bool jsonValues = data[0] & 2;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

  Json::Value null;
  FUZZ_CHECK(!strPairToJsonObj(text, null, urlDecode, jsonValues) && null.isNull());

  const std::string keptName = "&kept";  // no pair can name it: names never hold "&"
  Json::Value target(Json::objectValue);
  target[keptName] = 7;
  FUZZ_CHECK(strPairToJsonObj(text, target, urlDecode, jsonValues));
  FUZZ_CHECK(target[keptName] == Json::Value(7));
  target.removeMember(keptName);

  const std::map<std::string, std::string> pairs = NamedPairs(text);
  FUZZ_CHECK(target.size() == pairs.size());
  Json::Reader reader;
  for (const auto& [name, raw] : pairs) {
    FUZZ_CHECK(target.isMember(name));
    const Json::Value& member = target[name];
    const std::string valueText = urlDecode ? URLDecode(raw, true) : raw;
    // Independently: what the Reader takes, less the digits rule.
    Json::Value expected(valueText);
    if (jsonValues) {
      Json::Value parsed;
      bool read = false;
      try {
        read = reader.parse(valueText.data(), valueText.data() + valueText.size(), parsed, false);
      } catch (const Json::Exception&) {
      }
      const bool digitsRule = parsed.isInt() && parsed.asLargestInt() >= 0 &&
                              valueText.find_first_not_of("0123456789") != std::string::npos;
      if (read && !digitsRule) expected = parsed;
    }
    FUZZ_CHECK(member == expected);
  }

  std::string written;
  FUZZ_CHECK(JsonObjTostrPair(target, written, true, jsonValues));
  Json::Value back(Json::objectValue);
  FUZZ_CHECK(strPairToJsonObj(written, back, true, jsonValues));
  if (jsonValues) {
    if (TextsAreUtf8(target)) FUZZ_CHECK(back == target);
  } else {
    Json::Value nonEmpty(Json::objectValue);
    for (auto it = target.begin(); it != target.end(); ++it)
      if (!it->asString().empty()) nonEmpty[it.name()] = *it;
    FUZZ_CHECK(back == nonEmpty);
  }
  return 0;
}
