// The fork server's command line and its own listening socket.
#ifndef MEROCGI_SERVER_SERVEROPTIONS_H
#define MEROCGI_SERVER_SERVEROPTIONS_H

#include <string>

namespace merocgi::server {

constexpr int kDefaultMaxChildren = 16;
constexpr int kMaxMaxChildren = 1024;
constexpr int kDefaultRequestTimeoutSeconds = 300;

struct ServerOptions {
  std::string listen;  // empty: the socket the program was started with
  int maxChildren = kDefaultMaxChildren;
  int requestTimeoutSeconds = kDefaultRequestTimeoutSeconds;
  bool help = false;
};

// --listen ADDRESS, --max-children N, --request-timeout SECONDS (each also
// as --name=value), --help. False, with a message on stderr, on anything
// else or a value out of range.
bool ParseServerOptions(int argc, char** argv, ServerOptions* options);
void PrintUsage(const char* program);

// A listening socket for "unix:PATH" (a stale socket file there is
// replaced; nothing else is) or a loopback "127.0.0.1:PORT" / "[::1]:PORT":
// FastCGI carries no authentication, so no other address is served. -1 with
// a message on stderr when it cannot be made.
int ListenOn(const std::string& address);
// The path of a "unix:" address, else empty.
std::string UnixSocketPath(const std::string& address);

}  // namespace merocgi::server

#endif  // MEROCGI_SERVER_SERVEROPTIONS_H
