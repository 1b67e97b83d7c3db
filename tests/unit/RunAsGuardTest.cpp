// Replaces setresuid, setresgid and syslog for this test binary: each call is
// recorded, and the id calls then go on to the C library's own. The guard's
// order of calls is its whole contract (a process that is not root must
// become root before it may take another group, and take the group before
// it gives up root), so the tests compare the recorded calls exactly. Each
// case runs in a forked child, so this process keeps its ids.
#include <dlfcn.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "ChildProcess.h"
#define WEBAPI_RUN_AS_SOURCE "RunAsGuardTest.cpp"
#include "webapi/RunAsGuard.h"

namespace {

std::string calls, logged;

void RecordCall(const char* which, unsigned int real, unsigned int effective, unsigned int saved) {
  char call[64];
  std::snprintf(call, sizeof call, " %s(%d,%d,%d)", which, static_cast<int>(real),
                static_cast<int>(effective), static_cast<int>(saved));
  calls += call;
}

void RecordLog(int priority, const char* format, va_list args) {
  char line[512];
  std::vsnprintf(line, sizeof line, format, args);
  logged += "<" + std::to_string(priority) + ">" + line + "\n";
}

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Visible, so that the library's calls bind to these (the build hides
// symbols by default).
#define TEST_SEAM extern "C" __attribute__((visibility("default")))

TEST_SEAM int setresuid(uid_t real, uid_t effective, uid_t saved) {
  static const auto next = Next<int (*)(uid_t, uid_t, uid_t)>("setresuid");
  RecordCall("uid", real, effective, saved);
  return next(real, effective, saved);
}

TEST_SEAM int setresgid(gid_t real, gid_t effective, gid_t saved) {
  static const auto next = Next<int (*)(gid_t, gid_t, gid_t)>("setresgid");
  RecordCall("gid", real, effective, saved);
  return next(real, effective, saved);
}

// __syslog_chk is what a fortified build calls in place of syslog.
#define RECORD_LOG(priority, format)     \
  va_list args;                          \
  va_start(args, format);                \
  RecordLog(priority, format, args);     \
  va_end(args)
TEST_SEAM void syslog(int priority, const char* format, ...) { RECORD_LOG(priority, format); }
TEST_SEAM void __syslog_chk(int priority, int, const char* format, ...) { RECORD_LOG(priority, format); }

namespace {

using webapi_test::InChild;

std::string EffectiveIds() { return std::to_string(geteuid()) + "/" + std::to_string(getegid()); }

// Starts at effective ids `uid`/`gid` (real and saved stay root), then
// reports what a guard to root does on the way in and on the way out.
std::string GuardToRoot(uid_t uid, gid_t gid, bool forgetSavedUid) {
  if (setresgid(-1, gid, -1) != 0 || setresuid(-1, uid, -1) != 0) return "cannot start";
  calls.clear();
  std::string text;
  {
    MERO::RunAsGuard guard(0, 0, "here.cpp", 7, "IF_RUN_AS");
    text = "in:" + calls + " ok=" + (guard.ok ? "1" : "0") + " ids=" + EffectiveIds();
    if (forgetSavedUid) guard.savedEuid = static_cast<uid_t>(-1);
    calls.clear();
  }
  return text + " | out:" + calls + " ids=" + EffectiveIds() + " log=" + logged;
}

class RunAsGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "switching ids needs root";
  }
};

TEST_F(RunAsGuardTest, SwitchesAndRestoresInTheOrderThatKeepsRootReachable) {
  struct Case {
    uid_t uid;
    gid_t gid;
    bool forgetSavedUid;  // the saved effective uid set to -1 inside the scope
    const char* want;
  };
  const Case cases[] = {
      {1024, 100, false,
       "in: uid(-1,0,-1) gid(-1,0,-1) uid(-1,0,-1) ok=1 ids=0/0"
       " | out: gid(-1,100,-1) uid(-1,1024,-1) ids=1024/100 log="},
      {0, 100, false, "in: gid(-1,0,-1) ok=1 ids=0/0 | out: gid(-1,100,-1) ids=0/100 log="},
      {0, 0, false, "in: ok=1 ids=0/0 | out: ids=0/0 log="},
      {1024, 100, true,
       "in: uid(-1,0,-1) gid(-1,0,-1) uid(-1,0,-1) ok=1 ids=0/0 | out: gid(-1,100,-1) ids=0/100 "
       "log="},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.uid) + "/" + std::to_string(c.gid) +
                 (c.forgetSavedUid ? " saved uid -1" : ""));
    EXPECT_EQ(InChild([&] { return GuardToRoot(c.uid, c.gid, c.forgetSavedUid); }), c.want);
  }
}

TEST_F(RunAsGuardTest, FailedSwitchRunsTheElseBranchAndLogsIt) {
  const std::string got = InChild([] {
    // Without a real or saved root id there is no way back to root.
    if (setgroups(0, nullptr) != 0 || setresgid(100, 100, 100) != 0 ||
        setresuid(1024, 1024, 1024) != 0)
      return std::string("cannot start");
    calls.clear();
    std::string branch;
    // clang-format off
    const int line = __LINE__; IF_RUN_AS(0, 0) { branch = "body"; } else { branch = "else"; }
    // clang-format on
    return std::to_string(line) + " " + branch + " ids=" + EffectiveIds() + " calls:" + calls +
           " log=" + logged;
  });
  const std::string line = got.substr(0, got.find(' '));
  EXPECT_EQ(got, line + " else ids=1024/100 calls: uid(-1,0,-1) log=<" +
                     std::to_string(LOG_AUTH | LOG_ERR) + ">RunAsGuardTest.cpp:" + line +
                     " ERROR: IF_RUN_AS(0, 0)\n");
}

TEST_F(RunAsGuardTest, FailedRestoreIsLoggedAsCriticalAndLeavesTheIds) {
  const std::string got = InChild([] {
    if (setresgid(-1, 100, -1) != 0 || setresuid(-1, 1024, -1) != 0)
      return std::string("cannot start");
    {
      MERO::RunAsGuard guard(0, 0, "here.cpp", 7, "IF_RUN_AS");
      // Inside the scope the process gives up root for good, keeping group
      // 0: group 100 is then out of reach.
      if (!guard.ok || setresuid(1024, 1024, 1024) != 0) return std::string("cannot switch");
      calls.clear();
    }
    return "out:" + calls + " ids=" + EffectiveIds() + " log=" + logged;
  });
  EXPECT_EQ(got, "out: gid(-1,100,-1) ids=1024/0 log=<" + std::to_string(LOG_AUTH | LOG_CRIT) +
                     ">here.cpp:7 ERROR: ~IF_RUN_AS(1024, 100)\n");
}

}  // namespace
