// Running a helper program: its exit status comes back, what it prints goes
// nowhere, and failures are told apart.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "merocore.h"

namespace {

TEST(ExeclTest, ResultsPerCase) {
  EXPECT_EQ(MLIBCExecl("/bin/sh", 0x33, "sh", "-c", "exit 0", nullptr), 0);
  EXPECT_EQ(MLIBCExecl("/bin/sh", 0x33, "sh", "-c", "exit 3", nullptr), 3);
  EXPECT_EQ(MLIBCExecl("/bin/sh", 0x33, "sh", "-c", "kill -9 $$", nullptr), MERO_EXECL_KILLED);
  EXPECT_EQ(MLIBCExecl("/nonexistent/program", 0, "program", nullptr), MERO_EXECL_NOT_RUN);
  EXPECT_EQ(MLIBCExecl(nullptr, 0, "x", nullptr), MERO_EXECL_NOT_RUN);
  // Standard input is empty, so a program reading it ends at once.
  EXPECT_EQ(MLIBCExecl("/bin/sh", 0, "sh", "-c", "read line; test -z \"$line\"", nullptr), 0);
}

TEST(ExeclTest, ChildOutputNeverReachesOurStandardOutput) {
  std::fflush(stdout);
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  const int saved = dup(STDOUT_FILENO);
  dup2(pipeEnds[1], STDOUT_FILENO);
  const int status =
      MLIBCExecl("/bin/sh", 0, "sh", "-c", "echo leaked; echo leaked >&2; echo done", nullptr);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  close(pipeEnds[1]);
  char buffer[64];
  const ssize_t got = read(pipeEnds[0], buffer, sizeof buffer);
  close(pipeEnds[0]);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(got, 0) << std::string(buffer, got > 0 ? got : 0);
}

}  // namespace
