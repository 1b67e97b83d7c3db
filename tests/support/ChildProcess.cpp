#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace webapi_test {

ChildResult RunChild(const std::string& program, const std::map<std::string, std::string>& env,
                     const std::string& input, int timeoutSeconds) {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC)) std::abort();
  std::vector<std::string> envText;
  for (const auto& [name, value] : env) envText.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& text : envText) envp.push_back(text.data());
  envp.push_back(nullptr);
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};

  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    execve(program.c_str(), argv, envp.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  signal(SIGPIPE, SIG_IGN);  // a child that stops reading early must not kill us

  ChildResult result;
  size_t written = 0;
  int inFd = in[1];
  if (input.empty()) {
    close(inFd);
    inFd = -1;
  } else {
    fcntl(inFd, F_SETFL, O_NONBLOCK);
  }
  const time_t deadline = time(nullptr) + timeoutSeconds;
  bool outOpen = true, errOpen = true;
  while ((outOpen || errOpen) && time(nullptr) < deadline) {
    pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inFd, POLLOUT, 0}};
    if (poll(fds, inFd >= 0 ? 3 : 2, 200) < 0 && errno != EINTR) break;
    char chunk[65536];
    for (int i = 0; i < 2; ++i) {
      bool& open = i == 0 ? outOpen : errOpen;
      if (!open || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      const ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
      if (n <= 0)
        open = false;
      else
        (i == 0 ? result.out : result.err).append(chunk, static_cast<size_t>(n));
    }
    if (inFd >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = write(inFd, input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if (n < 0 || written == input.size()) {
        close(inFd);
        inFd = -1;
      }
    }
  }
  if (inFd >= 0) close(inFd);
  close(out[0]);
  close(err[0]);
  if (outOpen || errOpen) kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitStatus = (!outOpen && !errOpen && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string InChild(const std::function<std::string()>& body) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return "no pipe";
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipeFds[0]);
    const std::string text = body();
    _exit(write(pipeFds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(pipeFds[1]);
  std::string text;
  char chunk[4096];
  for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
  close(pipeFds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    text += " (the child did not finish)";
  return text;
}

}  // namespace webapi_test
