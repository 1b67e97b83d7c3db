// Request cookies per RFC 6265 section 5.4 (what browsers send), parsed
// leniently but never past MERO_CGI_MAX_COOKIE_HEADER_BYTES.
#include <cstdlib>
#include <cstring>
#include <string>

#include "CgiLog.h"
#include "mero_owners.h"
#include "merocgi.h"

namespace {

bool IsOws(char c) { return c == ' ' || c == '\t'; }
bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

bool HasControl(const char* begin, const char* end) {
  for (const char* p = begin; p < end; ++p)
    if (IsControl(static_cast<unsigned char>(*p))) return true;
  return false;
}

}  // namespace

extern "C" {

int MeroCgiLoadInCookies(MEROCGI_STATE* state) {
  if (!state) return -1;
  MLIBCSzHashFree(state->inCookieTable);
  state->inCookieTable = nullptr;
  const char* header = std::getenv("HTTP_COOKIE");
  if (!header || !*header) return 0;
  const size_t length = std::strlen(header);
  if (length > MERO_CGI_MAX_COOKIE_HEADER_BYTES) {
    MEROCGI_LOG("refused Cookie header of %zu bytes (limit %d): no cookie loaded", length,
                MERO_CGI_MAX_COOKIE_HEADER_BYTES);
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return -1;
  }
  mero::UniqueSzHash table(MLIBCSzHashAlloc(16));
  if (!table) return -1;
  try {  // C linkage: no exception (bad_alloc) may leave
    int loaded = 0;
    int skipped = 0;
    std::string name;
    std::string value;
    const char* const end = header + length;
    for (const char* pair = header; pair < end;) {
      const char* pairEnd =
          static_cast<const char*>(std::memchr(pair, ';', static_cast<size_t>(end - pair)));
      if (!pairEnd) pairEnd = end;
      const char* begin = pair;
      const char* stop = pairEnd;
      pair = pairEnd + 1;
      while (begin < stop && IsOws(*begin)) ++begin;
      while (stop > begin && IsOws(stop[-1])) --stop;
      if (begin == stop) continue;  // empty between two ';'
      const char* eq =
          static_cast<const char*>(std::memchr(begin, '=', static_cast<size_t>(stop - begin)));
      const char* nameEnd = eq;
      while (nameEnd && nameEnd > begin && IsOws(nameEnd[-1])) --nameEnd;
      if (!eq || nameEnd == begin || HasControl(begin, stop)) {
        ++skipped;
        continue;
      }
      const char* valueBegin = eq + 1;
      while (valueBegin < stop && IsOws(*valueBegin)) ++valueBegin;
      const char* valueEnd = stop;
      // Only one quoted string sheds its quotes: "zzz "   "ppp" is no
      // quoted value, and cutting its ends would make up one.
      if (valueEnd - valueBegin >= 2 && *valueBegin == '"' && valueEnd[-1] == '"' &&
          !std::memchr(valueBegin + 1, '"', static_cast<size_t>(valueEnd - valueBegin - 2))) {
        ++valueBegin;
        --valueEnd;
      }
      name.assign(begin, nameEnd);
      if (MLIBCSzHashGetValue(table.get(), name.c_str())) continue;  // the first one wins
      value.assign(valueBegin, valueEnd);
      MLIBSZHASH* raw = table.release();
      const int stored = MLIBCSzHashSetValue(&raw, name.c_str(), value.c_str());
      table.reset(raw);
      if (stored < 0) return -1;
      ++loaded;
    }
    if (skipped > 0) MEROCGI_LOG("Cookie header: %d malformed pair(s) skipped", skipped);
    state->inCookieTable = table.release();
    return loaded;
  } catch (...) {
    return -1;
  }
}

const char* MeroCgiGetInCookies(MEROCGI_STATE* state, const char* name, const char* def) {
  if (!state || !name) return def;
  const char* value = MLIBCSzHashGetValue(state->inCookieTable, name);
  return value ? value : def;
}

}  // extern "C"
