// Replaces openat for its test binary: a request for an unnamed file
// (O_TMPFILE) fails with EOPNOTSUPP, as on a file system that has none, so
// uploads take their hidden temporary names instead; every other call goes
// on to the C library's own. The binary fails unless the seam was used.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>

namespace {

int refusedTmpfiles = 0;

class SeamUsed : public ::testing::Environment {
 public:
  void TearDown() override { EXPECT_GT(refusedTmpfiles, 0) << "no upload asked for O_TMPFILE"; }
};
::testing::Environment* const seamUsed = ::testing::AddGlobalTestEnvironment(new SeamUsed);

}  // namespace

// Visible, so that the library's calls bind to it.
extern "C" __attribute__((visibility("default"))) int openat(int dirFd, const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  if ((flags & O_TMPFILE) == O_TMPFILE) {
    ++refusedTmpfiles;
    errno = EOPNOTSUPP;
    return -1;
  }
  static const auto next = reinterpret_cast<int (*)(int, const char*, int, ...)>(dlsym(RTLD_NEXT, "openat"));
  return next(dirFd, path, flags, mode);
}
