// Session identifiers, their stored hashes, registry names and client
// addresses: the small rules every session operation shares.
#ifndef MEROCGI_SESSION_SESSIONKEYS_H
#define MEROCGI_SESSION_SESSIONKEYS_H

#include <cstdint>
#include <string>

#include "Sha256.h"

namespace merocgi {

// The idle limit recorded for a session no check has seen yet.
constexpr int64_t kIdleLimitUnknown = INT64_MIN;

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
// How stale a recorded last-seen time may get before a check writes it
// anew, under an idle limit of `timeoutMinutes`: MERO_CGI_SESSION_TOUCH_SECONDS,
// or a tenth of the limit when that is shorter (at least a second). The last
// use of a session is thus less than this after its recorded last-seen time.
int64_t SessionTouchInterval(int timeoutMinutes);
// Whether a session created at `created` with `lifetime` seconds (0: none)
// and last recorded as seen at `lastSeen` has expired at `now` under an
// idle limit of `timeoutMinutes` (0: none; negative: every session has
// expired). Idle means longer than the limit plus the touch interval since
// `lastSeen`: a session idles out between its limit and the limit plus that
// interval after its last use, never within the limit.
bool IsSessionExpired(int64_t created, int64_t lifetime, int64_t lastSeen, int timeoutMinutes,
                      int64_t now);
// The idle limit to record for a session after a successful check with
// `timeoutMinutes`: the wider of that and the one `recordedMinutes` (0 is
// none, the widest; kIdleLimitUnknown before the first check). The store's
// own expiry goes by it, so it never removes a session that some check
// would still take.
int64_t WidestIdleLimit(int64_t recordedMinutes, int timeoutMinutes);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONKEYS_H
