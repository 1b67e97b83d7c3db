#include "PasswordHash.h"

#include <crypt.h>
#include <dlfcn.h>

#include <cstring>
#include <memory>

#include "SharingLog.h"

namespace MERO {
namespace sharing {
namespace {

// yescrypt, libxcrypt's default and Debian's for account passwords; cost 0
// is libxcrypt's default cost (some tens of milliseconds a check).
constexpr char kHashPrefix[] = "$y$";

struct CryptApi {
  decltype(&crypt_rn) hash;
  decltype(&crypt_gensalt_rn) salt;
};

const CryptApi* LoadCrypt() {
  static CryptApi api;
  static bool loaded = false;
  if (loaded) return &api;
  // Kept for the rest of the process: a process that checks one password
  // usually checks no second one, and unloading gains nothing.
  void* library = ::dlopen("libcrypt.so.1", RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    MEROSHARING_LOG("cannot load libcrypt: %s", ::dlerror());
    return nullptr;
  }
  api.hash = reinterpret_cast<decltype(api.hash)>(::dlsym(library, "crypt_rn"));
  api.salt = reinterpret_cast<decltype(api.salt)>(::dlsym(library, "crypt_gensalt_rn"));
  if (!api.hash || !api.salt) {
    MEROSHARING_LOG("libcrypt lacks crypt_rn or crypt_gensalt_rn");
    return nullptr;
  }
  loaded = true;
  return &api;
}

// crypt_data is 32 KiB: on the heap, and wiped, since it held the password.
struct CryptDataDeleter {
  void operator()(crypt_data* data) const {
    explicit_bzero(data, sizeof *data);
    delete data;
  }
};
using CryptData = std::unique_ptr<crypt_data, CryptDataDeleter>;

// The hash of `password` with `setting` (a salt, or a stored hash), or "".
std::string Crypt(const CryptApi& api, const std::string& password, const char* setting) {
  CryptData data(new crypt_data());
  const char* out = api.hash(password.c_str(), setting, data.get(), sizeof *data);
  // A failed crypt_rn answers null or a text starting with '*'.
  return out && out[0] != '*' ? std::string(out) : std::string();
}

}  // namespace

bool HashPassword(const std::string& password, std::string* hash) {
  const CryptApi* api = LoadCrypt();
  if (!api) return false;
  char salt[CRYPT_GENSALT_OUTPUT_SIZE];
  if (!api->salt(kHashPrefix, 0, nullptr, 0, salt, sizeof salt)) {
    MEROSHARING_LOG("crypt_gensalt_rn refused to make a salt");
    return false;
  }
  *hash = Crypt(*api, password, salt);
  if (hash->empty()) MEROSHARING_LOG("crypt_rn refused to hash a password");
  return !hash->empty();
}

PasswordResult CheckPassword(const std::string& password, const std::string& hash) {
  const CryptApi* api = LoadCrypt();
  if (!api) return PasswordResult::kUnavailable;
  const std::string computed = Crypt(*api, password, hash.c_str());
  if (computed.empty() || computed.size() != hash.size()) return PasswordResult::kMismatch;
  unsigned char difference = 0;
  for (size_t i = 0; i < hash.size(); ++i) difference |= computed[i] ^ hash[i];
  return difference == 0 ? PasswordResult::kMatch : PasswordResult::kMismatch;
}

}  // namespace sharing
}  // namespace MERO
