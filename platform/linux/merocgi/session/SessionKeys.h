// Session identifiers, their stored hashes, registry names and client
// addresses: the small rules every session operation shares.
#ifndef MEROCGI_SESSION_SESSIONKEYS_H
#define MEROCGI_SESSION_SESSIONKEYS_H

#include <cstdint>
#include <string>

#include "Sha256.h"

namespace merocgi {

// `bytes` random bytes from getrandom as URL-safe base64 without padding;
// "" when the kernel's generator failed (logged).
std::string RandomToken(size_t bytes);
// A new session identifier: 256 random bits, 43 characters.
std::string NewSessionId();
// Whether `sid` has the shape of an identifier (43 URL-safe characters).
// Anything else cannot be a session, so it is never looked up.
bool IsSessionIdShape(const char* sid);
Sha256Digest SessionIdHash(const std::string& sid);
// The first 16 hex digits of the hash, naming a session without its id.
std::string SessionRef(const Sha256Digest& idHash);
// A registry as stored: folded to lower case, and a bare session name
// completed to "<name>.current.users".
std::string CanonicalRegistry(const char* registry);
// Whether two client addresses name the same host: compared as IPv4 or
// IPv6 addresses (an IPv4-mapped IPv6 address equals its IPv4 form), and
// byte for byte when either is not an address.
bool SameClientAddress(const std::string& stored, const std::string& current);
// Whether a session created at `created` with `lifetime` seconds (0: none)
// and last used at `lastSeen` has expired at `now` under an idle limit of
// `timeoutMinutes` (0: none; negative: every session has expired).
bool IsSessionExpired(int64_t created, int64_t lifetime, int64_t lastSeen, int timeoutMinutes,
                      int64_t now);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONKEYS_H
