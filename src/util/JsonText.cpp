#include "JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

#include "JsonSkim.h"
#include "webapi/JsonValue.h"

namespace MERO {
namespace detail {

bool ReaderParse(const char* text, size_t length, Json::Value& value) {
  if (JsonNestingDepth(text, length) > JsonValue::kMaxJsonDepth) return false;
  Json::Reader reader;
  return reader.parse(text, text + length, value, false);
}

std::string FastWrite(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

}  // namespace detail
}  // namespace MERO
