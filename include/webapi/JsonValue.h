// Json::Value::fromString, the one operation the library needs that stock
// jsoncpp lacks. jsoncpp's class cannot be extended, so it lives here and
// every call site reads as that operation:
//
//   Json::Value value;
//   if (MERO::JsonValue::fromString(value, text)) ...
#ifndef WEBAPI_JSONVALUE_H
#define WEBAPI_JSONVALUE_H

#include <json/value.h>

#include <cstddef>
#include <string>

#include "webapi/Export.h"

namespace MERO {
namespace JsonValue {

// Parses the whole of `text` as one JSON document (RFC 8259) into `value`.
//   true   `value` holds the document.
//   false  the text is not JSON; `value` is reset to null, never left
//          half-filled. Not JSON: an empty text, anything after the
//          document but blanks and comments, a trailing comma, a number
//          JSON does not write ("-", "+1", "01", "1.", ".5", "2.e3", NaN),
//          a raw control byte (NUL, tab, line feed, ...) inside a string,
//          bytes that are not UTF-8, and nesting deeper than kMaxJsonDepth.
// One extension: comments ("//" to the end of the line, "/* */") may stand
// wherever blanks may, and are dropped. Numbers come out as jsoncpp's
// readers give them (Int64, else UInt64, else double); past the double
// range as an infinity (or zero, when too small). A lone surrogate escape
// ("\ud800") is kept as its three-byte form. Never throws on bad input.
WEBAPI_EXPORT bool fromString(Json::Value& value, const std::string& text);

// Deepest nesting of arrays and objects fromString accepts.
constexpr int kMaxJsonDepth = 512;

// Values a JSON parameter line may hold (WebCGI::LoadIn): one for every
// kJsonParamBytesPerValue bytes of the line, and never fewer than
// kJsonParamMinValues; 65536 for a line at the 1 MiB line limit. Each
// scalar, array and object counts once, member names do not. A line with
// more is refused whole, and parsing stops at the first value past the
// limit. jsoncpp spends about 100 bytes on a value, so reading a line
// raises a process's peak memory by at most about 8 times the line's
// length, or 0.5 MiB for a line under 64 KiB
// (bench/spawn/json_body_memory.sh measures it).
constexpr size_t kJsonParamBytesPerValue = 16;
constexpr size_t kJsonParamMinValues = 4096;
constexpr size_t MaxJsonParamValues(size_t lineBytes) {
  return lineBytes / kJsonParamBytesPerValue > kJsonParamMinValues
             ? lineBytes / kJsonParamBytesPerValue
             : kJsonParamMinValues;
}

}  // namespace JsonValue
}  // namespace MERO

#endif  // WEBAPI_JSONVALUE_H
