// The fork server: accepts FastCGI connections and forks one child per
// request, at most a bound at once. It reads nothing of a request: the
// child reads it, runs the handler and answers. The server only keeps each
// connection open to answer for a child that crashed (500) or that it
// stopped past the time limit (504).
//
// SIGHUP re-executes the program in place, handing the listening socket
// and the children still running to the new image (through descriptors
// kept open across exec and the environment variable
// MERO_FCGI_HANDOVER), so no connection is dropped. SIGTERM or SIGINT stop
// accepting and end the server once its children have; a second one kills
// them.
#ifndef MEROCGI_SERVER_FORKSERVER_H
#define MEROCGI_SERVER_FORKSERVER_H

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "../fcgi/ChildReport.h"
#include "ServerOptions.h"

namespace merocgi::server {

constexpr const char* kHandoverVariable = "MERO_FCGI_HANDOVER";
// Set for every exec of the server, so that the dynamic linker binds all
// symbols once there rather than in each request's process.
constexpr const char* kBindNowVariable = "LD_BIND_NOW";

bool IsListeningSocket(int fd);

// The program's file, by the name it was started from (so that an exec of
// it keeps the process's name; a file replaced since then is the new one).
std::string ExecutablePath();

class ForkServer {
 public:
  ForkServer(const ServerOptions& options, char** argv, void (*handle)(void*), void* arg);
  ~ForkServer();
  ForkServer(const ForkServer&) = delete;
  ForkServer& operator=(const ForkServer&) = delete;

  // Serves `listenFd` (owned from here on); false with a log line when the
  // server's own resources could not be made.
  bool Start(int listenFd);
  // Takes over from the image that re-executed this one.
  bool Resume(const char* handover);
  // Serves until stopped; the process's exit status.
  int Run();

 private:
  struct Child {
    pid_t pid;
    int connection;
    int64_t deadlineMs;  // CLOCK_MONOTONIC, which an exec does not reset
    int slot;
    bool timedOut;
  };

  bool Prepare();
  fcgi::ChildReport* Report(int slot) const;
  void AcceptAll();
  void StartChild(int connection);
  [[noreturn]] void BecomeChild(int connection, int slot);
  void Reap();
  void Conclude(const Child& child, int status);
  void StopOverdue(int64_t now);
  int PollTimeoutMs(int64_t now) const;
  void HandleSignals();
  void Reexecute();
  std::string Handover() const;

  ServerOptions options_;
  char** argv_;
  void (*handle_)(void*);
  void* arg_;
  int listenFd_ = -1;
  int reportsFd_ = -1;  // a memfd of one page per slot
  char* reports_ = nullptr;
  size_t reportsBytes_ = 0;
  int slots_ = 0;  // report pages: the most children now or before a restart
  int signalFd_ = -1;
  sigset_t handled_{};
  sigset_t originalMask_{};
  std::string executable_;
  std::vector<Child> children_;
  int stopRequests_ = 0;
  bool restartRequested_ = false;
};

}  // namespace merocgi::server

#endif  // MEROCGI_SERVER_FORKSERVER_H
