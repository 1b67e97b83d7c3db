#include "LogText.h"

#include <string.h>  // strnlen

#include <cstdio>

namespace MERO {
namespace detail {

std::string LoggedText(const std::string& text) {
  const size_t kept = text.size() < kMaxLoggedRequestBytes ? text.size() : kMaxLoggedRequestBytes;
  std::string logged;
  logged.reserve(kept + 3);
  for (size_t i = 0; i < kept; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f || c == '\\') {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      logged += escaped;
    } else {
      logged += static_cast<char>(c);
    }
  }
  if (text.size() > kept) logged += "...";
  return logged;
}

std::string LoggedText(const char* text) {
  return text ? LoggedText(std::string(text, strnlen(text, kMaxLoggedRequestBytes + 1)))
              : std::string();
}

}  // namespace detail
}  // namespace MERO
