// A linear pre-scan of a JSON file's text, done before jsoncpp's Reader
// sees it: the Reader throws on nesting past its own stack limit. The scan
// only measures the nesting; the Reader still decides what the text is.
#ifndef WEBAPI_UTIL_JSONSKIM_H
#define WEBAPI_UTIL_JSONSKIM_H

#include <cstddef>

namespace MERO {
namespace detail {

// Deepest nesting of [ and { in `text`, outside strings and comments
// (// and /* */), which are skipped so brackets inside them do not count.
// Closing brackets never take it below zero.
int JsonNestingDepth(const char* text, size_t length);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_JSONSKIM_H
