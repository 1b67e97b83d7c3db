// Membership and emptiness tests on JSON values, and the one JSON parse that
// logs. Every conversion goes through jsoncpp's own isConvertibleTo check
// first, so no accessor called here can throw on a value of the wrong type.
#include <strings.h>
#include <syslog.h>

#include <cstring>

#include "LogSource.h"
#include "LogText.h"
#include "webapi/JsonValue.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

// Whether `element`, already known to convert to the needle's type, equals
// `needle` as that type says.
bool EqualAsNeedleType(const Json::Value& element, const Json::Value& needle) {
  switch (needle.type()) {
    case Json::intValue:
      return element.asInt() == needle.asInt();
    case Json::uintValue:
      return element.asUInt() == needle.asUInt();
    case Json::realValue:
      return element.asDouble() == needle.asDouble();
    case Json::stringValue: {
      // Numbers, booleans and null convert to a string but have no text of
      // their own; they never equal a string needle.
      if (!element.isString()) return false;
      const char* elementText = element.asCString();
      const char* needleText = needle.asCString();
      return elementText && needleText && strcasecmp(elementText, needleText) == 0;
    }
    case Json::booleanValue:
      return element.asBool() == needle.asBool();
    default:
      return false;
  }
}

}  // namespace

bool JsonArrayHasString(const Json::Value& array, const std::string& text) {
  if (!array.isArray()) return false;
  for (const Json::Value& element : array) {
    const char* begin = nullptr;
    const char* end = nullptr;
    // jsoncpp's string equality, without building a Json::Value per call.
    if (element.isString() && element.getString(&begin, &end) &&
        static_cast<size_t>(end - begin) == text.size() &&
        std::memcmp(begin, text.data(), text.size()) == 0)
      return true;
  }
  return false;
}

bool JsonArrayHas(Json::Value& array, Json::Value needle, bool strict) {
  const Json::ValueType type = needle.type();
  if (!array.isArray()) return false;
  if (type == Json::nullValue || type == Json::arrayValue || type == Json::objectValue) return false;
  // An integer needle outside the 32-bit range would make asInt()/asUInt()
  // throw; no element passing the same test can equal it anyway.
  if (!needle.isConvertibleTo(type)) return false;
  const Json::Value& elements = array;
  for (const Json::Value& element : elements) {
    if (strict && element.type() != type) continue;
    if (element.isConvertibleTo(type) && EqualAsNeedleType(element, needle)) return true;
  }
  return false;
}

bool IsEmpty(const Json::Value& value) {
  if (value.isString()) {
    const char* begin = nullptr;
    const char* end = nullptr;
    return !value.getString(&begin, &end) || begin == end;
  }
  return value.empty();
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  if (!MERO::JsonValue::fromString(value, text)) {
    syslog(LOG_ERR, "%s:%d %s is not JSON format", detail::kWebApiUtilSource, __LINE__,
           detail::LoggedText(text).c_str());
    return Json::Value();
  }
  return value;
}

}  // namespace WebAPIUtil
}  // namespace MERO
