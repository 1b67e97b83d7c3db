// String hash: pairs live in inline slots in insertion order (the layout
// readers walk), and a private open-addressing index makes lookups O(1).
// Each bucket is two ints, the slot number (-1: empty) and 32 bits of the
// key's hash, so a probe only reads a key (a likely cache miss in a large
// hash) when the hashes agree. The index is rebuilt at half load; the slots
// grow by realloc through the caller's pointer.
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

// Keys come from requests (parameter and cookie names), so the hash is keyed
// with a per-process random key (SipHash-1-3): without it, names chosen to
// share their low hash bits would make every insert probe a long cluster.
struct SipKey {
  uint64_t k0, k1;
};

const SipKey& ProcessKey() {
  static const SipKey key = [] {  // on first use, not at load time
    SipKey k{};
    if (getrandom(&k, sizeof k, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof k)) {
      // No entropy yet (early boot): still unpredictable enough to a remote
      // sender, who sees neither the clock nor our address space.
      k.k0 = static_cast<uint64_t>(std::time(nullptr)) ^ (static_cast<uint64_t>(getpid()) << 32);
      k.k1 = reinterpret_cast<uintptr_t>(&k) ^ static_cast<uint64_t>(clock());
    }
    return k;
  }();
  return key;
}

inline uint64_t Rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }

struct SipState {
  uint64_t v0, v1, v2, v3;
  void Round() {
    v0 += v1; v1 = Rotl(v1, 13); v1 ^= v0; v0 = Rotl(v0, 32);
    v2 += v3; v3 = Rotl(v3, 16); v3 ^= v2;
    v0 += v3; v3 = Rotl(v3, 21); v3 ^= v0;
    v2 += v1; v1 = Rotl(v1, 17); v1 ^= v2; v2 = Rotl(v2, 32);
  }
  void Absorb(uint64_t m) {
    v3 ^= m;
    Round();
    v0 ^= m;
  }
};

uint32_t HashText(const char* text) {
  const SipKey& key = ProcessKey();
  SipState s{0x736f6d6570736575ULL ^ key.k0, 0x646f72616e646f6dULL ^ key.k1,
             0x6c7967656e657261ULL ^ key.k0, 0x7465646279746573ULL ^ key.k1};
  const size_t length = std::strlen(text);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* const blocksEnd = p + (length & ~static_cast<size_t>(7));
  for (; p < blocksEnd; p += 8) {
    uint64_t m;
    std::memcpy(&m, p, 8);  // little-endian on the targets we build for
    s.Absorb(m);
  }
  uint64_t last = static_cast<uint64_t>(length) << 56;
  for (size_t i = 0; i < (length & 7); ++i) last |= static_cast<uint64_t>(p[i]) << (8 * i);
  s.Absorb(last);
  s.v2 ^= 0xff;
  for (int i = 0; i < 3; ++i) s.Round();
  const uint64_t h = s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
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
