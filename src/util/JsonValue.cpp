// MERO::JsonValue::fromString: Json::Reader::parse, guarded by an outline
// scan so that no input makes jsoncpp throw and trailing text fails.
#include "webapi/JsonValue.h"

#include <json/reader.h>

#include "JsonSkim.h"

namespace MERO {
namespace JsonValue {

bool fromString(Json::Value& value, const std::string& text) {
  const detail::JsonOutline outline = detail::SkimJson(text.data(), text.size());
  Json::Reader reader;
  if (outline.maxDepth > kMaxJsonDepth || outline.notOneDocument ||
      !reader.parse(text.data(), text.data() + text.size(), value, false)) {
    value = Json::Value();
    return false;
  }
  return true;
}

}  // namespace JsonValue
}  // namespace MERO
