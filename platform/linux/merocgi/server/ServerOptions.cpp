#include "ServerOptions.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mero_owners.h"

namespace merocgi::server {

namespace {

bool ParseCount(const char* text, int low, int high, int* out) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return false;
  *out = static_cast<int>(value);
  return true;
}

int Fail(const char* what, const std::string& address) {
  std::fprintf(stderr, "cannot listen on %s: %s: %s\n", address.c_str(), what, std::strerror(errno));
  return -1;
}

int ListenUnix(const std::string& address, const std::string& path) {
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof local.sun_path) {
    errno = ENAMETOOLONG;
    return Fail("socket path", address);
  }
  std::memcpy(local.sun_path, path.c_str(), path.size() + 1);
  struct stat existing {};
  if (lstat(path.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) unlink(path.c_str());
  mero::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.Get() < 0) return Fail("socket", address);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return Fail("bind", address);
  if (listen(fd.Get(), SOMAXCONN) != 0) return Fail("listen", address);
  return fd.Release();
}

int ListenLoopback(const std::string& address) {
  const size_t colon = address.rfind(':');
  int port = 0;
  if (colon == std::string::npos || !ParseCount(address.c_str() + colon + 1, 1, 65535, &port)) {
    errno = EINVAL;
    return Fail("not unix:PATH or HOST:PORT", address);
  }
  std::string host = address.substr(0, colon);
  sockaddr_storage storage{};
  socklen_t length = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']' &&
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    length = sizeof *v6;
    if (!IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr)) length = 0;
  } else if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    length = sizeof *v4;
    if ((ntohl(v4->sin_addr.s_addr) >> 24) != 127) length = 0;
  } else {
    errno = EINVAL;
    return Fail("not an IP address", address);
  }
  if (length == 0) {
    errno = EADDRNOTAVAIL;
    return Fail("only loopback addresses are served", address);
  }
  mero::UniqueFd fd(socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (fd.Get() < 0) return Fail("socket", address);
  setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&storage), length) != 0) return Fail("bind", address);
  if (listen(fd.Get(), SOMAXCONN) != 0) return Fail("listen", address);
  return fd.Release();
}

}  // namespace

bool ParseServerOptions(int argc, char** argv, ServerOptions* options) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    std::string value;
    const size_t equals = name.find('=');
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
    } else if (name != "--help" && i + 1 < argc) {
      value = argv[++i];
    }
    bool valid = false;
    if (name == "--help") {
      valid = options->help = true;
    } else if (name == "--listen") {
      options->listen = value;
      valid = !value.empty();
    } else if (name == "--max-children") {
      valid = ParseCount(value.c_str(), 1, kMaxMaxChildren, &options->maxChildren);
    } else if (name == "--request-timeout") {
      valid = ParseCount(value.c_str(), 1, 24 * 3600, &options->requestTimeoutSeconds);
    }
    if (!valid) {
      std::fprintf(stderr, "%s: bad option or value: %s\n", argv[0], argv[i]);
      return false;
    }
  }
  return true;
}

void PrintUsage(const char* program) {
  std::fprintf(stderr,
               "usage: %s [--listen unix:PATH|127.0.0.1:PORT|[::1]:PORT] [--max-children N]\n"
               "          [--request-timeout SECONDS]\n"
               "Run by a web server as a CGI program, it answers that one request. Started\n"
               "with a listening socket on descriptor 0, a socket from socket activation or\n"
               "--listen, it serves FastCGI: one child process per request, at most N at once\n"
               "(default %d; more connections wait), each stopped after SECONDS (default %d).\n"
               "SIGHUP restarts the server in place, SIGTERM stops it once its requests end.\n",
               program, kDefaultMaxChildren, kDefaultRequestTimeoutSeconds);
}

std::string UnixSocketPath(const std::string& address) {
  return address.rfind("unix:", 0) == 0 ? address.substr(5) : std::string();
}

int ListenOn(const std::string& address) {
  if (address.rfind("unix:", 0) == 0) return ListenUnix(address, UnixSocketPath(address));
  return ListenLoopback(address);
}

}  // namespace merocgi::server
