// The counts that throttle password proofs (the rule is in merosharing.h):
// attempts, the time of the last one, and the end of a lock, packed as
// three little-endian 64-bit words.
#ifndef MEROSHARING_THROTTLE_H
#define MEROSHARING_THROTTLE_H

#include <lmdb.h>

#include <cstdint>
#include <string>

namespace MERO {
namespace sharing {

struct Count {
  int64_t attempts = 0, lastAttempt = 0, lockedUntil = 0;
};

std::string EncodeCount(const Count& count);
// An unreadable record reads as no count: start afresh rather than lock
// anybody out.
Count DecodeCount(const MDB_val& value);
// The count after one more attempt at `now`, given the limit of its kind.
Count CountAttempt(Count count, int64_t now, int64_t limit);
// Whether a count no longer matters at `now` (its window and lock passed).
bool IsStale(const Count& count, int64_t now);

}  // namespace sharing
}  // namespace MERO

#endif  // MEROSHARING_THROTTLE_H
