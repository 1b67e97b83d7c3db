// SHA-256 (FIPS 180-4), for the session store's identifier hashes: a plain
// implementation, so that a CGI process need not load a crypto library for
// one small hash per request.
#ifndef MEROCGI_SESSION_SHA256_H
#define MEROCGI_SESSION_SHA256_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace merocgi {

using Sha256Digest = std::array<uint8_t, 32>;

Sha256Digest Sha256(const void* data, size_t size);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SHA256_H
