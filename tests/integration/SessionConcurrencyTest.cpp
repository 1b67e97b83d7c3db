// Many processes creating, checking and revoking sessions in one store at
// once: no lost update, no busy error reaching a caller, and a sound
// store afterwards.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ApplianceRootEnv.h"
#include "merocgi.h"

namespace {

constexpr int kProcesses = 16;
constexpr int kSeconds = 3;

struct Tally {
  int kept = 0;
  int failures = 0;
  int checks = 0;
};

// One process's work: sessions of its own user, three of every four revoked.
Tally Churn(int worker) {
  Tally tally;
  const std::string user = "user" + std::to_string(worker);
  MEROCGI_STATE state;
  MeroCgiInitEx(&state, 30, 1, "load.current.users", "");
  const time_t end = time(nullptr) + kSeconds;
  for (int round = 0; time(nullptr) < end; ++round) {
    char id[MERO_CGI_SESSION_ID_CHARS + 1];
    if (MeroCgiSessionCreate("load", user.c_str(), "127.0.0.1", 0, nullptr, 0, id, sizeof id) !=
        MERO_SESSION_AUTHORIZED) {
      ++tally.failures;
      continue;
    }
    char seen[64] = {};
    const MEROCGI_AUTH_OPTIONS options = {31, 0};
    ++tally.checks;
    if (MeroCgiIsAuthorizedEx(&state, id, seen, sizeof seen, &options, nullptr) !=
            MERO_SESSION_AUTHORIZED ||
        user != seen)
      ++tally.failures;
    if (round % 4 == 0) {
      ++tally.kept;
    } else if (MeroCgiSessionRevoke(id, nullptr, nullptr) != 1) {
      ++tally.failures;
    }
  }
  MeroCgiFree(&state);
  return tally;
}

class SessionConcurrencyTest : public webapi_test::ApplianceRootTest {};

TEST_F(SessionConcurrencyTest, SixteenProcessesLoseNothing) {
  // The store exists before the race, as it does once anyone has logged in.
  char id[MERO_CGI_SESSION_ID_CHARS + 1];
  ASSERT_EQ(MeroCgiSessionCreate("other", "seed", "::1", 0, nullptr, 0, id, sizeof id),
            MERO_SESSION_AUTHORIZED);

  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  std::vector<pid_t> children;
  for (int worker = 0; worker < kProcesses; ++worker) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(pipeFds[0]);
      const Tally tally = Churn(worker);
      ssize_t ignored = write(pipeFds[1], &tally, sizeof tally);
      (void)ignored;
      _exit(0);
    }
    children.push_back(pid);
  }
  close(pipeFds[1]);
  Tally total;
  Tally one;
  int reports = 0;
  while (read(pipeFds[0], &one, sizeof one) == static_cast<ssize_t>(sizeof one)) {
    total.kept += one.kept;
    total.failures += one.failures;
    total.checks += one.checks;
    ++reports;
  }
  close(pipeFds[0]);
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  ASSERT_EQ(reports, kProcesses);
  EXPECT_EQ(total.failures, 0);
  // Writes are synced one at a time, so the count is modest, above all in
  // the sanitizer build; every process must have gone round a few times.
  EXPECT_GE(total.checks, kProcesses * 3) << "the race hardly ran";

  // Every record still decodes (a list fails on one that does not), and
  // exactly the kept sessions remain.
  struct Count {
    int load = 0;
  } count;
  const int listed = MeroCgiSessionList(
      [](const MEROCGI_SESSION_INFO* info, void* context) {
        if (std::string(info->registry) == "load.current.users") ++static_cast<Count*>(context)->load;
      },
      &count);
  EXPECT_EQ(listed, total.kept + 1);
  EXPECT_EQ(count.load, total.kept);
  std::printf("%d checks, %d sessions kept\n", total.checks, total.kept);
}

}  // namespace
