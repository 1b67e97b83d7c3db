// A linear pre-scan of JSON text, done before jsoncpp sees it: jsoncpp
// throws on nesting past its own stack limit, and its Reader accepts text
// after the document. The scan checks only the outline (nesting depth, where
// the document ends); jsoncpp still decides whether the text is JSON.
#ifndef WEBAPI_UTIL_JSONSKIM_H
#define WEBAPI_UTIL_JSONSKIM_H

#include <cstddef>

namespace MERO {
namespace detail {

struct JsonOutline {
  int maxDepth = 0;          // deepest nesting of [ and { outside strings
  // Not exactly one document: text other than blanks and comments after it,
  // brackets that do not balance, or a comment never closed.
  bool notOneDocument = false;
};

// Outline of `text`. Strings, escapes and comments (// and /* */) are skipped
// so brackets inside them do not count.
JsonOutline SkimJson(const char* text, size_t length);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_JSONSKIM_H
