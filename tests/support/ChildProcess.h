// Runs a program as a child process with exactly the given environment and
// standard input, and collects what it wrote: how CGI programs are tested.
#ifndef WEBAPI_TESTS_CHILDPROCESS_H
#define WEBAPI_TESTS_CHILDPROCESS_H

#include <functional>
#include <map>
#include <string>

namespace webapi_test {

struct ChildResult {
  int exitStatus = -1;  // exit code, or -1 when it did not exit normally
  std::string out;
  std::string err;
};

// `env` replaces the environment; `input` is written to the child's stdin,
// which is then closed. Times out (kills the child, exitStatus -1) after
// `timeoutSeconds`.
ChildResult RunChild(const std::string& program, const std::map<std::string, std::string>& env,
                     const std::string& input, int timeoutSeconds = 20);

// Runs `body` in a forked child, so that ids and limits it changes stay
// there, and returns the text it returned; a child that did not finish
// adds " (the child did not finish)".
std::string InChild(const std::function<std::string()>& body);

}  // namespace webapi_test

#endif  // WEBAPI_TESTS_CHILDPROCESS_H
