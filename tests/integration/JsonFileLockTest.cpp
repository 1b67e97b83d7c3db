// The JSON file store between processes: a second process holding the lock
// makes readers and writers wait or give up, and no interleaving of a writer
// and readers shows a reader a torn file.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>

#include "ApplianceRootEnv.h"
#include "webapi/WebAPIUtil.h"

namespace {

using MERO::WebAPIUtil::ReadJsonFile;
using MERO::WebAPIUtil::SaveJsonFile;
using Clock = std::chrono::steady_clock;

// A child process that holds a flock on `path` for `holdMillis` and then
// exits; made once the lock is held.
struct LockHolder {
  LockHolder(const std::string& path, int operation, int holdMillis) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    if ((pid = fork()) == 0) {
      const int fd = open(path.c_str(), O_RDWR);
      if (fd < 0 || flock(fd, operation) != 0 || write(ready[1], "x", 1) != 1) _exit(1);
      usleep(static_cast<useconds_t>(holdMillis) * 1000);
      _exit(0);
    }
    close(ready[1]);
    char byte;
    locked = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~LockHolder() { waitpid(pid, nullptr, 0); }
  pid_t pid;
  bool locked = false;
};

class JsonFileLockTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    path_ = (root() / "shared.json").string();
    webapi_test::WriteRootFile("shared.json", "{\"v\":1}\n");
  }
  std::string path_;
};

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The 16.5-second holders outlast the 15-second limits; the two tests run
// side by side under ctest -j.
TEST_F(JsonFileLockTest, AReaderWaitsForAWriterUpToFifteenSeconds) {
  Json::Value value;
  {
    LockHolder writer(path_, LOCK_EX, 600);
    ASSERT_TRUE(writer.locked);
    const auto start = Clock::now();
    EXPECT_TRUE(ReadJsonFile(value, path_.c_str()));
    EXPECT_GE(SecondsSince(start), 0.4);  // it did wait for the holder
    EXPECT_EQ(value["v"].asInt(), 1);
  }
  LockHolder writer(path_, LOCK_EX, 16500);
  ASSERT_TRUE(writer.locked);
  value = "untouched";
  const auto start = Clock::now();
  EXPECT_FALSE(ReadJsonFile(value, path_.c_str()));
  EXPECT_NEAR(SecondsSince(start), 15.0, 1.0);
  EXPECT_EQ(value, Json::Value("untouched"));
}

TEST_F(JsonFileLockTest, ReadersShareButAWriterWaitsForThemUpToFifteenSeconds) {
  Json::Value next;
  {
    LockHolder reader(path_, LOCK_SH, 600);
    ASSERT_TRUE(reader.locked);
    Json::Value value;
    const auto readStart = Clock::now();
    EXPECT_TRUE(ReadJsonFile(value, path_.c_str()));
    EXPECT_LT(SecondsSince(readStart), 0.4);  // shared with the other reader
    next["v"] = 2;
    const auto writeStart = Clock::now();
    EXPECT_TRUE(SaveJsonFile(next, path_.c_str()));
    EXPECT_GE(SecondsSince(writeStart), 0.3);
    EXPECT_EQ(webapi_test::ReadFileText(path_), "{\"v\":2}\n");
  }
  LockHolder reader(path_, LOCK_SH, 16500);
  ASSERT_TRUE(reader.locked);
  next["v"] = 3;
  const auto start = Clock::now();
  EXPECT_FALSE(SaveJsonFile(next, path_.c_str()));
  EXPECT_NEAR(SecondsSince(start), 15.0, 1.0);
  EXPECT_EQ(webapi_test::ReadFileText(path_), "{\"v\":2}\n");
}

TEST_F(JsonFileLockTest, ReadersNeverSeeATornFile) {
  // Two documents of very different sizes: a torn read would parse as
  // neither (or not at all).
  Json::Value small, large;
  small["kind"] = "small";
  large["kind"] = "large";
  for (int i = 0; i < 5000; ++i) large["items"].append("item-" + std::to_string(i));
  ASSERT_TRUE(SaveJsonFile(small, path_.c_str()));

  // The writer rewrites the file until the reader closes the stop pipe,
  // pausing between saves so that polling readers get their turns, and
  // reports each save on the progress pipe. The reader goes on until it has
  // read while at least kSaves saves happened.
  int stop[2], progress[2];
  ASSERT_EQ(pipe(stop), 0);
  ASSERT_EQ(pipe(progress), 0);
  const pid_t writer = fork();
  if (writer == 0) {
    close(stop[1]);
    close(progress[0]);
    fcntl(stop[0], F_SETFL, O_NONBLOCK);
    char byte = 's';
    for (int saves = 0; read(stop[0], &byte, 1) < 0 && errno == EAGAIN; ++saves) {
      if (!SaveJsonFile(saves % 2 ? small : large, path_.c_str())) _exit(1);
      if (write(progress[1], &byte, 1) != 1) _exit(1);
      usleep(5000);
    }
    _exit(0);
  }
  close(stop[0]);
  close(progress[1]);
  fcntl(progress[0], F_SETFL, O_NONBLOCK);
  constexpr int kReads = 60, kSaves = 20;
  int reads = 0, saves = 0, bad = 0;
  while (reads < kReads || saves < kSaves) {
    Json::Value value;
    if (!ReadJsonFile(value, path_.c_str()) || !(value == small || value == large)) ++bad;
    ++reads;
    char seen[64];
    const ssize_t n = read(progress[0], seen, sizeof seen);
    if (n > 0) saves += static_cast<int>(n);
    if (n == 0) break;  // the writer died
  }
  close(stop[1]);
  int status = 0;
  waitpid(writer, &status, 0);  // before closing progress: a write there must not SIGPIPE it
  close(progress[0]);
  EXPECT_EQ(bad, 0) << "of " << reads << " reads during " << saves << " saves";
  EXPECT_GE(saves, kSaves);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
