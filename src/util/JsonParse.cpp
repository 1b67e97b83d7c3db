// One pass over the text, no recursion: a stack of the arrays and objects
// still open (never deeper than kMaxJsonDepth) and the token expected next.
// Values are built in place; jsoncpp keeps a container's members in nodes
// that stay put, so a pointer to an open container survives its growth.
#include "JsonParse.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>
#include <vector>

#include "webapi/JsonValue.h"

namespace MERO {
namespace detail {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Length of the UTF-8 sequence at `p` (lead byte 0x80 or above), or 0 when
// it is not one: no overlong form, no surrogate, nothing past U+10FFFF.
size_t Utf8Length(const unsigned char* p, const unsigned char* end) {
  const unsigned char lead = *p;
  size_t length;
  unsigned char low = 0x80, high = 0xbf;  // bounds of the second byte
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // overlong below U+0800
    if (lead == 0xed) high = 0x9f;  // surrogates
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;   // overlong below U+10000
    if (lead == 0xf4) high = 0x8f;  // past U+10FFFF
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) < length || p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (p[i] < 0x80 || p[i] > 0xbf) return 0;
  return length;
}

void AppendUtf8(std::string& out, unsigned codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xc0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3f));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xe0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (codePoint & 0x3f));
  } else {
    out += static_cast<char>(0xf0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3f));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3f));
    out += static_cast<char>(0x80 | (codePoint & 0x3f));
  }
}

class Parser {
 public:
  Parser(const char* text, size_t length, size_t maxValues, bool collectComments)
      : at_(text), end_(text + length), maxValues_(maxValues), collectComments_(collectComments) {}

  JsonParseResult Parse(Json::Value& root) {
    Json::Value* slot = &root;  // where a value of state kValue goes
    for (;;) {
      if (!SkipBlanksAndComments()) return JsonParseResult::kNotJson;
      if (at_ == end_) break;
      const char c = *at_;
      switch (expect_) {
        case Expect::kFirstElementOrEnd:
          if (c == ']') {
            ++at_;
            Close();
            continue;
          }
          [[fallthrough]];
        case Expect::kElement:
          slot = &open_.back()->append(Json::Value());
          [[fallthrough]];
        case Expect::kValue: {
          if (++values_ > maxValues_) return JsonParseResult::kTooManyValues;
          if (!StartValue(*slot)) return JsonParseResult::kNotJson;
          continue;
        }
        case Expect::kFirstNameOrEnd:
          if (c == '}') {
            ++at_;
            Close();
            continue;
          }
          [[fallthrough]];
        case Expect::kName:
          name_.clear();
          if (c != '"' || !ReadString(name_)) return JsonParseResult::kNotJson;
          expect_ = Expect::kColon;
          continue;
        case Expect::kColon:
          if (c != ':') return JsonParseResult::kNotJson;
          ++at_;
          slot = &(*open_.back())[name_];
          expect_ = Expect::kValue;
          continue;
        case Expect::kSeparatorOrEnd: {
          const bool inArray = open_.back()->isArray();
          ++at_;
          if (c == ',')
            expect_ = inArray ? Expect::kElement : Expect::kName;
          else if (c == (inArray ? ']' : '}'))
            Close();
          else
            return JsonParseResult::kNotJson;
          continue;
        }
        case Expect::kNothing:
          return JsonParseResult::kNotJson;
      }
    }
    if (expect_ != Expect::kNothing) return JsonParseResult::kNotJson;
    if (!commentsBefore_.empty()) root.setComment(commentsBefore_, Json::commentAfter);
    return JsonParseResult::kParsed;
  }

 private:
  enum class Expect {
    kValue,              // the document, or a member's value
    kFirstElementOrEnd,  // after '['
    kElement,            // after ',' in an array
    kFirstNameOrEnd,     // after '{'
    kName,               // after ',' in an object
    kColon,
    kSeparatorOrEnd,  // after a value in an array or object
    kNothing,         // after the document
  };

  void AfterValue(Json::Value& value) {
    expect_ = open_.empty() ? Expect::kNothing : Expect::kSeparatorOrEnd;
    lastValue_ = &value;
    lastValueEnd_ = at_;
    lastValueHasComment_ = false;
  }

  void Close() {
    Json::Value& closed = *open_.back();
    open_.pop_back();
    AfterValue(closed);
  }

  // Where jsoncpp's readers put a comment: after the value just ended when
  // it is the first to stand on that value's line, else before the next
  // value. Line ends become line feeds; jsoncpp drops the last one.
  void KeepComment(const char* begin, const char* end) {
    std::string text;
    for (const char* p = begin; p < end; ++p) {
      if (*p != '\r')
        text += *p;
      else if (p + 1 == end || p[1] != '\n')
        text += '\n';
    }
    const bool sameLine = lastValue_ && !lastValueHasComment_ &&
                          std::find(lastValueEnd_, begin, '\n') == begin &&
                          std::find(lastValueEnd_, begin, '\r') == begin &&
                          (begin[1] == '/' || text.find('\n') == std::string::npos);
    if (sameLine) {
      lastValue_->setComment(text, Json::commentAfterOnSameLine);
      lastValueHasComment_ = true;
    } else {
      commentsBefore_ += text;
    }
  }

  // Reads the value that starts at at_ into `slot`.
  bool StartValue(Json::Value& slot) {
    const char c = *at_;
    if (c == '[' || c == '{') {
      if (open_.size() >= static_cast<size_t>(JsonValue::kMaxJsonDepth)) return false;
      ++at_;
      slot = Json::Value(c == '[' ? Json::arrayValue : Json::objectValue);
      TakeCommentsBefore(slot);
      open_.push_back(&slot);
      expect_ = c == '[' ? Expect::kFirstElementOrEnd : Expect::kFirstNameOrEnd;
      return true;
    }
    std::string text;
    if (c == '"') {
      if (!ReadString(text)) return false;
      slot = Json::Value(text);
    } else if (c == '-' || IsDigit(c)) {
      if (!ReadNumber(slot)) return false;
    } else if (SkipWord("true")) {
      slot = Json::Value(true);
    } else if (SkipWord("false")) {
      slot = Json::Value(false);
    } else if (!SkipWord("null")) {
      return false;
    }
    TakeCommentsBefore(slot);
    AfterValue(slot);
    return true;
  }

  void TakeCommentsBefore(Json::Value& value) {
    if (commentsBefore_.empty()) return;
    value.setComment(commentsBefore_, Json::commentBefore);
    commentsBefore_.clear();
  }

  bool SkipWord(const char* word) {
    const size_t length = std::strlen(word);
    if (static_cast<size_t>(end_ - at_) < length || std::memcmp(at_, word, length) != 0)
      return false;
    at_ += length;
    return true;
  }

  // Blanks are the four of JSON; comments stand for blanks.
  bool SkipBlanksAndComments() {
    while (at_ < end_) {
      const char c = *at_;
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
        ++at_;
      } else if (c == '/' && end_ - at_ >= 2 && at_[1] == '/') {
        const char* begin = at_;
        while (at_ < end_ && *at_ != '\n' && *at_ != '\r') ++at_;
        if (at_ < end_) at_ += *at_ == '\r' && end_ - at_ >= 2 && at_[1] == '\n' ? 2 : 1;
        if (collectComments_) KeepComment(begin, at_);
      } else if (c == '/' && end_ - at_ >= 2 && at_[1] == '*') {
        const char* close = nullptr;
        for (const char* p = at_ + 2; p + 1 < end_ && !close; ++p)
          if (p[0] == '*' && p[1] == '/') close = p;
        if (!close) return false;
        const char* begin = at_;
        at_ = close + 2;
        if (collectComments_) KeepComment(begin, at_);
      } else {
        return c != '/';
      }
    }
    return true;
  }

  // A string starting at the '"' at at_, decoded into `out`.
  bool ReadString(std::string& out) {
    ++at_;
    const char* run = at_;  // bytes taken as they are since the last escape
    while (at_ < end_) {
      const unsigned char c = static_cast<unsigned char>(*at_);
      if (c == '"') {
        out.append(run, at_);
        ++at_;
        return true;
      }
      if (c == '\\') {
        out.append(run, at_);
        ++at_;
        if (!ReadEscape(out)) return false;
        run = at_;
      } else if (c < 0x20) {
        return false;
      } else if (c < 0x80) {
        ++at_;
      } else {
        const size_t length = Utf8Length(reinterpret_cast<const unsigned char*>(at_),
                                         reinterpret_cast<const unsigned char*>(end_));
        if (length == 0) return false;
        at_ += length;
      }
    }
    return false;
  }

  // Four hex digits at `p` (which has at least four bytes before end_).
  static int Hex4(const char* p) {
    int value = 0;
    for (int i = 0; i < 4; ++i) {
      const int digit = HexDigit(p[i]);
      if (digit < 0) return -1;
      value = value * 16 + digit;
    }
    return value;
  }

  // The escape after a backslash.
  bool ReadEscape(std::string& out) {
    if (at_ == end_) return false;
    const char c = *at_++;
    switch (c) {
      case '"':
      case '\\':
      case '/':
        out += c;
        return true;
      case 'b':
        out += '\b';
        return true;
      case 'f':
        out += '\f';
        return true;
      case 'n':
        out += '\n';
        return true;
      case 'r':
        out += '\r';
        return true;
      case 't':
        out += '\t';
        return true;
      case 'u':
        break;
      default:
        return false;
    }
    const int unit = end_ - at_ >= 4 ? Hex4(at_) : -1;
    if (unit < 0) return false;
    at_ += 4;
    unsigned codePoint = static_cast<unsigned>(unit);
    if (unit >= 0xd800 && unit <= 0xdbff && end_ - at_ >= 6 && at_[0] == '\\' && at_[1] == 'u') {
      const int low = Hex4(at_ + 2);
      if (low >= 0xdc00 && low <= 0xdfff) {
        codePoint = 0x10000 + ((codePoint - 0xd800) << 10) + static_cast<unsigned>(low - 0xdc00);
        at_ += 6;
      }
    }
    AppendUtf8(out, codePoint);
    return true;
  }

  bool ReadNumber(Json::Value& slot) {
    const char* start = at_;
    const bool negative = *at_ == '-';
    if (negative) ++at_;
    if (at_ == end_ || !IsDigit(*at_)) return false;
    const char* digits = at_;
    if (*at_ == '0')
      ++at_;
    else
      while (at_ < end_ && IsDigit(*at_)) ++at_;
    const char* integerEnd = at_;
    const char* fraction = nullptr;
    if (at_ < end_ && *at_ == '.') {
      fraction = ++at_;
      if (at_ == end_ || !IsDigit(*at_)) return false;
      while (at_ < end_ && IsDigit(*at_)) ++at_;
    }
    const char* fractionEnd = at_;
    long exponent = 0;
    bool hasExponent = false;
    if (at_ < end_ && (*at_ == 'e' || *at_ == 'E')) {
      hasExponent = true;
      ++at_;
      const bool negativeExponent = at_ < end_ && *at_ == '-';
      if (at_ < end_ && (*at_ == '+' || *at_ == '-')) ++at_;
      if (at_ == end_ || !IsDigit(*at_)) return false;
      for (; at_ < end_ && IsDigit(*at_); ++at_)
        if (exponent < 100000) exponent = exponent * 10 + (*at_ - '0');  // far past any double
      if (negativeExponent) exponent = -exponent;
    }
    if (!fraction && !hasExponent && IntegerValue(negative, digits, integerEnd, slot)) return true;

    double real = 0;
    const std::from_chars_result result = std::from_chars(start, at_, real);
    if (result.ec == std::errc::result_out_of_range) {
      // Past the double range one way or the other: which way is told by
      // the power of ten of the first significant digit.
      long magnitude = exponent;
      const char* first = digits;
      while (first < integerEnd && *first == '0') ++first;
      if (first < integerEnd) {
        magnitude += integerEnd - first;
      } else if (fraction) {
        const char* p = fraction;
        while (p < fractionEnd && *p == '0') ++p;
        magnitude -= p - fraction;
      }
      real = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
      if (negative) real = -real;
    } else if (result.ec != std::errc() || result.ptr != at_) {
      return false;  // cannot happen for text of the grammar above
    }
    slot = Json::Value(real);
    return true;
  }

  // An integer as jsoncpp's readers store it; false when it needs a double.
  static bool IntegerValue(bool negative, const char* digits, const char* end, Json::Value& slot) {
    constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
    uint64_t magnitude = 0;
    for (const char* p = digits; p < end; ++p) {
      const uint64_t digit = static_cast<uint64_t>(*p - '0');
      if (magnitude > (kMax - digit) / 10) return false;
      magnitude = magnitude * 10 + digit;
    }
    constexpr uint64_t kLargestInt = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (negative) {
      if (magnitude > kLargestInt + 1) return false;
      slot = Json::Value(static_cast<Json::Int64>(magnitude == kLargestInt + 1
                                                      ? std::numeric_limits<int64_t>::min()
                                                      : -static_cast<int64_t>(magnitude)));
    } else if (magnitude <= kLargestInt) {
      slot = Json::Value(static_cast<Json::Int64>(magnitude));
    } else {
      slot = Json::Value(static_cast<Json::UInt64>(magnitude));
    }
    return true;
  }

  const char* at_;
  const char* const end_;
  const size_t maxValues_;
  const bool collectComments_;
  std::string commentsBefore_;        // for the next value
  Json::Value* lastValue_ = nullptr;  // the value that ended last
  const char* lastValueEnd_ = nullptr;
  bool lastValueHasComment_ = false;
  size_t values_ = 0;
  Expect expect_ = Expect::kValue;
  std::vector<Json::Value*> open_;  // arrays and objects not yet closed, innermost last
  std::string name_;                // the member name before its colon
};

}  // namespace

JsonParseResult ParseJson(const char* text, size_t length, Json::Value& value, size_t maxValues,
                          bool collectComments) {
  Json::Value root;
  const JsonParseResult result = Parser(text, length, maxValues, collectComments).Parse(root);
  if (result == JsonParseResult::kParsed)
    value.swap(root);
  else
    value = Json::Value();
  return result;
}

}  // namespace detail
}  // namespace MERO
