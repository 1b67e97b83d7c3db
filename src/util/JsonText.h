// Parsing and writing JSON text the way every part of the library does.
#ifndef WEBAPI_UTIL_JSONTEXT_H
#define WEBAPI_UTIL_JSONTEXT_H

#include <json/value.h>

#include <string>

namespace MERO {
namespace detail {

// Json::Reader::parse with its default features over [text, text + length),
// refused (false, nothing parsed) when the text nests deeper than
// JsonValue::kMaxJsonDepth: jsoncpp would throw there.
bool ReaderParse(const char* text, size_t length, Json::Value& value, bool collectComments);

// Json::FastWriter: compact, one line, ended by a line feed.
std::string FastWrite(const Json::Value& value);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_JSONTEXT_H
