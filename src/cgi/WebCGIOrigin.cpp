// Where the browser addressed the request: protocol, host and port, derived
// once per request from the CGI environment; the same-origin test of Host
// against Referer; application portals.
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "../util/LogSource.h"
#include "WebCGIPrivate.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"
#include "webapi/WebCGI.h"

namespace MERO {
namespace {

constexpr int kOriginBufferBytes = 4096;

bool StartsWith(const std::string& text, const char* prefix) {
  return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// A port text a real origin can have: 1 to 65535 in decimal.
bool IsPortNumber(const std::string& port) {
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const long value = std::strtol(port.c_str(), nullptr, 10);
  return value >= 1 && value <= 65535;
}

// A host a real origin can have: a name of letters, digits, '-', '_' and
// '.', or an IPv6 literal in brackets.
bool IsOriginHost(const std::string& host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    return host.find_first_not_of("0123456789abcdefABCDEF:.", 1) == host.size() - 1;
  return !host.empty() &&
         host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
             std::string::npos;
}

// The authority of an absolute URL: after "://", up to the first "/".
std::string AuthorityOf(const std::string& url) {
  const size_t start = url.find("://");
  if (start == std::string::npos) return std::string();
  return url.substr(start + 3, url.find('/', start + 3) - (start + 3));
}

// True when `authority` is exactly the split host, alone or with ":" and the
// split port: nothing the splitter passed over (text after an IPv6 literal,
// a second colon, a path in a Host header) is left.
bool IsWholeOrigin(const std::string& authority, const std::string& host, const std::string& port) {
  return IsOriginHost(host) && IsPortNumber(port) &&
         (authority == host || authority == host + ":" + port);
}

// Reads a header variable whole; false when unset or too long for the
// buffer the comparison works in (a cut value must never be compared).
bool GetWholeEnv(const char* name, char* buf) {
  if (!WebAPIUtil::GetEnv(name, buf, kOriginBufferBytes)) return false;
  const char* full = std::getenv(name);
  if (full && std::strlen(full) >= static_cast<size_t>(kOriginBufferBytes)) {
    syslog(LOG_ERR, "%s:%d %s longer than %d bytes; not compared", detail::kWebCgiSource, __LINE__,
           name, kOriginBufferBytes - 1);
    return false;
  }
  return true;
}

}  // namespace

// The platform's one rule, which also decides the Secure cookie flag and
// Strict-Transport-Security, so that the three never disagree.
void WebCGIPrivate::ParseProtocol() { protocol = MeroRequestIsHttps() ? "https" : "http"; }

bool WebCGIPrivate::ParseHostAndPort(const std::string& url, std::string& hostOut,
                                     std::string& portOut) {
  std::string rest;
  const char* defaultPort;
  if (StartsWith(url, "http://")) {
    defaultPort = "80";
    rest = url.substr(7);
  } else if (StartsWith(url, "https://")) {
    defaultPort = "443";
    rest = url.substr(8);
  } else {
    return false;
  }
  portOut = defaultPort;
  const size_t slash = rest.find('/');
  if (slash != std::string::npos) rest.erase(slash);
  if (!rest.empty() && rest[0] == '[') {
    const size_t close = rest.rfind(']');
    if (close == std::string::npos) return false;
    hostOut = rest.substr(0, close + 1);
    const size_t colon = rest.find(':', close + 1);
    if (colon != std::string::npos) portOut = rest.substr(colon + 1);
    return true;
  }
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos) {
    hostOut = rest;
  } else {
    hostOut = rest.substr(0, colon);
    portOut = rest.substr(colon + 1);
  }
  return true;
}

void WebCGIPrivate::ParseHostAndPort() {
  const char* header = std::getenv("HTTP_HOST");
  if (!header || !*header) return;
  std::string hostText, portText;
  ParseHostAndPort(protocol + "://" + header, hostText,
                   portText);  // a failed split stores what it wrote
  host = hostText;
  // Digits followed by anything give the digits' value; clamp what strtol
  // reads to the int the member holds.
  const long value = std::strtol(portText.c_str(), nullptr, 10);
  port = value > 2147483647L        ? 2147483647
         : value < -2147483647L - 1 ? -2147483647 - 1
                                    : static_cast<int>(value);
}

void WebCGIPrivate::LoadURL() {
  if (urlLoaded) return;
  ParseProtocol();
  ParseHostAndPort();
  urlLoaded = true;
}

std::string WebCGI::GetURLProto() {
  priv->LoadURL();
  return priv->protocol;
}

bool WebCGI::ParseHostAndPort(const std::string& url, std::string& host, std::string& port) {
  return priv->ParseHostAndPort(url, host, port);
}

bool WebCGI::IsSameDomainAndPort() {
  char hostHeader[kOriginBufferBytes];
  char referer[kOriginBufferBytes];
  if (!GetWholeEnv("HTTP_HOST", hostHeader) || !GetWholeEnv("HTTP_REFERER", referer)) return false;
  const std::string proto = GetURLProto();
  std::string url;
  if (hostHeader[0] != '\0' && !proto.empty())
    url = proto + "://" + hostHeader;
  else
    syslog(LOG_ERR, "%s:%d Failed to append Host.", detail::kWebCgiSource, __LINE__);
  std::string hostA, portA, hostB, portB;
  if (!priv->ParseHostAndPort(url, hostA, portA)) return false;
  if (!priv->ParseHostAndPort(referer, hostB, portB)) return false;
  // Text that no real origin has (user information, a port that is no port,
  // text the splitter passed over) is never "the same", even on both sides.
  if (!IsWholeOrigin(hostHeader, hostA, portA) || !IsWholeOrigin(AuthorityOf(referer), hostB, portB))
    return false;
  return hostA == hostB && portA == portB;
}

bool WebCGI::IsAppPortal() { return std::getenv("REWRITE_APP") != nullptr; }

bool WebCGI::IsAppPortalMapping() {
  const char* app = std::getenv("REWRITE_APP");
  const std::string name = app ? app : "";
  if (!IsAppPortal()) return true;
  if (WebAPIUtil::IsEmpty(priv->appPortals)) return true;
  return WebAPIUtil::JsonArrayHas(priv->appPortals, Json::Value(name), true);
}

}  // namespace MERO
