// SaveJsonFile when a save cannot finish: a file-size limit, a full file
// system, and a writer killed by a second process at each of its system
// calls. Each save runs in a child process, which carries the limit, the
// mount or the trace; what it finds wrong comes back as text.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/writer.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"
#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::ReadJsonFile;
using MERO::WebAPIUtil::SaveJsonFile;
using webapi_test::InChild;
using webapi_test::ReadFileText;

constexpr int kSkipped = 77;  // the traced writer could not be traced

Json::Value Document(const char* kind, int items) {
  Json::Value value;
  value["kind"] = kind;
  for (int i = 0; i < items; ++i) value["items"].append("item-" + std::to_string(i));
  return value;
}

bool Skipped(const std::string& text) { return text.rfind("skip:", 0) == 0; }

class JsonFileSaveTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    path_ = (root() / "saved.json").string();
  }
  std::string path_;
};

TEST_F(JsonFileSaveTest, AFileSizeLimitLeavesTheOldDocumentAndAnswersFalse) {
  Json::Value old = Document("old", 3);
  ASSERT_TRUE(SaveJsonFile(old, path_.c_str()));
  const std::string before = ReadFileText(path_);
  const std::string failure = InChild(
      [&]() -> std::string {
        signal(SIGXFSZ, SIG_IGN);  // the write then fails with EFBIG instead
        const rlim_t bytes = before.size() + 64;
        const rlimit limit = {bytes, bytes};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return "skip: setrlimit";
        Json::Value larger = Document("new", 200);
        return SaveJsonFile(larger, path_.c_str()) ? "the save answered true" : "";
      });
  if (Skipped(failure)) GTEST_SKIP() << failure;
  EXPECT_EQ(failure, "");
  EXPECT_EQ(ReadFileText(path_), before);
}

// A tmpfs of 64 KiB in the child's own mount namespace, filled up.
TEST_F(JsonFileSaveTest, AFullFileSystemLeavesTheOldDocumentAndAnswersFalse) {
  const std::filesystem::path mountPoint = root() / "small";
  std::filesystem::create_directory(mountPoint);
  const std::string path = (mountPoint / "saved.json").string();
  const std::string failure = InChild(
      [&]() -> std::string {
        const uid_t uid = getuid();
        const gid_t gid = getgid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return "skip: no user namespace";
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", mountPoint.c_str(), "tmpfs", 0, "size=64k") != 0)
          return "skip: cannot mount a tmpfs";
        Json::Value old = Document("old", 3);
        if (!SaveJsonFile(old, path.c_str())) return "the first save failed";
        const std::string before = ReadFileText(path);
        {
          const std::string block(4096, 'x');
          std::ofstream filler(mountPoint / "filler", std::ios::binary);
          for (int i = 0; i < 64 && filler; ++i) filler.write(block.data(), block.size());
        }
        Json::Value larger = Document("new", 2000);
        std::string found;
        if (SaveJsonFile(larger, path.c_str())) found += "the save to a full disk answered true; ";
        if (ReadFileText(path) != before) found += "the old document changed; ";
        std::filesystem::remove(mountPoint / "filler");
        Json::Value back;
        if (!SaveJsonFile(larger, path.c_str()) || !ReadJsonFile(back, path.c_str()) ||
            back != larger)
          found += "with room again the save did not take; ";
        return found;
      });
  if (Skipped(failure)) GTEST_SKIP() << failure;
  EXPECT_EQ(failure, "");
}

// The writer is traced and killed at its n-th stop (each system call stops
// it on entry and on exit), for every n up to a save that completes: every
// state a killed writer can leave must read as the old or the new document.
TEST_F(JsonFileSaveTest, AWriterKilledAtAnySystemCallLeavesOneWholeDocument) {
  const Json::Value small = Document("small", 2), large = Document("large", 500);
  for (const bool growing : {true, false}) {
    const Json::Value& old = growing ? small : large;
    const Json::Value& next = growing ? large : small;
    for (int killAt = 1;; ++killAt) {
      SCOPED_TRACE(std::string(growing ? "growing" : "shrinking") + ", killed at stop " +
                   std::to_string(killAt));
      Json::Value oldCopy = old;
      ASSERT_TRUE(SaveJsonFile(oldCopy, path_.c_str()));
      const pid_t writer = fork();
      if (writer == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kSkipped);
        raise(SIGSTOP);
        Json::Value nextCopy = next;
        _exit(SaveJsonFile(nextCopy, path_.c_str()) ? 0 : 1);
      }
      int status = 0;
      waitpid(writer, &status, 0);
      if (WIFEXITED(status) && WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "no ptrace";
      ASSERT_TRUE(WIFSTOPPED(status));
      for (int stops = 0; stops < killAt && !WIFEXITED(status); ++stops) {
        ptrace(PTRACE_SYSCALL, writer, nullptr, nullptr);
        waitpid(writer, &status, 0);
      }
      const bool finished = WIFEXITED(status);
      EXPECT_TRUE(!finished || WEXITSTATUS(status) == 0);
      if (!finished) {
        kill(writer, SIGKILL);
        waitpid(writer, &status, 0);
      }
      Json::Value found;
      ASSERT_TRUE(ReadJsonFile(found, path_.c_str()));
      EXPECT_TRUE(found == old || found == next) << found["kind"];
      if (finished) {
        EXPECT_EQ(found, next);
        EXPECT_EQ(ReadFileText(path_), Json::FastWriter().write(next));
        break;
      }
    }
  }
}

}  // namespace
