// Fuzz target: JSON parameter text through MERO::JsonValue::fromString.
// Nothing is caught: fromString promises never to throw, so an exception
// aborts the run, which is the failure wanted.
#include <json/writer.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "webapi/JsonValue.h"

namespace {


// Strict UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool IsUtf8(const char* p, const char* end) {
  while (p < end) {
    const unsigned char c = static_cast<unsigned char>(*p);
    int extra = -1;  // continuation bytes after the lead byte
    if (c < 0x80) {
      extra = 0;
    } else if (c >= 0xc2 && c < 0xe0) {
      extra = 1;
    } else if (c >= 0xe0 && c < 0xf0) {
      extra = 2;
    } else if (c >= 0xf0 && c < 0xf5) {
      extra = 3;
    }
    if (extra < 0 || end - p <= extra) return false;
    unsigned codepoint = extra == 0 ? c : c & (0x3fu >> extra);
    for (int i = 1; i <= extra; ++i) {
      const unsigned char next = static_cast<unsigned char>(p[i]);
      if ((next & 0xc0) != 0x80) return false;
      codepoint = (codepoint << 6) | (next & 0x3fu);
    }
    if ((extra == 2 && (codepoint < 0x800 || (codepoint >= 0xd800 && codepoint < 0xe000))) ||
        (extra == 3 && (codepoint < 0x10000 || codepoint > 0x10ffff)))
      return false;
    p += extra + 1;
  }
  return true;
}

// True when every string and member name of `value` is strict UTF-8: the
// writer escapes text as code points, so other bytes cannot come back as
// they were.
bool TextsAreUtf8(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.isString()) return value.getString(&begin, &end) && IsUtf8(begin, end);
  if (value.isArray()) {
    for (const Json::Value& item : value)
      if (!TextsAreUtf8(item)) return false;
  } else if (value.isObject()) {
    for (auto it = value.begin(); it != value.end(); ++it) {
      const std::string name = it.name();
      if (!IsUtf8(name.data(), name.data() + name.size()) || !TextsAreUtf8(*it)) return false;
    }
  }
  return true;
}

// Nesting of arrays and objects: a scalar is 0, "[]" is 1.
int Depth(const Json::Value& value) {
  int deepest = 0;
  if (value.isArray() || value.isObject())
    for (const Json::Value& item : value) deepest = std::max(deepest, Depth(item));
  return value.isArray() || value.isObject() ? deepest + 1 : 0;
}

// Writes `value` and parses the text again; the text must parse.
Json::Value RoundTrip(const Json::Value& value) {
  const std::string text = Json::FastWriter().write(value);
  Json::Value again;
  FUZZ_CHECK(MERO::JsonValue::fromString(again, text));
  return again;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value value(Json::objectValue);  // not null, so a failed parse must reset it
  if (!MERO::JsonValue::fromString(value, text)) {
    FUZZ_CHECK(value.isNull());
    return 0;
  }
  FUZZ_CHECK(Depth(value) <= MERO::JsonValue::kMaxJsonDepth);

  // Trailing blanks do not matter; a second document after this one does
  // (an accepted text never ends inside a comment).
  Json::Value other;
  FUZZ_CHECK(MERO::JsonValue::fromString(other, text + "\n \t") && other == value);
  FUZZ_CHECK(!MERO::JsonValue::fromString(other, text + "\n0"));

  const Json::Value again = RoundTrip(value);
  if (TextsAreUtf8(value)) {
    FUZZ_CHECK(again == value);
  } else {
    // Bytes that are not UTF-8 come back replaced, but once written the
    // value is a fixed point.
    FUZZ_CHECK(RoundTrip(again) == again);
  }
  return 0;
}
