#include "LoginAudit.h"

#include <syslog.h>

#include <cstdio>
#include <cstring>

namespace merocgi {
namespace {

constexpr size_t kMaxAuditFieldBytes = 64;

}  // namespace

std::string AuditField(const char* text) {
  if (!text || !*text) return "-";
  std::string field;
  const size_t length = ::strnlen(text, kMaxAuditFieldBytes);
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x21 || c == 0x7f || c == '\\') {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      field += escaped;
    } else {
      field += static_cast<char>(c);
    }
  }
  return field;
}

void AuditLoginSuccess(const char* user, const char* client) {
  syslog(LOG_AUTH | LOG_NOTICE, "login: user=%s client=%s result=success", AuditField(user).c_str(),
         AuditField(client).c_str());
}

void AuditLoginFailure(const char* user, const char* client, const char* reason) {
  syslog(LOG_AUTH | LOG_WARNING, "login: user=%s client=%s result=failure reason=%s",
         AuditField(user).c_str(), AuditField(client).c_str(), reason);
}

void AuditLoginThrottled(const char* user, const char* client, int retryAfter) {
  syslog(LOG_AUTH | LOG_WARNING, "login: user=%s client=%s result=throttled retry_after=%d",
         AuditField(user).c_str(), AuditField(client).c_str(), retryAfter);
}

void AuditLogout(const char* user, const char* client, bool ended) {
  syslog(ended ? LOG_AUTH | LOG_NOTICE : LOG_AUTH | LOG_WARNING, "logout: user=%s client=%s result=%s",
         AuditField(user).c_str(), AuditField(client).c_str(), ended ? "success" : "unknown");
}

}  // namespace merocgi
