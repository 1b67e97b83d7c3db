#include "ForkServer.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "../fcgi/FcgiChild.h"
#include "../fcgi/FcgiConnection.h"

namespace merocgi::server {

namespace {

#define SERVER_LOG(priority, fmt, ...) syslog(priority, "fork server: " fmt, ##__VA_ARGS__)

int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

size_t PageBytes() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

void SetCloseOnExec(int fd, bool on) {
  const int flags = fcntl(fd, F_GETFD);
  if (flags >= 0) fcntl(fd, F_SETFD, on ? flags | FD_CLOEXEC : flags & ~FD_CLOEXEC);
}


// One decimal number in [low, high] at *at, which then points past it.
bool ReadNumber(const char** at, long long low, long long high, long long* value) {
  if (!std::isdigit(static_cast<unsigned char>(**at))) return false;
  char* end = nullptr;
  errno = 0;
  *value = std::strtoll(*at, &end, 10);
  *at = end;
  return errno == 0 && *value >= low && *value <= high;
}

bool Expect(const char** at, char separator) { return **at == separator && (++*at, true); }

bool IsSocket(int fd) {
  struct stat file {};
  return fstat(fd, &file) == 0 && S_ISSOCK(file.st_mode);
}

bool IsMemoryFile(int fd) {
  struct stat file {};
  return fstat(fd, &file) == 0 && S_ISREG(file.st_mode);
}

// A child of this process that has not been reaped (it may have ended).
bool IsOwnChild(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

}  // namespace

bool IsListeningSocket(int fd) {
  int listening = 0;
  socklen_t length = sizeof listening;
  return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening != 0;
}

std::string ExecutablePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) return std::string();
  std::string text(path, static_cast<size_t>(length));
  // Replaced on disk since it started: the new file has the old name.
  const std::string deleted = " (deleted)";
  if (text.size() > deleted.size() && text.compare(text.size() - deleted.size(), deleted.size(), deleted) == 0)
    text.resize(text.size() - deleted.size());
  return text;
}

ForkServer::ForkServer(const ServerOptions& options, char** argv, void (*handle)(void*), void* arg)
    : options_(options), argv_(argv), handle_(handle), arg_(arg) {}

ForkServer::~ForkServer() {
  for (const Child& child : children_) close(child.connection);
  if (reports_) munmap(reports_, reportsBytes_);
  for (int fd : {listenFd_, reportsFd_, signalFd_})
    if (fd >= 0) close(fd);
}

fcgi::ChildReport* ForkServer::Report(int slot) const {
  return reinterpret_cast<fcgi::ChildReport*>(reports_ + static_cast<size_t>(slot) * PageBytes());
}

bool ForkServer::Prepare() {
  executable_ = ExecutablePath();
  slots_ = std::max(slots_, options_.maxChildren);
  reportsBytes_ = static_cast<size_t>(slots_) * PageBytes();
  if (reportsFd_ < 0) reportsFd_ = memfd_create("fcgi-child-reports", MFD_CLOEXEC);
  // A restart with more children than before grows the memory; the slots
  // of the children handed over keep their place.
  struct stat memory {};
  if (reportsFd_ < 0 || fstat(reportsFd_, &memory) != 0 ||
      (static_cast<size_t>(memory.st_size) < reportsBytes_ &&
       ftruncate(reportsFd_, static_cast<off_t>(reportsBytes_)) != 0)) {
    SERVER_LOG(LOG_ERR, "cannot make the children's report memory: %m");
    return false;
  }
  void* mapped = mmap(nullptr, reportsBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, reportsFd_, 0);
  if (mapped == MAP_FAILED) {
    SERVER_LOG(LOG_ERR, "cannot map the children's report memory: %m");
    return false;
  }
  reports_ = static_cast<char*>(mapped);
  sigemptyset(&handled_);
  for (int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled_, signal);
  // An exec passes the blocked mask on (and the signals pending in it), so
  // a restarted image misses no child; children get the mask unblocked.
  sigprocmask(SIG_BLOCK, &handled_, &originalMask_);
  for (int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigdelset(&originalMask_, signal);
  signalFd_ = signalfd(-1, &handled_, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd_ < 0) {
    SERVER_LOG(LOG_ERR, "cannot receive signals: %m");
    return false;
  }
  // A web server that went away is a failed write, not an end, for the
  // server and for each request's process alike.
  signal(SIGPIPE, SIG_IGN);
  const int flags = fcntl(listenFd_, F_GETFL);
  if (flags < 0 || fcntl(listenFd_, F_SETFL, flags | O_NONBLOCK) != 0) {
    SERVER_LOG(LOG_ERR, "cannot use the listening socket: %m");
    return false;
  }
  SetCloseOnExec(listenFd_, true);
  return true;
}

bool ForkServer::Start(int listenFd) {
  listenFd_ = listenFd;
  if (!Prepare()) return false;
  SERVER_LOG(LOG_NOTICE, "serving FastCGI, at most %d requests at once, %d s each", options_.maxChildren,
             options_.requestTimeoutSeconds);
  return true;
}

// "LISTEN,REPORTS,SLOTS" then ";PID,CONNECTION,DEADLINE,SLOT,TIMEDOUT" per child.
std::string ForkServer::Handover() const {
  std::string text = std::to_string(listenFd_) + "," + std::to_string(reportsFd_) + "," +
                     std::to_string(slots_);
  for (const Child& child : children_)
    text += ";" + std::to_string(child.pid) + "," + std::to_string(child.connection) + "," +
            std::to_string(child.deadlineMs) + "," + std::to_string(child.slot) + "," +
            (child.timedOut ? "1" : "0");
  return text;
}

bool ForkServer::Resume(const char* handover) {
  // Whatever the variable says is checked against what this process holds:
  // only its own children are taken over, only sockets are served.
  const char* at = handover;
  long long listenFd = 0, reportsFd = 0, slots = 0;
  bool valid = ReadNumber(&at, 0, INT_MAX, &listenFd) && Expect(&at, ',') &&
               ReadNumber(&at, 0, INT_MAX, &reportsFd) && Expect(&at, ',') &&
               ReadNumber(&at, 1, kMaxMaxChildren, &slots) &&
               IsListeningSocket(static_cast<int>(listenFd)) && IsMemoryFile(static_cast<int>(reportsFd));
  std::vector<bool> slotTaken(valid ? static_cast<size_t>(slots) : 0);
  while (valid && *at == ';') {
    ++at;
    long long pid = 0, connection = 0, deadline = 0, slot = 0, timedOut = 0;
    valid = ReadNumber(&at, 2, INT_MAX, &pid) && Expect(&at, ',') &&
            ReadNumber(&at, 0, INT_MAX, &connection) && Expect(&at, ',') &&
            ReadNumber(&at, 0, LLONG_MAX, &deadline) && Expect(&at, ',') &&
            ReadNumber(&at, 0, slots - 1, &slot) && Expect(&at, ',') && ReadNumber(&at, 0, 1, &timedOut) &&
            !slotTaken[static_cast<size_t>(slot)] && IsOwnChild(static_cast<pid_t>(pid)) &&
            IsSocket(static_cast<int>(connection)) && connection != listenFd && connection != reportsFd &&
            std::none_of(children_.begin(), children_.end(),
                         [&](const Child& other) { return other.connection == connection; });
    if (!valid) break;
    slotTaken[static_cast<size_t>(slot)] = true;
    children_.push_back({static_cast<pid_t>(pid), static_cast<int>(connection), deadline, static_cast<int>(slot),
                         timedOut != 0});
  }
  if (!valid || *at != '\0') {
    SERVER_LOG(LOG_ERR, "cannot take over: %s is not this server's", kHandoverVariable);
    children_.clear();
    return false;
  }
  listenFd_ = static_cast<int>(listenFd);
  reportsFd_ = static_cast<int>(reportsFd);
  slots_ = std::max(static_cast<int>(slots), options_.maxChildren);
  for (const Child& child : children_) SetCloseOnExec(child.connection, true);
  SetCloseOnExec(reportsFd_, true);
  if (!Prepare()) return false;
  SERVER_LOG(LOG_NOTICE, "restarted; requests under way: %zu", children_.size());
  return true;
}

void ForkServer::AcceptAll() {
  while (children_.size() < static_cast<size_t>(options_.maxChildren)) {
    const int connection = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection >= 0) {
      StartChild(connection);
      continue;
    }
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      SERVER_LOG(LOG_ERR, "cannot accept a connection: %m");
      usleep(100 * 1000);  // the connection waits; spinning would not help it
    }
    return;  // EAGAIN: none waiting; ECONNABORTED and the like: gone already
  }
}

void ForkServer::StartChild(int connection) {
  int slot = 0;
  while (std::any_of(children_.begin(), children_.end(), [&](const Child& c) { return c.slot == slot; })) ++slot;
  fcgi::ChildReport* report = Report(slot);
  report->requestId.store(0);
  report->output.store(fcgi::kNothingWritten);
  const pid_t pid = fork();
  if (pid == 0) BecomeChild(connection, slot);
  if (pid < 0) {
    SERVER_LOG(LOG_ERR, "cannot start a request's process: %m; its connection is closed");
    close(connection);
    return;
  }
  children_.push_back({pid, connection, NowMs() + options_.requestTimeoutSeconds * int64_t{1000}, slot, false});
}

void ForkServer::BecomeChild(int connection, int slot) {
  // Nothing of the server or of another request stays reachable: no other
  // connection, no other child's report, not the listening socket.
  for (const Child& other : children_) close(other.connection);
  void* own = mmap(nullptr, sizeof(fcgi::ChildReport), PROT_READ | PROT_WRITE, MAP_SHARED, reportsFd_,
                   static_cast<off_t>(static_cast<size_t>(slot) * PageBytes()));
  munmap(reports_, reportsBytes_);
  for (int fd : {listenFd_, reportsFd_, signalFd_}) close(fd);
  // Standard input stays a descriptor nothing reads, not the next file the
  // handler opens.
  if (listenFd_ == STDIN_FILENO) open("/dev/null", O_RDONLY);
  sigprocmask(SIG_SETMASK, &originalMask_, nullptr);
  closelog();
  auto* report = own == MAP_FAILED ? nullptr : static_cast<fcgi::ChildReport*>(own);
  fcgi::ServeConnection(connection, report, options_.maxChildren, handle_, arg_);
  std::fflush(nullptr);
  _exit(0);
}

void ForkServer::Conclude(const Child& child, int status) {
  const fcgi::ChildReport* report = Report(child.slot);
  const uint32_t output = report->output.load(std::memory_order_acquire);
  const auto requestId = static_cast<uint16_t>(report->requestId.load(std::memory_order_acquire));
  if (child.timedOut)
    SERVER_LOG(LOG_ERR, "request process %d stopped after %d s", child.pid, options_.requestTimeoutSeconds);
  else if (WIFSIGNALED(status))
    SERVER_LOG(LOG_ERR, "request process %d ended by signal %d (%s)", child.pid, WTERMSIG(status),
               strsignal(WTERMSIG(status)));
  else if (output != fcgi::kEnded && output != fcgi::kPeerGone)
    SERVER_LOG(LOG_ERR, "request process %d exited with status %d before finishing its answer", child.pid,
               WEXITSTATUS(status));
  // Done, gone, or cut inside a record: nothing can be added.
  if (output == fcgi::kEnded || output == fcgi::kPeerGone || output == fcgi::kWriting) return;
  if (child.timedOut)
    fcgi::FcgiConnection::Conclude(child.connection, requestId, output == fcgi::kWritten,
                                   "504 Gateway Timeout", "The request took too long and was stopped.\n");
  else
    fcgi::FcgiConnection::Conclude(child.connection, requestId, output == fcgi::kWritten,
                                   "500 Internal Server Error", "The request failed.\n");
}

void ForkServer::Reap() {
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    const auto found =
        std::find_if(children_.begin(), children_.end(), [&](const Child& child) { return child.pid == pid; });
    if (found == children_.end()) continue;
    Conclude(*found, status);
    close(found->connection);
    children_.erase(found);
  }
}

void ForkServer::StopOverdue(int64_t now) {
  for (Child& child : children_)
    if (!child.timedOut && now >= child.deadlineMs) {
      kill(child.pid, SIGKILL);
      child.timedOut = true;
    }
}

int ForkServer::PollTimeoutMs(int64_t now) const {
  int64_t wait = -1;
  for (const Child& child : children_)
    if (!child.timedOut) wait = wait < 0 ? child.deadlineMs - now : std::min(wait, child.deadlineMs - now);
  return wait < 0 ? -1 : static_cast<int>(std::clamp<int64_t>(wait, 0, INT_MAX));
}

void ForkServer::HandleSignals() {
  signalfd_siginfo info{};
  while (read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo == SIGHUP) restartRequested_ = true;
    if (info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT) ++stopRequests_;
  }
  if (stopRequests_ == 1 && listenFd_ >= 0) {
    SERVER_LOG(LOG_NOTICE, "stopping once the requests under way end: %zu", children_.size());
    close(listenFd_);
    listenFd_ = -1;
    const std::string path = UnixSocketPath(options_.listen);
    if (!path.empty()) unlink(path.c_str());
  }
  if (stopRequests_ > 1)
    for (const Child& child : children_) kill(child.pid, SIGKILL);
}

void ForkServer::Reexecute() {
  restartRequested_ = false;
  if (executable_.empty() || listenFd_ < 0) return;
  SERVER_LOG(LOG_NOTICE, "restarting; requests under way: %zu", children_.size());
  SetCloseOnExec(listenFd_, false);
  SetCloseOnExec(reportsFd_, false);
  for (const Child& child : children_) SetCloseOnExec(child.connection, false);
  setenv(kHandoverVariable, Handover().c_str(), 1);
  setenv(kBindNowVariable, "1", 1);
  execv(executable_.c_str(), argv_);
  SERVER_LOG(LOG_ERR, "cannot restart (%s): %m; serving on", executable_.c_str());
  unsetenv(kHandoverVariable);
  unsetenv(kBindNowVariable);
  SetCloseOnExec(listenFd_, true);
  SetCloseOnExec(reportsFd_, true);
  for (const Child& child : children_) SetCloseOnExec(child.connection, true);
}

int ForkServer::Run() {
  Reap();  // children that ended while the previous image was executing this one
  for (;;) {
    if (restartRequested_) Reexecute();
    if (listenFd_ < 0 && children_.empty()) {
      SERVER_LOG(LOG_NOTICE, "stopped");
      return 0;
    }
    const bool accepting = listenFd_ >= 0 && children_.size() < static_cast<size_t>(options_.maxChildren);
    pollfd watched[2] = {{signalFd_, POLLIN, 0}, {listenFd_, POLLIN, 0}};
    const int ready = poll(watched, accepting ? 2 : 1, PollTimeoutMs(NowMs()));
    if (ready < 0 && errno != EINTR) {
      SERVER_LOG(LOG_ERR, "cannot wait for connections: %m");
      return 1;
    }
    if (watched[0].revents & POLLIN) {
      HandleSignals();
      Reap();
    }
    StopOverdue(NowMs());
    if (accepting && listenFd_ >= 0 && (watched[1].revents & POLLIN)) AcceptAll();
  }
}

}  // namespace merocgi::server
