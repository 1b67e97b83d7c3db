#include "FcgiChild.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "../CgiLog.h"
#include "FcgiConnection.h"
#include "RequestVariables.h"
#include "mero_request_io.h"

namespace merocgi::fcgi {

namespace {

FcgiConnection* current = nullptr;  // the request a handler's exit() must still end
pid_t currentOwner = 0;             // in this process, not in one the handler forked

ssize_t ReadBodyThrough(void* connection, char* into, size_t size) {
  return static_cast<FcgiConnection*>(connection)->ReadBody(into, size);
}

int WriteThrough(void* connection, const char* bytes, size_t size) {
  return static_cast<FcgiConnection*>(connection)->WriteStdout(bytes, size);
}

void EndAtExit() {
  if (!current || getpid() != currentOwner) return;
  std::fflush(stdout);
  current->End(0);
  current = nullptr;
}

// A request variable that setenv can hold as it was sent; anything else
// would reach the program changed, or is the operator's to set.
bool FitsEnvironment(std::string_view name, std::string_view value) {
  return IsRequestVariable(name) && name.find('=') == std::string_view::npos &&
         value.find('\0') == std::string_view::npos;
}

}  // namespace

void ServeConnection(int fd, ChildReport* report, int maxConnections, void (*handle)(void*), void* arg) {
  FcgiConnection connection(fd, report, maxConnections);
  const auto start = connection.ReadRequest([](std::string_view name, std::string_view value) {
    // Web servers send more than a request's variables (their own
    // settings, for one): dropped without a log line on every request.
    if (!FitsEnvironment(name, value)) return;
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
  currentOwner = getpid();
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
