// The one way the library turns request text into numbers and booleans.
#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {

bool ParseInt(const char* text, int* value) {
  if (!text) return false;
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text, &end, 10);
  if (end == text || *end != '\0') return false;
  // strtol itself clamps to LONG_MIN/LONG_MAX; clamp again to the int range.
  const int clamped = parsed > INT_MAX ? INT_MAX : parsed < INT_MIN ? INT_MIN : static_cast<int>(parsed);
  if (value) *value = clamped;
  return true;
}

bool ParseBool(const char* text, bool* value) {
  if (!text) return false;
  static const struct {
    const char* word;
    bool meaning;
  } kWords[] = {{"true", true}, {"yes", true}, {"1", true}, {"false", false}, {"no", false}, {"0", false}};
  for (const auto& entry : kWords) {
    if (strcasecmp(text, entry.word) == 0) {
      if (value) *value = entry.meaning;
      return true;
    }
  }
  return false;
}

}  // namespace WebAPIUtil
}  // namespace MERO
