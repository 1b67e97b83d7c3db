// Request text in log lines. A request can send any bytes, and a log line
// is read by people and by tools that split on line ends: text from a
// request is only ever a cut, escaped argument of a line whose fixed text
// stays as it is.
#ifndef WEBAPI_UTIL_LOGTEXT_H
#define WEBAPI_UTIL_LOGTEXT_H

#include <cstddef>
#include <string>

namespace MERO {
namespace detail {

// Most bytes of request text one log line carries; the rest is dropped and
// "..." marks the cut.
constexpr size_t kMaxLoggedRequestBytes = 256;

// `text` as a log line may carry it: its first kMaxLoggedRequestBytes bytes,
// each control byte (0x00-0x1f, 0x7f) and the backslash written as "\xHH",
// and "..." after them when the text was longer. Null gives "".
std::string LoggedText(const char* text);
std::string LoggedText(const std::string& text);

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_LOGTEXT_H
