#include "FcgiChild.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "../CgiLog.h"
#include "FcgiConnection.h"
#include "mero_request_io.h"

namespace merocgi::fcgi {

namespace {

FcgiConnection* current = nullptr;  // the request a handler's exit() must still end

ssize_t ReadBodyThrough(void* connection, char* into, size_t size) {
  return static_cast<FcgiConnection*>(connection)->ReadBody(into, size);
}

int WriteThrough(void* connection, const char* bytes, size_t size) {
  return static_cast<FcgiConnection*>(connection)->WriteStdout(bytes, size);
}

void EndAtExit() {
  if (!current) return;
  std::fflush(stdout);
  current->End(0);
  current = nullptr;
}

// What setenv can hold as it was sent; anything else would reach the
// program changed, so it does not reach it at all.
bool FitsEnvironment(std::string_view name, std::string_view value) {
  return !name.empty() && name.find_first_of(std::string_view("=\0", 2)) == std::string_view::npos &&
         value.find('\0') == std::string_view::npos;
}

}  // namespace

void ServeConnection(int fd, ChildReport* report, int maxConnections, void (*handle)(void*), void* arg) {
  FcgiConnection connection(fd, report, maxConnections);
  const auto start = connection.ReadRequest([](std::string_view name, std::string_view value) {
    if (!FitsEnvironment(name, value)) {
      MEROCGI_LOG("dropped FastCGI parameter: its name or value cannot be an environment variable");
      return;
    }
    setenv(std::string(name).c_str(), std::string(value).c_str(), 1);
  });
  if (start != FcgiConnection::Start::kReady) return;
  static MERO_REQUEST_IO io;
  io = {ReadBodyThrough, WriteThrough, &connection};
  if (!MeroCgiRequestIoInstall(&io)) {
    connection.Refuse("500 Internal Server Error", "The request could not be started.\n");
    return;
  }
  current = &connection;
  std::atexit(EndAtExit);
  try {
    handle(arg);
  } catch (...) {
    // Unwinding further would run the server's loop in this child.
    MEROCGI_LOG("request handler ended with an exception");
    std::abort();
  }
  EndAtExit();
}

}  // namespace merocgi::fcgi
