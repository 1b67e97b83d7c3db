#include "Throttle.h"

#include <algorithm>

#include "merosharing.h"

namespace MERO {
namespace sharing {

std::string EncodeCount(const Count& count) {
  std::string out;
  for (int64_t word : {count.attempts, count.lastAttempt, count.lockedUntil})
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(uint64_t(word) >> (8 * i)));
  return out;
}

Count DecodeCount(const MDB_val& value) {
  Count count;
  if (value.mv_size != 24) return count;
  const auto* bytes = static_cast<const uint8_t*>(value.mv_data);
  int64_t* words[] = {&count.attempts, &count.lastAttempt, &count.lockedUntil};
  for (int w = 0; w < 3; ++w) {
    uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits |= uint64_t(bytes[8 * w + i]) << (8 * i);
    *words[w] = static_cast<int64_t>(bits);
  }
  return count;
}

Count CountAttempt(Count count, int64_t now, int64_t limit) {
  if (now - count.lastAttempt > MERO_SHARING_THROTTLE_WINDOW) count.attempts = 0;
  ++count.attempts;
  count.lastAttempt = now;
  if (count.attempts >= limit) {
    const int64_t doublings = std::min<int64_t>(count.attempts - limit, 30);
    count.lockedUntil = now + std::min<int64_t>(int64_t(MERO_SHARING_THROTTLE_LOCK) << doublings,
                                                MERO_SHARING_THROTTLE_MAX_LOCK);
  }
  return count;
}

bool IsStale(const Count& count, int64_t now) {
  return now - count.lastAttempt > MERO_SHARING_THROTTLE_WINDOW && now >= count.lockedUntil;
}

}  // namespace sharing
}  // namespace MERO
