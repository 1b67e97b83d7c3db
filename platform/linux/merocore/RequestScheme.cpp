// The one rule for "the browser used https", shared by the Secure cookie
// flag and Strict-Transport-Security so the two can never disagree.
#include <cstdlib>

#include "merocore.h"

namespace {

// ASCII folding only: strcasecmp would follow a locale the program set.
bool EqualsIgnoreCase(const char* text, const char* want) {
  if (!text) return false;
  for (; *text && *want; ++text, ++want) {
    const char c = *text >= 'A' && *text <= 'Z' ? static_cast<char>(*text - 'A' + 'a') : *text;
    if (c != *want) return false;
  }
  return *text == '\0' && *want == '\0';
}

}  // namespace

extern "C" int MeroRequestIsHttps(void) {
  return EqualsIgnoreCase(std::getenv("HTTPS"), "on") ||
                 EqualsIgnoreCase(std::getenv("HTTP_X_FORWARDED_PROTO"), "https")
             ? 1
             : 0;
}
