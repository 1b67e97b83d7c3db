#include "JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

#include "JsonSkim.h"
#include "webapi/JsonValue.h"

namespace MERO {
namespace detail {

bool StrictParse(const char* text, size_t length, Json::Value& value, bool collectComments) {
  const JsonOutline outline = SkimJson(text, length);
  if (outline.maxDepth > JsonValue::kMaxJsonDepth || outline.notOneDocument) return false;
  // jsoncpp's Json::Reader features (comments allowed, any root), but its
  // strict reader: the plain Reader accepts text after a comment inside an
  // object ({"a":1 // c<LF>{"b":2 ...}) and ignores what follows a document.
  Json::CharReaderBuilder builder;
  builder["collectComments"] = collectComments;
  builder["allowComments"] = true;
  builder["failIfExtra"] = true;
  builder["stackLimit"] = JsonValue::kMaxJsonDepth + 8;  // never reached: the outline is checked
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return reader->parse(text, text + length, &value, nullptr);
}

bool ReaderParse(const char* text, size_t length, Json::Value& value) {
  if (SkimJson(text, length).maxDepth > JsonValue::kMaxJsonDepth) return false;
  Json::Reader reader;
  return reader.parse(text, text + length, value, false);
}

std::string FastWrite(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

}  // namespace detail
}  // namespace MERO
