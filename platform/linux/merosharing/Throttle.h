// The counts that throttle password proofs (the rule is in merosharing.h,
// the arithmetic shared with logins in mero_throttle.h).
#ifndef MEROSHARING_THROTTLE_H
#define MEROSHARING_THROTTLE_H

#include <lmdb.h>

#include <cstdint>
#include <string>

#include "mero_throttle.h"
#include "merosharing.h"

namespace MERO {
namespace sharing {

using Count = mero::ThrottleCount;

constexpr mero::ThrottleRule kPasswordThrottleRule{
    MERO_SHARING_THROTTLE_WINDOW, MERO_SHARING_THROTTLE_LOCK, MERO_SHARING_THROTTLE_MAX_LOCK};

inline std::string EncodeCount(const Count& count) { return mero::EncodeThrottleCount(count); }
inline Count DecodeCount(const MDB_val& value) {
  return mero::DecodeThrottleCount(value.mv_data, value.mv_size);
}
inline Count CountAttempt(Count count, int64_t now, int64_t limit) {
  return mero::CountAttempt(count, now, limit, kPasswordThrottleRule);
}
inline bool IsStale(const Count& count, int64_t now) {
  return mero::IsStale(count, now, kPasswordThrottleRule);
}

}  // namespace sharing
}  // namespace MERO

#endif  // MEROSHARING_THROTTLE_H
