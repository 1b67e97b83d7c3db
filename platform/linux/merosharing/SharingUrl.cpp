// The base address of links, from the origin a request reached us at.
#include <string>

#include "merosharing.h"

namespace MERO {
namespace sharing {
namespace {

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '-' || c == '_' || c == '.';
}

bool IsName(const std::string& text) {
  if (text.empty() || text.size() > 253) return false;
  for (char c : text)
    if (!IsNameChar(c)) return false;
  return true;
}

// "[...]" holding hex digits, ':' and '.' (an IPv4 tail) only.
bool IsIpv6Literal(const std::string& text) {
  if (text.size() < 4 || text.size() > 47 || text.front() != '[' || text.back() != ']')
    return false;
  for (size_t i = 1; i + 1 < text.size(); ++i) {
    const char c = text[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (!hex && c != ':' && c != '.') return false;
  }
  return true;
}

}  // namespace

bool GetSharingURL(const std::string& host, int port, bool https, const std::string& portal,
                   std::string& url, _tag_SHARING_URL_TYPE& type) {
  url.clear();
  type = SHARING_URL_NONE;
  if (!(IsName(host) || IsIpv6Literal(host)) || port < 0 || port > 65535 ||
      (!portal.empty() && (!IsName(portal) || portal == "." || portal == "..")))
    return false;
  url = (https ? "https://" : "http://") + host;
  if (port != 0 && port != (https ? 443 : 80)) url += ":" + std::to_string(port);
  url += "/";
  if (!portal.empty()) url += portal + "/";
  url += "sharing/";
  if (portal.empty())
    type = https ? SHARING_URL_HTTPS : SHARING_URL_HTTP;
  else
    type = https ? SHARING_URL_PORTAL_HTTPS : SHARING_URL_PORTAL_HTTP;
  return true;
}

}  // namespace sharing
}  // namespace MERO
