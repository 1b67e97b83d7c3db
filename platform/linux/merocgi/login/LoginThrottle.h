// Throttling of failed logins per user name and per client address, kept in
// an LMDB store beside the sessions (the rules are in merocgi.h).
#ifndef MEROCGI_LOGIN_LOGINTHROTTLE_H
#define MEROCGI_LOGIN_LOGINTHROTTLE_H

#include <cstdint>
#include <string>

#include "mero_throttle.h"
#include "merocgi.h"

namespace merocgi {

class LoginThrottle {
 public:
  enum class Verdict { kProceed, kLocked, kStoreError };

  LoginThrottle(std::string user, std::string client);

  // Counts one attempt against the user name and the address, unless one
  // of them is locked: then *retryAfter holds the seconds left and nothing
  // is counted.
  Verdict Attempt(int64_t now, int* retryAfter);
  // Takes a counted attempt back after a successful login. False when the
  // store failed (logged); the login still stands.
  bool Succeeded(int64_t now);

  // The store's path under the appliance root.
  static std::string Path();

 private:
  std::string userKey_;
  std::string clientKey_;
};

// The login rule (merocgi.h) over the counting shared with link passwords.
using ThrottleCount = mero::ThrottleCount;
constexpr mero::ThrottleRule kLoginThrottleRule{
    MERO_CGI_LOGIN_THROTTLE_WINDOW, MERO_CGI_LOGIN_THROTTLE_LOCK, MERO_CGI_LOGIN_THROTTLE_MAX_LOCK};

// The counter after one more attempt at `now`, given the limit of its kind.
inline ThrottleCount CountAttempt(ThrottleCount count, int64_t now, int64_t limit) {
  return mero::CountAttempt(count, now, limit, kLoginThrottleRule);
}
// Whether a counter no longer matters at `now` (its window and lock passed).
inline bool IsStale(const ThrottleCount& count, int64_t now) {
  return mero::IsStale(count, now, kLoginThrottleRule);
}

}  // namespace merocgi

#endif  // MEROCGI_LOGIN_LOGINTHROTTLE_H
