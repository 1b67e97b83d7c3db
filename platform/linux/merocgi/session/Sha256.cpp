#include "Sha256.h"

#include <cstring>

namespace merocgi {
namespace {

constexpr uint32_t kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t RotateRight(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

void CompressBlock(uint32_t hash[8], const uint8_t block[64]) {
  uint32_t w[64];
  for (int i = 0; i < 16; ++i)
    w[i] = uint32_t(block[4 * i]) << 24 | uint32_t(block[4 * i + 1]) << 16 |
           uint32_t(block[4 * i + 2]) << 8 | uint32_t(block[4 * i + 3]);
  for (int i = 16; i < 64; ++i) {
    const uint32_t s0 = RotateRight(w[i - 15], 7) ^ RotateRight(w[i - 15], 18) ^ (w[i - 15] >> 3);
    const uint32_t s1 = RotateRight(w[i - 2], 17) ^ RotateRight(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  uint32_t a = hash[0], b = hash[1], c = hash[2], d = hash[3];
  uint32_t e = hash[4], f = hash[5], g = hash[6], h = hash[7];
  for (int i = 0; i < 64; ++i) {
    const uint32_t t1 = h + (RotateRight(e, 6) ^ RotateRight(e, 11) ^ RotateRight(e, 25)) +
                        ((e & f) ^ (~e & g)) + kRoundConstants[i] + w[i];
    const uint32_t t2 = (RotateRight(a, 2) ^ RotateRight(a, 13) ^ RotateRight(a, 22)) +
                        ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  hash[0] += a;
  hash[1] += b;
  hash[2] += c;
  hash[3] += d;
  hash[4] += e;
  hash[5] += f;
  hash[6] += g;
  hash[7] += h;
}

}  // namespace

Sha256Digest Sha256(const void* data, size_t size) {
  uint32_t hash[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                      0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  const auto* bytes = static_cast<const uint8_t*>(data);
  size_t whole = size - size % 64;
  for (size_t offset = 0; offset < whole; offset += 64) CompressBlock(hash, bytes + offset);

  // The tail, the 0x80 marker and the bit length fill one or two blocks.
  uint8_t tail[128] = {};
  const size_t rest = size - whole;
  if (rest) std::memcpy(tail, bytes + whole, rest);
  tail[rest] = 0x80;
  const size_t tailBlocks = rest + 9 > 64 ? 2 : 1;
  const uint64_t bitLength = uint64_t(size) * 8;
  for (int i = 0; i < 8; ++i) tail[tailBlocks * 64 - 1 - i] = uint8_t(bitLength >> (8 * i));
  for (size_t i = 0; i < tailBlocks; ++i) CompressBlock(hash, tail + 64 * i);

  Sha256Digest digest;
  for (int i = 0; i < 8; ++i) {
    digest[4 * i] = uint8_t(hash[i] >> 24);
    digest[4 * i + 1] = uint8_t(hash[i] >> 16);
    digest[4 * i + 2] = uint8_t(hash[i] >> 8);
    digest[4 * i + 3] = uint8_t(hash[i]);
  }
  return digest;
}

}  // namespace merocgi
