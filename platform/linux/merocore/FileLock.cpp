// Whole-file flock() locks with a bounded wait. The lock is on the data file
// itself (not a side lock file), so it excludes readers that take LOCK_SH
// on the same file.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "mero_owners.h"
#include "merocore.h"

namespace {
constexpr useconds_t kLockPollMicros = 50000;
}

extern "C" {

int MLIBCFileLockTimeByFile(const char* path, int mode, int timeout, int* fd) {
  if (fd) *fd = -1;
  if (!path || !fd || (mode != MERO_LOCK_SHARED && mode != MERO_LOCK_EXCLUSIVE) || timeout < 0) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return 0;
  }
  const bool exclusive = mode == MERO_LOCK_EXCLUSIVE;
  mero::UniqueFd file(exclusive ? ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644)
                                : ::open(path, O_RDONLY | O_CLOEXEC));
  if (file.Get() < 0) {
    MERO_ERR_SET(MERO_ERR_IO);
    return 0;
  }
  const long attempts = static_cast<long>(timeout) * (1000000 / kLockPollMicros) + 1;
  for (long attempt = 0; attempt < attempts; ++attempt) {
    if (::flock(file.Get(), (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0) {
      *fd = file.Release();
      return 1;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      MERO_ERR_SET(MERO_ERR_IO);
      return 0;
    }
    if (attempt + 1 < attempts) ::usleep(kLockPollMicros);
  }
  MERO_ERR_SET(MERO_ERR_LOCK_TIMEOUT);
  return 0;
}

int MLIBCFileUnlockByFile(int fd) {
  if (fd < 0) return -1;
  ::flock(fd, LOCK_UN);
  return ::close(fd) == 0 ? 0 : -1;
}

}  // extern "C"
