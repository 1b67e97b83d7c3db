// Running a helper program synchronously, with a time limit, its standard
// streams on /dev/null.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "merocore.h"
#include "mero_owners.h"

extern char** environ;

namespace {

// Owns posix_spawn's file actions.
class SpawnActions {
 public:
  SpawnActions() { ok_ = posix_spawn_file_actions_init(&actions_) == 0; }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  ~SpawnActions() {
    if (ok_) posix_spawn_file_actions_destroy(&actions_);
  }
  bool Ok() const { return ok_; }
  posix_spawn_file_actions_t* Get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
  bool ok_;
};

int64_t NowMillis() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int StatusOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return MERO_EXECL_KILLED;
}

// Waits for `child` at most until `deadline`: a pidfd where the kernel has
// one (woken when the child exits), short naps otherwise.
int WaitUntil(pid_t child, int64_t deadline) {
  const mero::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  int status = 0;
  for (int napMicros = 200;;) {
    const pid_t waited = ::waitpid(child, &status, WNOHANG);
    if (waited == child) return StatusOf(status);
    if (waited < 0 && errno != EINTR) return MERO_EXECL_WAIT_FAILED;
    const int64_t left = deadline - NowMillis();
    if (left <= 0) break;
    if (pidfd.Get() >= 0) {
      pollfd ready{pidfd.Get(), POLLIN, 0};
      ::poll(&ready, 1, static_cast<int>(left));
    } else {
      ::usleep(static_cast<useconds_t>(napMicros));
      napMicros = napMicros < 20000 ? napMicros * 2 : napMicros;
    }
  }
  ::kill(child, SIGKILL);
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return MERO_EXECL_TIMED_OUT;
}

}  // namespace

extern "C" int MLIBCExecl(const char* path, int /*options*/, const char* arg0, ...) {
  if (!path || !arg0) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return MERO_EXECL_NOT_RUN;
  }
  char* argv[MERO_EXECL_MAX_ARGS + 1];
  int argc = 0;
  argv[argc++] = const_cast<char*>(arg0);
  va_list rest;
  va_start(rest, arg0);
  for (const char* arg = va_arg(rest, const char*); arg; arg = va_arg(rest, const char*)) {
    if (argc == MERO_EXECL_MAX_ARGS) {
      va_end(rest);
      errno = E2BIG;
      MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
      return MERO_EXECL_NOT_RUN;
    }
    argv[argc++] = const_cast<char*>(arg);
  }
  va_end(rest);
  argv[argc] = nullptr;

  SpawnActions actions;
  if (!actions.Ok()) return MERO_EXECL_NOT_RUN;
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (posix_spawn_file_actions_addopen(actions.Get(), fd, "/dev/null",
                                         fd == STDIN_FILENO ? O_RDONLY : O_WRONLY, 0) != 0)
      return MERO_EXECL_NOT_RUN;
  }
  // The program starts with SIGPIPE at its default, whatever the caller
  // (a fork server ignores it) chose for itself.
  posix_spawnattr_t attributes;
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  if (posix_spawnattr_init(&attributes) != 0) return MERO_EXECL_NOT_RUN;
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int64_t deadline = NowMillis() + int64_t(MERO_EXECL_TIMEOUT_SECONDS) * 1000;
  pid_t child = 0;
  const int spawned = posix_spawn(&child, path, actions.Get(), &attributes, argv, environ);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    errno = spawned;
    MERO_ERR_SET(MERO_ERR_IO);
    return MERO_EXECL_NOT_RUN;
  }
  return WaitUntil(child, deadline);
}
