// Host and Referer as a request brings them: the first input byte picks the
// scheme variables, the rest is "host header \n referer". Properties: a
// "same origin" answer only for the same host and port text, never through
// user information or a port that is no port; the splitter only ever hands
// back pieces of its input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzCheck.h"
#include "webapi/WebCGI.h"

namespace {

bool IsDefaultOrPiece(const std::string& port, const std::string& url) {
  return port == "80" || port == "443" || url.find(port) != std::string::npos;
}

// An origin written out in full, worked out without the library's splitter:
// "host:port" with the scheme's default port added when none is named.
std::string FullAuthority(const std::string& authority, const std::string& scheme) {
  const size_t bracket = authority.rfind(']');
  const size_t colon = authority.rfind(':');
  const bool hasPort = colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  return hasPort ? authority : authority + (scheme == "https" ? ":443" : ":80");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const unsigned flags = data[0];
  std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  rest = rest.substr(0, rest.find('\0'));  // the environment cannot carry NUL
  const size_t newline = rest.find('\n');
  const std::string hostHeader = rest.substr(0, newline);
  const std::string referer = newline == std::string::npos ? "" : rest.substr(newline + 1);

  setenv("HTTPS", flags & 1 ? "on" : "off", 1);
  setenv("HTTP_X_FORWARDED_PROTO", flags & 2 ? "https" : "http", 1);
  if (flags & 4)
    unsetenv("HTTP_HOST");
  else
    setenv("HTTP_HOST", hostHeader.c_str(), 1);
  setenv("HTTP_REFERER", referer.c_str(), 1);

  MERO::WebCGI cgi("zel", false);
  const std::string proto = cgi.GetURLProto();
  FUZZ_CHECK(proto == ((flags & 3) ? "https" : "http"));

  std::string host = "\x01", port = "\x01";
  if (cgi.ParseHostAndPort(referer, host, port)) {
    FUZZ_CHECK(referer.find(host) != std::string::npos);
    FUZZ_CHECK(IsDefaultOrPiece(port, referer));
  }

  if (cgi.IsSameDomainAndPort()) {
    FUZZ_CHECK(!(flags & 4));
    const size_t schemeEnd = referer.find("://");
    FUZZ_CHECK(schemeEnd != std::string::npos);
    const std::string refererScheme = referer.substr(0, schemeEnd);
    FUZZ_CHECK(refererScheme == "http" || refererScheme == "https");
    const std::string refererAuthority =
        referer.substr(schemeEnd + 3, referer.find('/', schemeEnd + 3) - (schemeEnd + 3));
    const std::string full = FullAuthority(hostHeader, proto);
    FUZZ_CHECK(full == FullAuthority(refererAuthority, refererScheme));
    // Only what an origin may hold: name characters or an IPv6 literal, one
    // port from 1 to 65535.
    FUZZ_CHECK(full.find_first_of("@/?#\\ ") == std::string::npos);
    const std::string fullPort = full.substr(full.rfind(':') + 1);
    FUZZ_CHECK(!fullPort.empty() && fullPort.find_first_not_of("0123456789") == std::string::npos);
    const long number = std::strtol(fullPort.c_str(), nullptr, 10);
    FUZZ_CHECK(number >= 1 && number <= 65535);
  }
  return 0;
}
