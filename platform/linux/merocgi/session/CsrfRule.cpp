#include "CsrfRule.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "merocore.h"

namespace merocgi {
namespace {

// Compares in time that depends on the length only, so a wrong token
// teaches nothing about the right one.
bool SameSecret(const char* given, const std::string& secret) {
  const size_t length = std::strlen(given);
  if (length != secret.size() || secret.empty()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < length; ++i)
    difference |= static_cast<unsigned char>(given[i] ^ secret[i]);
  return difference == 0;
}

// "host[:port]" without the scheme's default port, in lower case.
std::string Authority(std::string authority, bool https) {
  for (char& c : authority)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  const char* defaultPort = https ? ":443" : ":80";
  const size_t portLength = std::strlen(defaultPort);
  if (authority.size() > portLength &&
      authority.compare(authority.size() - portLength, portLength, defaultPort) == 0)
    authority.resize(authority.size() - portLength);
  return authority;
}

bool IsOwnOrigin() {
  const char* origin = std::getenv("HTTP_ORIGIN");
  const char* host = std::getenv("HTTP_HOST");
  if (!origin || !host || !*host) return false;
  const bool https = MeroRequestIsHttps() != 0;
  const char* scheme = https ? "https://" : "http://";
  const size_t schemeLength = std::strlen(scheme);
  if (strncasecmp(origin, scheme, schemeLength) != 0) return false;
  const std::string originAuthority = origin + schemeLength;
  if (originAuthority.find_first_of("/?#@") != std::string::npos) return false;
  return Authority(originAuthority, https) == Authority(host, https);
}

}  // namespace

bool HasWord(const char* words, const char* word) {
  if (!words) return false;
  const size_t wordLength = std::strlen(word);
  for (const char* at = words; *at;) {
    while (*at == ' ') ++at;
    const char* end = at;
    while (*end && *end != ' ') ++end;
    if (static_cast<size_t>(end - at) == wordLength && std::strncmp(at, word, wordLength) == 0)
      return true;
    at = end;
  }
  return false;
}

bool PassesCsrfRule(const std::string& token) {
  const char* method = std::getenv("REQUEST_METHOD");
  if (method && (strcasecmp(method, "GET") == 0 || strcasecmp(method, "HEAD") == 0)) return true;
  const char* given = std::getenv("HTTP_X_MERO_TOKEN");
  if (given && SameSecret(given, token)) return true;
  return IsOwnOrigin();
}

}  // namespace merocgi
