// MERO::JsonValue::fromString: the library's one JSON text parser, which
// never throws on bad input and accepts exactly one document.
#include "webapi/JsonValue.h"

#include "JsonText.h"

namespace MERO {
namespace JsonValue {

bool fromString(Json::Value& value, const std::string& text) {
  if (!detail::StrictParse(text.data(), text.size(), value, false)) {
    value = Json::Value();
    return false;
  }
  return true;
}

}  // namespace JsonValue
}  // namespace MERO
