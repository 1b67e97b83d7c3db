// MERO::JsonValue::fromString: the library's one JSON text parser, which
// never throws on bad input and accepts exactly one document.
#include "webapi/JsonValue.h"

#include "JsonParse.h"

namespace MERO {
namespace JsonValue {

bool fromString(Json::Value& value, const std::string& text) {
  return detail::ParseJson(text.data(), text.size(), value) == detail::JsonParseResult::kParsed;
}

}  // namespace JsonValue
}  // namespace MERO
