// The response header block: headers and cookies are checked where they are
// recorded, so the block printed once at the end can hold no CR, LF or NUL
// from any source (no response splitting).
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CgiLog.h"
#include "RequestMethod.h"
#include "merocgi.h"

namespace {

bool IsTokenChar(unsigned char c) {  // RFC 9110 tchar
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

bool IsToken(const char* text, size_t maxBytes) {
  size_t length = 0;
  for (const char* p = text; *p; ++p, ++length)
    if (length >= maxBytes || !IsTokenChar(static_cast<unsigned char>(*p))) return false;
  return length > 0;
}

bool IsFieldValue(const char* text) {  // no control byte but tab
  size_t length = 0;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p, ++length) {
    if (length >= MERO_CGI_MAX_HEADER_VALUE_BYTES) return false;
    if ((*p < 0x20 && *p != '\t') || *p == 0x7f) return false;
  }
  return true;
}

bool IsCookieOctet(unsigned char c) {  // RFC 6265 cookie-octet
  return c == 0x21 || (c >= 0x23 && c <= 0x2b) || (c >= 0x2d && c <= 0x3a) ||
         (c >= 0x3c && c <= 0x5b) || (c >= 0x5d && c <= 0x7e);
}

bool IsCookieValue(const char* text) {
  size_t length = std::strlen(text);
  if (length >= 2 && text[0] == '"' && text[length - 1] == '"') {
    ++text;
    length -= 2;
  }
  if (length > MERO_CGI_MAX_HEADER_VALUE_BYTES) return false;
  for (size_t i = 0; i < length; ++i)
    if (!IsCookieOctet(static_cast<unsigned char>(text[i]))) return false;
  return true;
}

bool IsCookiePath(const char* path) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(path); *p; ++p)
    if (*p < 0x20 || *p == 0x7f || *p == ';') return false;
  return std::strlen(path) <= MERO_CGI_MAX_HEADER_VALUE_BYTES;
}

bool IsCookieDomain(const char* domain) {
  for (const char* p = domain; *p; ++p)
    if (!((*p >= '0' && *p <= '9') || (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') ||
          *p == '-' || *p == '.'))
      return false;
  return std::strlen(domain) <= 253;
}

bool Refuse(const char* what) {
  MEROCGI_LOG("refused response %s: not allowed in a header", what);
  MERO_ERR_SET(MERO_ERR_REQUEST_MALFORMED);
  return false;
}

// Slot of `name` in `table` ignoring letter case, or -1.
int FindFolded(const MLIBSZHASH* table, const char* name) {
  for (int i = 0; table && i < table->slotCount; ++i)
    if (table->slots[i].key && strcasecmp(table->slots[i].key, name) == 0) return i;
  return -1;
}

int Store(MLIBSZHASH** table, const char* key, const char* value) {
  if (!*table && !(*table = MLIBCSzHashAlloc(16))) return 0;
  const bool isNew = !MLIBCSzHashGetValue(*table, key);
  if (isNew && (*table)->slotCount >= MERO_CGI_MAX_RESPONSE_HEADERS) {
    MEROCGI_LOG("refused response header or cookie: more than %d", MERO_CGI_MAX_RESPONSE_HEADERS);
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return 0;
  }
  return MLIBCSzHashSetValue(table, key, value) >= 0 ? 1 : 0;
}

void AppendJsonString(std::string& out, const char* text) {
  out += '"';
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    if (*p == '"' || *p == '\\') {
      out += '\\';
      out += static_cast<char>(*p);
    } else if (*p < 0x20 || *p == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", *p);
      out += escaped;
    } else {
      out += static_cast<char>(*p);
    }
  }
  out += '"';
}

}  // namespace

extern "C" {

int MeroCgiSetHTTPHeader(MEROCGI_STATE* state, const char* name, const char* value) {
  if (!state || !name || !value) return 0;
  if (!IsToken(name, MERO_CGI_MAX_HEADER_NAME_BYTES)) return Refuse("header name");
  if (!IsFieldValue(value)) return Refuse("header value");
  const int existing = FindFolded(state->headerTable, name);
  return Store(&state->headerTable, existing >= 0 ? state->headerTable->slots[existing].key : name,
               value);
}

int MeroCgiSetCookies(MEROCGI_STATE* state, const char* name, const char* value, int maxAge,
                      const char* path, int flags, const char* domain) {
  if (!state || !name || !value) return 0;
  if (!IsToken(name, MERO_CGI_MAX_HEADER_NAME_BYTES)) return Refuse("cookie name");
  if (!IsCookieValue(value)) return Refuse("cookie value");
  if (path && !IsCookiePath(path)) return Refuse("cookie path");
  if (domain && !IsCookieDomain(domain)) return Refuse("cookie domain");
  try {  // C linkage: no exception (bad_alloc) may leave
    std::string cookie = std::string(name) + "=" + value;
    if (maxAge != 0) cookie += "; Max-Age=" + std::to_string(maxAge > 0 ? maxAge : 0);
    cookie += "; Path=";
    cookie += path && *path ? path : "/";
    if (domain && *domain) cookie += std::string("; Domain=") + domain;
    if (MeroRequestIsHttps()) cookie += "; Secure";
    if (!(flags & MERO_COOKIE_SCRIPT_READABLE)) cookie += "; HttpOnly";
    cookie += flags & MERO_COOKIE_SAMESITE_LAX ? "; SameSite=Lax" : "; SameSite=Strict";
    return Store(&state->setCookieTable, name, cookie.c_str());
  } catch (...) {
    return 0;
  }
}

int MeroCgiPrintHTTPHeader(MEROCGI_STATE* state) {
  if (!state) return 0;
  if (state->headerPrinted) {
    MEROCGI_LOG("header block already printed; later headers are not sent");
    return 0;
  }
  state->headerPrinted = 1;
  try {
    std::string block;
    for (int i = 0; state->headerTable && i < state->headerTable->slotCount; ++i)
      block.append(state->headerTable->slots[i].key)
          .append(": ")
          .append(state->headerTable->slots[i].value)
          .append("\r\n");
    for (int i = 0; state->setCookieTable && i < state->setCookieTable->slotCount; ++i)
      block.append("Set-Cookie: ").append(state->setCookieTable->slots[i].value).append("\r\n");
    block += "\r\n";
    return std::fwrite(block.data(), 1, block.size(), stdout) == block.size() &&
                   std::fflush(stdout) == 0
               ? 1
               : 0;
  } catch (...) {
    return 0;
  }
}

int MeroCgiRedirect(MEROCGI_STATE* state, const char* url) {
  if (!state || !url) return 0;
  if (!IsFieldValue(url)) return Refuse("redirect URL");
  // Both headers or neither: a 302 without its Location sends the browser
  // nowhere, and a recorded header cannot be taken back.
  const MLIBSZHASH* table = state->headerTable;
  const int statusSlot = FindFolded(table, "Status");
  const int added = (statusSlot < 0 ? 1 : 0) + (FindFolded(table, "Location") < 0 ? 1 : 0);
  if (table && table->slotCount + added > MERO_CGI_MAX_RESPONSE_HEADERS) {
    MEROCGI_LOG("refused redirect: its headers would be more than %d", MERO_CGI_MAX_RESPONSE_HEADERS);
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return 0;
  }
  try {  // C linkage: no exception (bad_alloc) may leave
    const std::string previous =
        statusSlot >= 0 ? table->slots[statusSlot].value : "500 Internal Server Error";
    if (!MeroCgiSetHTTPHeader(state, "Status", "302 Found")) return 0;
    if (!MeroCgiSetHTTPHeader(state, "Location", url)) {
      MeroCgiSetHTTPHeader(state, "Status", previous.c_str());  // memory ran out
      return 0;
    }
  } catch (...) {
    return 0;
  }
  return MeroCgiPrintHTTPHeader(state);
}

char* MeroCgiHashToJsonString(MLIBSZHASH** table) {
  if (!table || !*table) return nullptr;
  try {
    std::string json = "{";
    for (int i = 0; i < (*table)->slotCount; ++i) {
      const MLIBSZHASH_SLOT& slot = (*table)->slots[i];
      if (!slot.key || !slot.value) continue;
      if (json.size() > 1) json += ',';
      AppendJsonString(json, slot.key);
      json += ':';
      AppendJsonString(json, slot.value);
    }
    json += '}';
    return strdup(json.c_str());
  } catch (...) {
    return nullptr;
  }
}

}  // extern "C"
