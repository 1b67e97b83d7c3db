// Link passwords as yescrypt hashes, through libxcrypt loaded on first use
// (dlopen): only creating a link and a visitor's password proof ever map
// it, never an ordinary or a sharing request.
#ifndef MEROSHARING_PASSWORDHASH_H
#define MEROSHARING_PASSWORDHASH_H

#include <string>

namespace MERO {
namespace sharing {

enum class PasswordResult { kMatch, kMismatch, kUnavailable };

// A new salted hash of `password` into *hash; false when libcrypt could not
// be loaded or refused (logged).
bool HashPassword(const std::string& password, std::string* hash);
// Whether `password` hashes to `hash` (compared in constant time).
PasswordResult CheckPassword(const std::string& password, const std::string& hash);

}  // namespace sharing
}  // namespace MERO

#endif  // MEROSHARING_PASSWORDHASH_H
