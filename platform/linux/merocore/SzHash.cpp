// String hash: pairs live in inline slots in insertion order (the layout
// readers walk), and a private open-addressing index makes lookups O(1).
// Each bucket is two ints, the slot number (-1: empty) and 32 bits of the
// key's hash, so a probe only reads a key (a likely cache miss in a large
// hash) when the hashes agree. The index is rebuilt at half load; the slots
// grow by realloc through the caller's pointer.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "merocore.h"

static_assert(offsetof(MLIBSZHASH, slotCapacity) == 0, "header word 0");
static_assert(offsetof(MLIBSZHASH, bucketMask) == sizeof(int), "header word 1");
static_assert(offsetof(MLIBSZHASH, slotCount) == 2 * sizeof(int), "slot count is header word 2");
static_assert(offsetof(MLIBSZHASH, buckets) >= 4 * sizeof(int), "index pointer is header word 4");
static_assert(offsetof(MLIBSZHASH, slots) == offsetof(MLIBSZHASH, buckets) + sizeof(int*),
              "slots follow the header");
static_assert(offsetof(MLIBSZHASH_SLOT, key) == 0 && offsetof(MLIBSZHASH_SLOT, value) == sizeof(char*),
              "a slot is key then value");

namespace {

uint32_t HashText(const char* text) {  // FNV-1a, folded to 32 bits
  uint64_t h = 1469598103934665603ULL;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    h ^= *p;
    h *= 1099511628211ULL;
  }
  return static_cast<uint32_t>(h ^ (h >> 32));
}

size_t RecordBytes(size_t slots) { return offsetof(MLIBSZHASH, slots) + slots * sizeof(MLIBSZHASH_SLOT); }

constexpr int kBucketInts = 2;  // slot number, hash bits

// Index of the bucket that holds `key`, or of the empty bucket where it goes.
size_t FindBucket(const MLIBSZHASH* hash, const char* key, uint32_t keyHash) {
  const size_t mask = static_cast<size_t>(hash->bucketMask);
  for (size_t bucket = keyHash & mask;; bucket = (bucket + 1) & mask) {
    const int* entry = hash->buckets + bucket * kBucketInts;
    if (entry[0] < 0) return bucket;
    if (static_cast<uint32_t>(entry[1]) == keyHash && std::strcmp(hash->slots[entry[0]].key, key) == 0)
      return bucket;
  }
}

void FillBucket(MLIBSZHASH* hash, size_t bucket, int slot, uint32_t keyHash) {
  hash->buckets[bucket * kBucketInts] = slot;
  hash->buckets[bucket * kBucketInts + 1] = static_cast<int>(keyHash);
}

// Replaces the index with one of `bucketCount` buckets (a power of two),
// moving entries by their stored hash bits: keys are unique, so no key is
// read (and no cache line of one touched) while the index grows.
bool Reindex(MLIBSZHASH* hash, size_t bucketCount) {
  int* buckets = static_cast<int*>(std::malloc(bucketCount * kBucketInts * sizeof(int)));
  if (!buckets) return false;
  std::memset(buckets, 0xff, bucketCount * kBucketInts * sizeof(int));  // every slot number -1
  const size_t mask = bucketCount - 1;
  const size_t oldCount = hash->buckets ? static_cast<size_t>(hash->bucketMask) + 1 : 0;
  for (size_t old = 0; old < oldCount; ++old) {
    const int* entry = hash->buckets + old * kBucketInts;
    if (entry[0] < 0) continue;
    size_t bucket = static_cast<uint32_t>(entry[1]) & mask;
    while (buckets[bucket * kBucketInts] >= 0) bucket = (bucket + 1) & mask;
    buckets[bucket * kBucketInts] = entry[0];
    buckets[bucket * kBucketInts + 1] = entry[1];
  }
  std::free(hash->buckets);
  hash->buckets = buckets;
  hash->bucketMask = static_cast<int>(mask);
  return true;
}

size_t BucketsFor(size_t pairs) {
  size_t buckets = 16;
  while (buckets < pairs * 2) buckets *= 2;
  return buckets;
}

}  // namespace

extern "C" {

MLIBSZHASH* MLIBCSzHashAlloc(int capacity) {
  if (capacity > MERO_SZ_MAX_ITEMS) {
    errno = EINVAL;
    return nullptr;
  }
  const size_t slots = capacity < 1 ? 1 : static_cast<size_t>(capacity);
  auto* hash = static_cast<MLIBSZHASH*>(std::malloc(RecordBytes(slots)));
  if (!hash) {
    errno = ENOMEM;
    return nullptr;
  }
  hash->slotCapacity = static_cast<int>(slots);
  hash->slotCount = 0;
  hash->reserved = 0;
  hash->buckets = nullptr;
  if (!Reindex(hash, BucketsFor(slots))) {
    std::free(hash);
    errno = ENOMEM;
    return nullptr;
  }
  return hash;
}

int MLIBCSzHashSetValue(MLIBSZHASH** hashRef, const char* key, const char* value) {
  if (!hashRef || !*hashRef || !key || !value) {
    errno = EINVAL;
    return -1;
  }
  MLIBSZHASH* hash = *hashRef;
  char* valueCopy = strdup(value);
  if (!valueCopy) return -1;
  const uint32_t keyHash = HashText(key);
  size_t bucket = FindBucket(hash, key, keyHash);
  const int existing = hash->buckets[bucket * kBucketInts];
  if (existing >= 0) {
    std::free(hash->slots[existing].value);
    hash->slots[existing].value = valueCopy;
    return existing;
  }
  if (hash->slotCount >= MERO_SZ_MAX_ITEMS) {
    std::free(valueCopy);
    errno = ENOMEM;
    return -1;
  }
  char* keyCopy = strdup(key);
  if (!keyCopy) {
    std::free(valueCopy);
    return -1;
  }
  if (hash->slotCount == hash->slotCapacity) {
    size_t grown = static_cast<size_t>(hash->slotCapacity) * 2;
    if (grown > MERO_SZ_MAX_ITEMS) grown = MERO_SZ_MAX_ITEMS;
    auto* moved = static_cast<MLIBSZHASH*>(std::realloc(hash, RecordBytes(grown)));
    if (!moved) {
      std::free(keyCopy);
      std::free(valueCopy);
      errno = ENOMEM;
      return -1;
    }
    moved->slotCapacity = static_cast<int>(grown);
    hash = moved;
    *hashRef = moved;
  }
  const size_t needed = BucketsFor(static_cast<size_t>(hash->slotCount) + 1);
  if (needed > static_cast<size_t>(hash->bucketMask) + 1) {
    if (!Reindex(hash, needed)) {
      std::free(keyCopy);
      std::free(valueCopy);
      errno = ENOMEM;
      return -1;
    }
    bucket = FindBucket(hash, key, keyHash);
  }
  const int slot = hash->slotCount;
  hash->slots[slot].key = keyCopy;
  hash->slots[slot].value = valueCopy;
  FillBucket(hash, bucket, slot, keyHash);
  hash->slotCount = slot + 1;
  return slot;
}

const char* MLIBCSzHashGetValue(const MLIBSZHASH* hash, const char* key) {
  if (!hash || !key) return nullptr;
  const int slot = hash->buckets[FindBucket(hash, key, HashText(key)) * kBucketInts];
  return slot >= 0 ? hash->slots[slot].value : nullptr;
}

int MLIBCSzHashEnumKey(const MLIBSZHASH* hash, MLIBSZLIST** list) {
  if (!hash || !list || !*list) {
    errno = EINVAL;
    return -1;
  }
  int added = 0;
  for (int i = 0; i < hash->slotCount; ++i) {
    if (!hash->slots[i].key || !hash->slots[i].value) continue;
    if (MLIBCSzListAdd(list, hash->slots[i].key) < 0) return -1;
    ++added;
  }
  return added;
}

void MLIBCSzHashFree(MLIBSZHASH* hash) {
  if (!hash) return;
  for (int i = 0; i < hash->slotCount; ++i) {
    std::free(hash->slots[i].key);
    std::free(hash->slots[i].value);
  }
  std::free(hash->buckets);
  std::free(hash);
}

}  // extern "C"
