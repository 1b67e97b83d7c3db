// Which account and group names the SDK accepts: callers build paths and
// log lines from them.
#ifndef MEROSDK_ACCOUNTNAMES_H
#define MEROSDK_ACCOUNTNAMES_H

#include <cstring>

namespace merosdk {

// True for "", ".", "..", and a name holding "/" or a control byte.
inline bool IsRefusedName(const char* name) {
  if (!*name || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return true;
  for (const char* at = name; *at; ++at) {
    const unsigned char c = static_cast<unsigned char>(*at);
    if (c == '/' || c < 0x20 || c == 0x7f) return true;
  }
  return false;
}

}  // namespace merosdk

#endif  // MEROSDK_ACCOUNTNAMES_H
