// Throttling of failed logins: the counting rule, and the counts kept in the
// store across attempts.
#include <gtest/gtest.h>

#include "ApplianceRootEnv.h"
#include "login/LoginThrottle.h"
#include "merocgi.h"

namespace {

using merocgi::LoginThrottle;

TEST(LoginThrottleRule, LocksDoubleUpToTheLimitAndAreForgottenAfterTheWindow) {
  constexpr int64_t t = 1'000'000;
  struct Case {
    merocgi::ThrottleCount before;
    int64_t now;
    int64_t attempts, lockedUntil;
  };
  const Case cases[] = {
      {{0, 0, 0}, t, 1, 0},                            // a first attempt: no lock
      {{3, t - 10, 0}, t, 4, 0},                       // below the limit
      {{4, t - 10, 0}, t, 5, t + 60},                  // the limit: a minute
      {{5, t - 10, t - 5}, t, 6, t + 120},             // each further attempt doubles it
      {{8, t - 10, 0}, t, 9, t + 900},                 // up to fifteen minutes
      {{40, t - 10, 0}, t, 41, t + 900},               // and no further, however many
      {{9, t - MERO_CGI_LOGIN_THROTTLE_WINDOW - 1, 0}, t, 1, 0},  // an old count is forgotten
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.before.attempts);
    const merocgi::ThrottleCount after = merocgi::CountAttempt(c.before, c.now, 5);
    EXPECT_EQ(after.attempts, c.attempts);
    EXPECT_EQ(after.lockedUntil, c.lockedUntil);
    EXPECT_EQ(after.lastAttempt, c.now);
  }
  EXPECT_FALSE(merocgi::IsStale({5, t - 10, t + 50}, t));
  EXPECT_FALSE(merocgi::IsStale({5, t - MERO_CGI_LOGIN_THROTTLE_WINDOW - 1, t + 1}, t));
  EXPECT_TRUE(merocgi::IsStale({5, t - MERO_CGI_LOGIN_THROTTLE_WINDOW - 1, t}, t));
}

class LoginThrottleTest : public webapi_test::ApplianceRootTest {};

TEST_F(LoginThrottleTest, CountsPerUserAndPerAddressAcrossAttempts) {
  constexpr int64_t t = 2'000'000;
  int retryAfter = 0;
  // A success takes its attempt back: four failures, a success, four more
  // failures, and the name is still not locked.
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(LoginThrottle("alice", "10.0.0.1").Attempt(t, &retryAfter), LoginThrottle::Verdict::kProceed);
  EXPECT_EQ(LoginThrottle("alice", "10.0.0.1").Attempt(t, &retryAfter), LoginThrottle::Verdict::kProceed);
  EXPECT_TRUE(LoginThrottle("alice", "10.0.0.1").Succeeded(t));
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(LoginThrottle("ALICE", "10.0.0.2").Attempt(t, &retryAfter), LoginThrottle::Verdict::kProceed);
  // The fifth locks the name (whatever its letter case), from any address.
  EXPECT_EQ(LoginThrottle("Alice", "10.0.0.3").Attempt(t, &retryAfter), LoginThrottle::Verdict::kProceed);
  EXPECT_EQ(LoginThrottle("alice", "10.0.0.4").Attempt(t + 20, &retryAfter), LoginThrottle::Verdict::kLocked);
  EXPECT_EQ(retryAfter, 40);
  // Twenty attempts from one address lock it for every name.
  for (int i = 0; i < MERO_CGI_LOGIN_THROTTLE_CLIENT_LIMIT; ++i)
    EXPECT_EQ(LoginThrottle("user" + std::to_string(i), "10.9.9.9").Attempt(t, &retryAfter),
              LoginThrottle::Verdict::kProceed) << i;
  EXPECT_EQ(LoginThrottle("nobody", "10.9.9.9").Attempt(t, &retryAfter), LoginThrottle::Verdict::kLocked);
  EXPECT_EQ(LoginThrottle("nobody", "10.9.9.8").Attempt(t, &retryAfter), LoginThrottle::Verdict::kProceed);
  // After the lock and the window, all is forgotten.
  const int64_t later = t + MERO_CGI_LOGIN_THROTTLE_WINDOW + MERO_CGI_LOGIN_THROTTLE_MAX_LOCK + 1;
  EXPECT_EQ(LoginThrottle("alice", "10.9.9.9").Attempt(later, &retryAfter), LoginThrottle::Verdict::kProceed);
}

}  // namespace
