// Form decoding and the parameter table of the CGI state.
#include "FormDecode.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CgiLog.h"
#include "RequestMethod.h"
#include "mero_owners.h"
#include "merocgi.h"

namespace merocgi {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct DecodeFlags {
  bool malformedEscape = false;
  bool nulByte = false;
};

// Decodes [begin, end) into `out` (room for end - begin + 1 bytes; decoding
// never grows a text) and NUL-terminates it.
void DecodeComponent(const char* begin, const char* end, char* out, DecodeFlags& flags) {
  char* write = out;
  for (const char* p = begin; p < end; ++p) {
    char c = *p;
    if (c == '+') {
      c = ' ';
    } else if (c == '%') {
      if (end - p >= 3) {
        const int hi = HexValue(p[1]);
        const int lo = HexValue(p[2]);
        if (hi >= 0 && lo >= 0) {
          c = static_cast<char>(hi * 16 + lo);
          if (c == '\0') flags.nulByte = true;
          p += 2;
        } else {
          flags.malformedEscape = true;
        }
      } else {
        flags.malformedEscape = true;
      }
    }
    *write++ = c;
  }
  *write = '\0';
}

}  // namespace

int DecodeFormLine(const char* line, size_t length, const char* what, MLIBSZHASH** out) {
  *out = nullptr;
  if (length > MERO_CGI_MAX_PARAM_LINE_BYTES) {
    MEROCGI_LOG("refused %s: %zu bytes exceed the limit of %d", what, length,
                MERO_CGI_MAX_PARAM_LINE_BYTES);
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return -1;
  }
  // Sized for the few pairs of a usual request and grown as needed: a large
  // table costs a short-lived process page faults for slots it never uses.
  mero::UniqueSzHash table(MLIBCSzHashAlloc(16));
  mero::UniqueCText name(static_cast<char*>(std::malloc(length + 1)));
  mero::UniqueCText value(static_cast<char*>(std::malloc(length + 1)));
  if (!table || !name || !value) {
    MERO_ERR_SET(MERO_ERR_NO_MEMORY);
    return -1;
  }
  DecodeFlags flags;
  int pairs = 0;
  const char* const end = line + length;
  for (const char* pair = line; pair < end;) {
    const char* pairEnd = static_cast<const char*>(std::memchr(pair, '&', static_cast<size_t>(end - pair)));
    if (!pairEnd) pairEnd = end;
    if (pairEnd > pair) {
      if (++pairs > MERO_CGI_MAX_PARAMS) {
        MEROCGI_LOG("refused %s: more than %d parameters", what, MERO_CGI_MAX_PARAMS);
        MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
        return -1;
      }
      const char* eq = static_cast<const char*>(std::memchr(pair, '=', static_cast<size_t>(pairEnd - pair)));
      const char* nameEnd = eq ? eq : pairEnd;
      DecodeComponent(pair, nameEnd, name.get(), flags);
      DecodeComponent(eq ? eq + 1 : pairEnd, pairEnd, value.get(), flags);
      if (flags.nulByte) {
        MEROCGI_LOG("refused %s: a parameter decodes to a NUL byte", what);
        MERO_ERR_SET(MERO_ERR_REQUEST_MALFORMED);
        return -1;
      }
      MLIBSZHASH* raw = table.release();
      const int stored = MLIBCSzHashSetValue(&raw, name.get(), value.get());
      table.reset(raw);
      if (stored < 0) {
        MERO_ERR_SET(MERO_ERR_NO_MEMORY);
        return -1;
      }
    }
    pair = pairEnd + 1;
  }
  if (flags.malformedEscape) {
    MEROCGI_LOG("%s: a '%%' without two hex digits was kept literally", what);
  }
  *out = table.release();
  return pairs;
}

}  // namespace merocgi

namespace {

// Parses the query string of a POST once, on the first name the body lacks.
const MLIBSZHASH* QueryTableOf(MEROCGI_STATE* state) {
  if (!state->queryTable) {
    const char* query = std::getenv("QUERY_STRING");
    if (!query || !*query) return nullptr;
    // A refused query string becomes an empty table, so it is refused (and
    // logged) once, not at every lookup.
    if (merocgi::DecodeFormLine(query, std::strlen(query), "query string", &state->queryTable) < 0)
      state->queryTable = MLIBCSzHashAlloc(1);
  }
  return state->queryTable;
}

}  // namespace

extern "C" {

int MeroCgiParseCGIParam(MEROCGI_STATE* state, const char* line) {
  if (!state || !line) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  MLIBSZHASH* decoded = nullptr;
  const int pairs = merocgi::DecodeFormLine(line, std::strlen(line), "parameter line", &decoded);
  if (pairs < 0) return -1;
  if (!state->paramTable) {
    state->paramTable = decoded;
    return pairs;
  }
  // Merged into a new table that replaces the old one only when complete, so
  // a failure leaves the parameters exactly as they were.
  mero::UniqueSzHash owned(decoded);
  MLIBSZHASH* merged = MLIBCSzHashAlloc(state->paramTable->slotCount + decoded->slotCount);
  const MLIBSZHASH* const sources[] = {state->paramTable, decoded};
  for (const MLIBSZHASH* source : sources) {
    for (int i = 0; merged && i < source->slotCount; ++i) {
      if (MLIBCSzHashSetValue(&merged, source->slots[i].key, source->slots[i].value) < 0) {
        MLIBCSzHashFree(merged);
        merged = nullptr;
      }
    }
  }
  if (!merged) {
    MERO_ERR_SET(MERO_ERR_NO_MEMORY);
    return -1;
  }
  MLIBCSzHashFree(state->paramTable);
  state->paramTable = merged;
  return pairs;
}

const char* MeroCgiGetCGIParam(MEROCGI_STATE* state, const char* name, const char* def) {
  if (!state || !name) return def;
  if (const char* value = MLIBCSzHashGetValue(state->paramTable, name)) return value;
  if (!merocgi::HasBodyParameters()) return def;
  const char* fromQuery = MLIBCSzHashGetValue(QueryTableOf(state), name);
  return fromQuery ? fromQuery : def;
}

int MeroCgiSetCGIParam(MEROCGI_STATE* state, const char* name, const char* value) {
  if (!state || !name || !value) {
    errno = EINVAL;
    return 0;
  }
  if (!state->paramTable && !(state->paramTable = MLIBCSzHashAlloc(256))) return 0;
  return MLIBCSzHashSetValue(&state->paramTable, name, value) >= 0 ? 1 : 0;
}

}  // extern "C"
