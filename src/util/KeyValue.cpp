// JSON objects to and from key-value strings (name=value pairs joined by
// "&"). Names pass through untouched in both directions; only values go
// through the URL codec and JSON, so a name can never hold "=" or "&" when
// read back, while a URL-encoded value can hold both.
#include <json/reader.h>
#include <json/writer.h>

#include <string>
#include <utility>
#include <vector>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

bool HasNonDigit(const std::string& text) {
  return text.find_first_not_of("0123456789") != std::string::npos;
}

// Replaces `member` (the value text as a string) by what jsoncpp's Reader
// reads from `text`, when it reads anything we take. A positive int read
// from a text that is more than digits ("5abc", " 5", "5.0") stays a string:
// the Reader would take the leading number and drop the rest.
void TakeAsJson(Json::Reader& reader, const std::string& text, Json::Value& member) {
  Json::Value parsed;
  try {
    if (!reader.parse(text.data(), text.data() + text.size(), parsed, false)) return;
  } catch (const Json::Exception&) {
    // The Reader throws, rather than fails, past its own nesting limit
    // (1000): request text must not end the process, so it stays text.
    return;
  }
  if (parsed.isInt() && parsed.asLargestInt() >= 0 && HasNonDigit(text)) return;
  member = std::move(parsed);
}

}  // namespace

bool JsonObjTostrPair(const Json::Value& object, std::string& out, bool urlEncode,
                      bool jsonValues) {
  if (!object.isObject()) return false;
  out.clear();
  Json::FastWriter writer;
  for (auto it = object.begin(); it != object.end(); ++it) {
    const Json::Value& member = *it;
    std::string valueText;
    if (jsonValues) {
      valueText = writer.write(member);
      valueText.pop_back();  // the line feed FastWriter ends every text with
    } else if (member.isConvertibleTo(Json::stringValue)) {
      valueText = member.asString();
    } else {
      continue;  // arrays and objects have no plain text
    }
    if (urlEncode) valueText = URLEncode(valueText);
    out += it.name();
    out += '=';
    out += valueText;
    out += '&';
  }
  if (!out.empty()) out.pop_back();
  return true;
}

bool strPairToJsonObj(const std::string& text, Json::Value& target, bool urlDecode,
                      bool jsonValues) {
  if (!target.isObject()) return false;
  Json::Reader reader;  // default features: comments allowed, any root
  for (const std::string& piece : StringExplode(text, "&")) {
    const size_t equals = piece.find('=');
    if (equals == std::string::npos || equals + 1 == piece.size()) continue;
    std::string valueText = piece.substr(equals + 1);
    if (urlDecode) valueText = URLDecode(valueText, true);
    Json::Value member(valueText);
    if (jsonValues) TakeAsJson(reader, valueText, member);
    target[piece.substr(0, equals)] = std::move(member);
  }
  return true;
}

}  // namespace WebAPIUtil
}  // namespace MERO
