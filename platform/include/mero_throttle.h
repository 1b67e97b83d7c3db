// Counts that throttle password attempts (logins, and link passwords):
// attempts, the time of the last one, and the end of a lock. Header-only
// and internal (not installed), like mero_accounts.h: both platform
// libraries apply the same rule with their own constants, and a split
// build exports nothing beyond the declared API. C++ only.
#ifndef MERO_THROTTLE_H
#define MERO_THROTTLE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace mero {

struct ThrottleCount {
  int64_t attempts = 0;
  int64_t lastAttempt = 0;
  int64_t lockedUntil = 0;
};

// A count is forgotten `window` seconds after its last attempt; at its
// limit it locks for `lock` seconds, doubling with every further attempt up
// to `maxLock`.
struct ThrottleRule {
  int64_t window;
  int64_t lock;
  int64_t maxLock;
};

// The count after one more attempt at `now`, given the limit of its kind.
inline ThrottleCount CountAttempt(ThrottleCount count, int64_t now, int64_t limit,
                                  const ThrottleRule& rule) {
  if (now - count.lastAttempt > rule.window) count.attempts = 0;
  ++count.attempts;
  count.lastAttempt = now;
  if (count.attempts >= limit) {
    const int64_t doublings = std::min<int64_t>(count.attempts - limit, 30);
    count.lockedUntil = now + std::min<int64_t>(rule.lock << doublings, rule.maxLock);
  }
  return count;
}

// Whether a count no longer matters at `now` (its window and lock passed).
inline bool IsStale(const ThrottleCount& count, int64_t now, const ThrottleRule& rule) {
  return now - count.lastAttempt > rule.window && now >= count.lockedUntil;
}

// Stored as three little-endian 64-bit words.
inline std::string EncodeThrottleCount(const ThrottleCount& count) {
  std::string out;
  for (int64_t word : {count.attempts, count.lastAttempt, count.lockedUntil})
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(uint64_t(word) >> (8 * i)));
  return out;
}

// An unreadable record reads as no count: start afresh rather than lock
// anybody out.
inline ThrottleCount DecodeThrottleCount(const void* data, size_t size) {
  ThrottleCount count;
  if (size != 24) return count;
  const auto* bytes = static_cast<const uint8_t*>(data);
  int64_t* words[] = {&count.attempts, &count.lastAttempt, &count.lockedUntil};
  for (int w = 0; w < 3; ++w) {
    uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits |= uint64_t(bytes[8 * w + i]) << (8 * i);
    *words[w] = static_cast<int64_t>(bits);
  }
  return count;
}

}  // namespace mero

#endif  // MERO_THROTTLE_H
