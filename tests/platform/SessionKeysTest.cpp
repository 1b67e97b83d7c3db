// The session store's small rules: the identifier hash, identifier shape,
// registry names and client-address comparison.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "session/SessionKeys.h"
#include "session/Sha256.h"

namespace {

std::string Hex(const merocgi::Sha256Digest& digest) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (uint8_t byte : digest) {
    text += kHex[byte >> 4];
    text += kHex[byte & 15];
  }
  return text;
}

TEST(Sha256Test, KnownAnswers) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      // 56 bytes: the length no longer fits the first block.
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      // 55 bytes: the last length that fits one block; 64: a whole block.
      {std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
      {std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& [message, digest] : cases)
    EXPECT_EQ(Hex(merocgi::Sha256(message.data(), message.size())), digest) << message.size();
}

TEST(SessionKeysTest, NewIdentifiersHaveTheirShapeAndDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    const std::string id = merocgi::NewSessionId();
    EXPECT_TRUE(merocgi::IsSessionIdShape(id.c_str())) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 64u);
  for (const std::string& bad : {std::string(42, 'a'), std::string(44, 'a'),
                                 std::string(42, 'a') + "=", std::string(42, 'a') + "/",
                                 std::string(42, 'a') + "+", std::string()})
    EXPECT_FALSE(merocgi::IsSessionIdShape(bad.c_str())) << bad;
}

TEST(SessionKeysTest, RegistryNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"zel", "zel.current.users"},  {"MyApp", "myapp.current.users"},
      {"myapp.current.users", "myapp.current.users"}, {"MyApp.Current.Users", "myapp.current.users"},
      {"current.users", "current.users"}, {"", "current.users"}, {nullptr, "current.users"},
      {"xcurrent.users", "xcurrent.users.current.users"},
  };
  for (const auto& [given, stored] : cases)
    EXPECT_EQ(merocgi::CanonicalRegistry(given), stored) << (given ? given : "(null)");
}

TEST(SessionKeysTest, ClientAddresses) {
  const struct { const char* stored; const char* current; bool same; } cases[] = {
      {"127.0.0.1", "127.0.0.1", true},   {"127.0.0.1", "::ffff:127.0.0.1", true},
      {"::1", "0:0:0:0:0:0:0:1", true},   {"2001:db8::1", "2001:DB8::1", true},
      {"127.0.0.1", "127.0.0.2", false},  {"::1", "127.0.0.1", false},
      {"127.0.0.1", "127.0.0.1 ", false},  // not an address: compared as text
      {"unix", "unix", true},             {"", "127.0.0.1", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(merocgi::SameClientAddress(c.stored, c.current), c.same)
        << c.stored << " vs " << c.current;
}

TEST(SessionKeysTest, Expiry) {
  const int64_t created = 1000000, now = created + 7200;
  const struct { int64_t lifetime, idleSeconds; int timeoutMinutes; bool expired; } cases[] = {
      {0, 0, 30, false},          {0, 30 * 60 + 60, 30, false},  // the limit and a touch interval
      {0, 30 * 60 + 61, 30, true}, {0, 86400, 0, false},         // 0: no idle limit
      {0, 60 + 6, 1, false},      {0, 60 + 7, 1, true},          // a tenth of a short limit
      {0, 0, -1, true},                                   // negative: always expired
      {7200, 0, 0, false},      {7199, 0, 0, true},       // lifetime counts from creation
      {7199, 0, 10080, true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(merocgi::IsSessionExpired(created, c.lifetime, now - c.idleSeconds,
                                        c.timeoutMinutes, now),
              c.expired)
        << c.lifetime << " " << c.idleSeconds << " " << c.timeoutMinutes;
}

// Checks at the given times, each writing the last-seen time when the touch
// interval says so, as MeroCgiIsAuthorizedEx does: every check within the
// idle limit of the one before must pass, and the session must be refused
// once idle for longer than the limit plus the touch interval.
TEST(SessionKeysTest, ASessionInUseNeverIdlesOut) {
  const struct { int timeoutMinutes; std::vector<int64_t> uses; } cases[] = {  // uses: s after creation
      {1, {29, 74, 134, 194}},  // used at 29 s, then 45 s later, then a minute apart
      {1, {5, 65, 125, 185, 245}},
      {2, {59, 179, 299, 419}},
      {10, {1, 599, 1199, 1799}},
      {30, {1799, 3598, 5397}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.timeoutMinutes) + " minute(s)");
    const int64_t created = 1000000, limit = int64_t(c.timeoutMinutes) * 60;
    int64_t lastSeen = created, lastUse = created;
    for (const int64_t use : c.uses) {
      const int64_t now = created + use;
      ASSERT_LE(now - lastUse, limit);  // the case itself stays within the limit
      EXPECT_FALSE(merocgi::IsSessionExpired(created, 0, lastSeen, c.timeoutMinutes, now)) << use;
      if (now - lastSeen >= merocgi::SessionTouchInterval(c.timeoutMinutes)) lastSeen = now;
      lastUse = now;
    }
    const int64_t lastChance = lastUse + limit;
    const int64_t late = lastSeen + limit + merocgi::SessionTouchInterval(c.timeoutMinutes) + 1;
    EXPECT_FALSE(merocgi::IsSessionExpired(created, 0, lastSeen, c.timeoutMinutes, lastChance));
    EXPECT_TRUE(merocgi::IsSessionExpired(created, 0, lastSeen, c.timeoutMinutes, late));
  }
}

}  // namespace
