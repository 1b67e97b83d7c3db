#include "SessionKeys.h"

#include <arpa/inet.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "../CgiLog.h"
#include "merocgi.h"

namespace merocgi {
namespace {

constexpr char kUrlSafeAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr const char kRegistrySuffix[] = "current.users";

bool FillRandom(unsigned char* buffer, size_t size) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t got = getrandom(buffer + filled, size - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      MEROCGI_LOG("getrandom failed: %s", std::strerror(errno));
      return false;
    }
    filled += static_cast<size_t>(got);
  }
  return true;
}

std::string Base64Url(const unsigned char* data, size_t size) {
  std::string text;
  text.reserve((size * 4 + 2) / 3);
  size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const unsigned triple = data[i] << 16 | data[i + 1] << 8 | data[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) text += kUrlSafeAlphabet[(triple >> shift) & 63];
  }
  if (size - i == 1) {
    const unsigned single = data[i] << 16;
    text += kUrlSafeAlphabet[(single >> 18) & 63];
    text += kUrlSafeAlphabet[(single >> 12) & 63];
  } else if (size - i == 2) {
    const unsigned pair = data[i] << 16 | data[i + 1] << 8;
    text += kUrlSafeAlphabet[(pair >> 18) & 63];
    text += kUrlSafeAlphabet[(pair >> 12) & 63];
    text += kUrlSafeAlphabet[(pair >> 6) & 63];
  }
  return text;
}

// The address as 16 bytes (IPv4 as IPv4-mapped IPv6); false when it is none.
bool AddressBytes(const std::string& text, unsigned char out[16]) {
  in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    std::memset(out, 0, 10);
    out[10] = out[11] = 0xff;
    std::memcpy(out + 12, &v4, 4);
    return true;
  }
  return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

}  // namespace

std::string RandomToken(size_t bytes) {
  std::vector<unsigned char> buffer(bytes);
  if (!FillRandom(buffer.data(), bytes)) return std::string();
  return Base64Url(buffer.data(), bytes);
}

std::string NewSessionId() { return RandomToken(32); }

bool IsSessionIdShape(const char* sid) {
  size_t length = 0;
  for (; sid[length]; ++length) {
    if (length >= MERO_CGI_SESSION_ID_CHARS) return false;
    const char c = sid[length];
    const bool urlSafe = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                         (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (!urlSafe) return false;
  }
  return length == MERO_CGI_SESSION_ID_CHARS;
}

Sha256Digest SessionIdHash(const std::string& sid) { return Sha256(sid.data(), sid.size()); }

std::string SessionRef(const Sha256Digest& idHash) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string ref;
  for (size_t i = 0; i < 8; ++i) {
    ref += kHex[idHash[i] >> 4];
    ref += kHex[idHash[i] & 15];
  }
  return ref;
}

std::string CanonicalRegistry(const char* registry) {
  std::string name = registry ? registry : "";
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  const std::string dottedSuffix = std::string(".") + kRegistrySuffix;
  const bool complete =
      name == kRegistrySuffix ||
      (name.size() > dottedSuffix.size() &&
       name.compare(name.size() - dottedSuffix.size(), dottedSuffix.size(), dottedSuffix) == 0);
  if (!complete) name += name.empty() ? std::string(kRegistrySuffix) : dottedSuffix;
  return name;
}

bool SameClientAddress(const std::string& stored, const std::string& current) {
  unsigned char a[16], b[16];
  if (AddressBytes(stored, a) && AddressBytes(current, b)) return std::memcmp(a, b, 16) == 0;
  return stored == current;
}

}  // namespace merocgi

namespace merocgi {

int64_t SessionTouchInterval(int timeoutMinutes) {
  const int64_t tenth = timeoutMinutes > 0 ? int64_t(timeoutMinutes) * 6 : INT64_MAX;
  return std::max<int64_t>(1, std::min<int64_t>(MERO_CGI_SESSION_TOUCH_SECONDS, tenth));
}

bool IsSessionExpired(int64_t created, int64_t lifetime, int64_t lastSeen, int timeoutMinutes,
                      int64_t now) {
  if (lifetime > 0 && now - created > lifetime) return true;
  if (timeoutMinutes < 0) return true;
  // Uses within the touch interval of the recorded time were not written.
  return timeoutMinutes > 0 &&
         now - lastSeen > int64_t(timeoutMinutes) * 60 + SessionTouchInterval(timeoutMinutes);
}

int64_t WidestIdleLimit(int64_t recordedMinutes, int timeoutMinutes) {
  if (recordedMinutes == kIdleLimitUnknown) return timeoutMinutes;
  if (recordedMinutes == 0 || timeoutMinutes == 0) return 0;
  return std::max<int64_t>(recordedMinutes, timeoutMinutes);
}

}  // namespace merocgi
