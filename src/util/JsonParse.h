// The library's parser for JSON that arrives with a request or is handed
// to fromString: JSON text per RFC 8259 and nothing else, built into
// jsoncpp values. jsoncpp's own readers accept what JSON forbids (trailing
// commas, "01", "1.", raw control bytes in strings) and refuse some of what
// it allows (numbers past the double range, lone surrogate escapes).
#ifndef WEBAPI_UTIL_JSONPARSE_H
#define WEBAPI_UTIL_JSONPARSE_H

#include <json/value.h>

#include <cstddef>
#include <cstdint>

namespace MERO {
namespace detail {

enum class JsonParseResult { kParsed, kNotJson, kTooManyValues };

// Parses [text, text + length) as exactly one JSON document into `value`.
// One extension: comments, "//" up to a line feed or carriage return and
// "/* ... */", wherever a blank may stand. They are dropped, or with
// `collectComments` kept as jsoncpp's readers keep them: on the next value
// as its comment before, on the value just ended when they follow it on its
// line, and after the document on the root.
//   kParsed         `value` holds the document.
//   kNotJson        the text is not one JSON document: also when it is not
//                   UTF-8, or nests arrays and objects deeper than
//                   JsonValue::kMaxJsonDepth.
//   kTooManyValues  the document holds more than `maxValues` values (each
//                   scalar, array and object counts once; member names do
//                   not). Parsing stopped at the first value past the limit,
//                   so memory stays bounded by it; the text before it was
//                   JSON so far.
// After a failure `value` is null. The values are those jsoncpp's readers
// give: an integer as Int64 when it fits, else as UInt64, else as a double;
// other numbers as doubles (past the double range: an infinity, or zero when
// too small); a repeated member name keeps its last value; a lone surrogate
// escape becomes its three-byte form, as jsoncpp writes a lone low one.
// Never throws on bad input.
JsonParseResult ParseJson(const char* text, size_t length, Json::Value& value,
                          size_t maxValues = SIZE_MAX, bool collectComments = false);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_JSONPARSE_H
