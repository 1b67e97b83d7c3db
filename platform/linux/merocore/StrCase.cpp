// ASCII-only case folding: bytes of multi-byte UTF-8 sequences are >= 0x80
// and pass through, so folded texts stay valid UTF-8 whatever the locale.
#include "merocore.h"

extern "C" char* MLIBCStrCaseLower(char* text) {
  if (!text) return nullptr;
  for (char* p = text; *p; ++p) {
    if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
  }
  return text;
}
