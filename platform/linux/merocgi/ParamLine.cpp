// The raw parameter line: QUERY_STRING, or the body read to CONTENT_LENGTH
// under MERO_CGI_MAX_PARAM_LINE_BYTES. The body is read once per process
// (standard input cannot be read twice) and kept for later calls.
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "CgiLog.h"
#include "RequestMethod.h"
#include "merocgi.h"
#include "mero_request_io.h"

namespace {

struct CachedBody {  // trivially constructible: nothing runs at load time
  bool read;
  int error;  // MERO_ERR_* of the refused read, or MERO_ERR_NONE
  char* bytes;
  size_t length;
};
CachedBody cachedBody;

// Strict CONTENT_LENGTH: decimal digits only. -1 for anything else.
long long ParseContentLength(const char* text) {
  if (!text || !*text) return 0;
  long long value = 0;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return -1;
    if (value > (1LL << 40)) return (1LL << 40);  // far past any limit; stop growing
    value = value * 10 + (*p - '0');
  }
  return value;
}

void ReadBodyOnce() {
  if (cachedBody.read) return;
  cachedBody.read = true;
  const char* lengthText = std::getenv("CONTENT_LENGTH");
  const long long length = ParseContentLength(lengthText);
  if (length < 0) {
    MEROCGI_LOG("refused request: CONTENT_LENGTH is not a decimal number");
    cachedBody.error = MERO_ERR_REQUEST_MALFORMED;
    return;
  }
  if (length > MERO_CGI_MAX_PARAM_LINE_BYTES) {
    MEROCGI_LOG("refused request: body of %lld bytes exceeds the limit of %d", length,
                MERO_CGI_MAX_PARAM_LINE_BYTES);
    cachedBody.error = MERO_ERR_REQUEST_TOO_LARGE;
    return;
  }
  if (length == 0) return;
  char* bytes = static_cast<char*>(std::malloc(static_cast<size_t>(length) + 1));
  if (!bytes) {
    cachedBody.error = MERO_ERR_NO_MEMORY;
    return;
  }
  size_t got = 0;
  while (got < static_cast<size_t>(length)) {
    const ssize_t n = MeroCgiRequestBodyRead(bytes + got, static_cast<size_t>(length) - got);
    if (n < 0) {
      MEROCGI_LOG("refused request: reading the body failed: %m");
      std::free(bytes);
      cachedBody.error = MERO_ERR_IO;
      return;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  if (got < static_cast<size_t>(length)) {
    MEROCGI_LOG("refused request: body ended after %zu of %lld bytes", got, length);
    std::free(bytes);
    cachedBody.error = MERO_ERR_REQUEST_INCOMPLETE;
    return;
  }
  bytes[got] = '\0';
  cachedBody.bytes = bytes;
  cachedBody.length = got;
}

// A copy of `length` bytes as a C text, refusing embedded NUL bytes, which a
// C text would silently cut.
char* CopyLine(const char* bytes, size_t length, const char* what) {
  if (std::memchr(bytes, '\0', length)) {
    MEROCGI_LOG("refused request: the %s holds a NUL byte", what);
    MERO_ERR_SET(MERO_ERR_REQUEST_MALFORMED);
    return nullptr;
  }
  char* copy = static_cast<char*>(std::malloc(length + 1));
  if (!copy) {
    MERO_ERR_SET(MERO_ERR_NO_MEMORY);
    return nullptr;
  }
  std::memcpy(copy, bytes, length);
  copy[length] = '\0';
  return copy;
}

char* QueryStringLine() {
  const char* query = std::getenv("QUERY_STRING");
  if (!query || !*query) return nullptr;
  const size_t length = std::strlen(query);
  if (length > MERO_CGI_MAX_PARAM_LINE_BYTES) {
    MEROCGI_LOG("refused request: query string of %zu bytes exceeds the limit of %d", length,
                MERO_CGI_MAX_PARAM_LINE_BYTES);
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return nullptr;
  }
  return CopyLine(query, length, "query string");
}

}  // namespace

extern "C" {

char* MeroCgiGetParamLine(void) {
  if (!merocgi::HasBodyParameters()) return QueryStringLine();
  ReadBodyOnce();
  if (cachedBody.error != MERO_ERR_NONE) {
    MERO_ERR_SET(cachedBody.error);
    return nullptr;
  }
  if (cachedBody.length == 0) return QueryStringLine();
  return CopyLine(cachedBody.bytes, cachedBody.length, "body");
}

int MeroCgiIsUploadRequest(void) {
  const char* method = std::getenv("REQUEST_METHOD");
  const char* type = std::getenv("CONTENT_TYPE");
  static const char kMultipart[] = "multipart/form-data";
  return method && type && strcasecmp(method, "POST") == 0 &&
                 strncasecmp(type, kMultipart, sizeof kMultipart - 1) == 0
             ? 1
             : 0;
}

}  // extern "C"
