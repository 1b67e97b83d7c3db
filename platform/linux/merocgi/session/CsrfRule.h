// The CSRF rule of a session check: a state-changing request must prove it
// comes from our own pages.
#ifndef MEROCGI_SESSION_CSRFRULE_H
#define MEROCGI_SESSION_CSRFRULE_H

#include <string>

namespace merocgi {

// Whether the blank-separated `words` hold `word`.
bool HasWord(const char* words, const char* word);

// True when the request is a GET or HEAD, carries `token` in X-Mero-Token,
// or names this server in its Origin header (merocgi.h says exactly how).
bool PassesCsrfRule(const std::string& token);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_CSRFRULE_H
