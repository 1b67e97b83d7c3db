// Choosing the mode: a CGI request must cost no more than a getenv, so the
// server's pieces are only touched once it is clear there is no request.
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../fcgi/RequestVariables.h"
#include "ForkServer.h"
#include "ServerOptions.h"
#include "merocgi_server.h"

extern char** environ;

namespace merocgi::server {
namespace {

constexpr int kActivatedFd = 3;

int ActivatedSocket() {
  const char* pid = std::getenv("LISTEN_PID");
  const char* fds = std::getenv("LISTEN_FDS");
  if (!pid || !fds || std::atol(pid) != getpid() || std::atoi(fds) < 1) return -1;
  for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(name);
  return IsListeningSocket(kActivatedFd) ? kActivatedFd : -1;
}

// The server's own environment is every child's starting point: no
// variable of a request may be there before the request's own are set.
void RemoveRequestVariables() {
  std::vector<std::string> names;
  for (char** entry = environ; entry && *entry; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    if (equals) names.emplace_back(*entry, static_cast<size_t>(equals - *entry));
  }
  for (const std::string& name : names)
    if (fcgi::IsRequestVariable(name)) unsetenv(name.c_str());
}

// Each request's process would otherwise look up, on first call, every
// library function it uses, in every request again: the server resolves
// them all once, by executing itself again with the dynamic linker told so
// (the variable is then removed, so request processes and the programs
// they run do not inherit it).
void BindAllSymbolsNow(char** argv) {
  if (!std::getenv(kBindNowVariable)) {
    const std::string self = ExecutablePath();
    setenv(kBindNowVariable, "1", 1);
    if (!self.empty()) execv(self.c_str(), argv);
  }
  unsetenv(kBindNowVariable);
}

int RunServer(int argc, char** argv, void (*handle)(void*), void* arg) {
  ServerOptions options;
  if (!ParseServerOptions(argc, argv, &options)) {
    PrintUsage(argv[0]);
    return 2;
  }
  if (options.help) {
    PrintUsage(argv[0]);
    return 0;
  }
  BindAllSymbolsNow(argv);
  // Each request holds a descriptor in the server: as many as the hard
  // limit allows, before the bound on children meets the soft one.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  // Under systemd standard error is the journal already.
  openlog(nullptr, LOG_PID | (std::getenv("JOURNAL_STREAM") ? 0 : LOG_PERROR), LOG_DAEMON);
  ForkServer server(options, argv, handle, arg);
  if (const char* handover = std::getenv(kHandoverVariable)) {
    const std::string text = handover;
    unsetenv(kHandoverVariable);
    return server.Resume(text.c_str()) ? server.Run() : 1;
  }
  RemoveRequestVariables();
  int listenFd = ActivatedSocket();
  // Whatever else the starter left open would reach every request.
  if (listenFd == kActivatedFd) close_range(kActivatedFd + 1, ~0U, 0);
  else close_range(kActivatedFd, ~0U, 0);
  if (listenFd < 0 && IsListeningSocket(STDIN_FILENO)) listenFd = STDIN_FILENO;
  if (listenFd < 0 && !options.listen.empty()) listenFd = ListenOn(options.listen);
  if (listenFd < 0) {
    std::fprintf(stderr, "%s: no listening socket: give --listen, or start it with one\n", argv[0]);
    return 1;
  }
  return server.Start(listenFd) ? server.Run() : 1;
}

}  // namespace
}  // namespace merocgi::server

extern "C" int MeroCgiServe(int argc, char** argv, void (*handle)(void* arg), void* arg) {
  using namespace merocgi::server;
  if (!handle) return 2;
  const bool serverStart = !std::getenv("GATEWAY_INTERFACE") &&
                           (argc > 1 || std::getenv(kHandoverVariable) || std::getenv("LISTEN_FDS") ||
                            IsListeningSocket(STDIN_FILENO));
  if (!serverStart) {
    handle(arg);
    return 0;
  }
  return RunServer(argc, argv, handle, arg);
}
