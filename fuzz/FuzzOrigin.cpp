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
    std::string hostA, portA, hostB, portB;
    FUZZ_CHECK(cgi.ParseHostAndPort(proto + "://" + hostHeader, hostA, portA));
    FUZZ_CHECK(cgi.ParseHostAndPort(referer, hostB, portB));
    FUZZ_CHECK(hostA == hostB && portA == portB);
    FUZZ_CHECK(hostA.find('@') == std::string::npos);
    FUZZ_CHECK(!portA.empty() && portA.find_first_not_of("0123456789") == std::string::npos);
    const long number = std::strtol(portA.c_str(), nullptr, 10);
    FUZZ_CHECK(number >= 1 && number <= 65535);
  }
  return 0;
}
