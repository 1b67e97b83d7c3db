// Parsing and writing JSON text the way every part of the library does.
#ifndef WEBAPI_UTIL_JSONTEXT_H
#define WEBAPI_UTIL_JSONTEXT_H

#include <json/value.h>

#include <string>

namespace MERO {
namespace detail {

// Parses [text, text + length) as Json::Reader::parse does with its default
// features and without collecting comments: the first document counts and
// whatever follows it is ignored. False when that document is not JSON, and
// when any bracket outside strings and comments nests deeper than
// JsonValue::kMaxJsonDepth, where jsoncpp would throw. For files, which an
// operator writes by hand (a stray character after the document must not
// turn a readable file into a missing one). Request text goes through
// ParseJson (JsonParse.h) instead.
bool ReaderParse(const char* text, size_t length, Json::Value& value);

// Json::FastWriter: compact, one line, ended by a line feed.
std::string FastWrite(const Json::Value& value);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_JSONTEXT_H
