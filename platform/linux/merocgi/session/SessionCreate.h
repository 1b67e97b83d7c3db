// Creating a session: shared by login and the administration tool.
#ifndef MEROCGI_SESSION_SESSIONCREATE_H
#define MEROCGI_SESSION_SESSIONCREATE_H

#include <cstddef>
#include <string>

#include "merocgi.h"

namespace merocgi {

// Random bytes behind a CSRF token: MERO_CGI_CSRF_TOKEN_CHARS characters.
constexpr size_t kCsrfTokenBytes = 24;
static_assert((kCsrfTokenBytes * 4 + 2) / 3 == MERO_CGI_CSRF_TOKEN_CHARS, "token size");

// Creates a session (arguments as MeroCgiSessionCreate, already checked)
// and hands out its identifier and CSRF token. MERO_SESSION_AUTHORIZED or
// MERO_SESSION_STORE_ERROR (logged).
int CreateSession(const char* registry, const char* user, const char* client, long long lifetime,
                  const char* privileges, bool endOthers, std::string* id, std::string* csrf);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONCREATE_H
