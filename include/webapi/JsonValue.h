// Json::Value::fromString, the one operation the library needs that stock
// jsoncpp lacks. jsoncpp's class cannot be extended, so it lives here and
// every call site reads as that operation:
//
//   Json::Value value;
//   if (MERO::JsonValue::fromString(value, text)) ...
#ifndef WEBAPI_JSONVALUE_H
#define WEBAPI_JSONVALUE_H

#include <json/value.h>

#include <string>

#include "webapi/Export.h"

namespace MERO {
namespace JsonValue {

// Parses the whole of `text` as one JSON document into `value`.
//   true   `value` holds the document.
//   false  the text is not JSON (also: empty, or nested deeper than
//          kMaxJsonDepth); `value` is reset to null, never left half-filled.
// Comments are accepted and dropped, as jsoncpp's Reader does by default;
// anything after the document but blanks and comments makes the parse fail,
// and so does a scalar with junk ("7x"). Never throws on bad input (a
// document too deep for the parser's own stack limit is refused before it
// is handed over).
WEBAPI_EXPORT bool fromString(Json::Value& value, const std::string& text);

// Deepest nesting of arrays and objects fromString accepts.
constexpr int kMaxJsonDepth = 512;

}  // namespace JsonValue
}  // namespace MERO

#endif  // WEBAPI_JSONVALUE_H
