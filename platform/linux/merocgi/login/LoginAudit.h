// Audit lines of logins and logouts (formats in merocgi.h): facility
// LOG_AUTH, never a password or a session identifier.
#ifndef MEROCGI_LOGIN_LOGINAUDIT_H
#define MEROCGI_LOGIN_LOGINAUDIT_H

#include <string>

namespace merocgi {

// A user name or address as one safe field of a log line: cut to 64 bytes,
// control bytes, '\\' and blanks written as \xHH, "-" for none.
std::string AuditField(const char* text);

void AuditLoginSuccess(const char* user, const char* client);
void AuditLoginFailure(const char* user, const char* client, const char* reason);
void AuditLoginThrottled(const char* user, const char* client, int retryAfter);
void AuditLogout(const char* user, const char* client, bool ended);

}  // namespace merocgi

#endif  // MEROCGI_LOGIN_LOGINAUDIT_H
