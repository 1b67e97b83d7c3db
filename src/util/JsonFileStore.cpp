// JSON files shared between CGI processes, guarded by whole-file flock locks:
// shared for readers (polled), exclusive for the writer (the platform's timed
// lock), both on the data file itself.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "JsonText.h"
#include "mero_owners.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

bool TakeSharedLock(int fd) {
  for (int attempt = 1;; ++attempt) {
    if (::flock(fd, LOCK_SH | LOCK_NB) == 0) return true;
    if (attempt == kReadLockAttempts) return false;
    ::usleep(kReadLockPollMicros);
  }
}

// Reads the rest of `fd`; false on a read error (EAGAIN included: a FIFO
// with no writer must not make a CGI process wait). Reads straight into
// `text`, sized from fstat for a regular file: a large buffer on the stack
// would cost a short-lived process page faults on fresh stack pages.
bool ReadAll(int fd, std::string& text) {
  constexpr size_t kMinChunk = 4096;
  size_t chunk = kMinChunk;
  struct stat info;
  // One byte past the size, so that the read after the last one sees the end.
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0)
    chunk = static_cast<size_t>(info.st_size) + 1;
  size_t used = text.size();
  for (;;) {
    if (used == text.size()) text.resize(used + chunk);
    const ssize_t n = ::read(fd, &text[used], text.size() - used);
    if (n > 0) {
      used += static_cast<size_t>(n);
      chunk = std::max(chunk, used);  // more than fstat said (or a pipe): double
    } else if (n == 0) {
      text.resize(used);
      return true;
    } else if (errno != EINTR) {
      text.resize(used);
      return false;
    }
  }
}

// Writes `text` at the start of `fd`: in one call, unless the kernel
// returns early.
bool WriteAllAtStart(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n =
        ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool ReadJsonFile(Json::Value& value, const char* path) {
  if (!path) return false;
  // The locked descriptor is also the one read: the data parsed is exactly
  // the file the lock covers.
  mero::PlatformLockFd file(::open64(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (file.Get() < 0) return false;
  if (!TakeSharedLock(file.Get())) return false;
  std::string text;
  if (!ReadAll(file.Get(), text)) return false;
  return detail::ReaderParse(text.data(), text.size(), value);
}

bool SaveJsonFile(Json::Value& value, const char* path) {
  mero::PlatformLockFd lock;
  if (!path || !MLIBCFileLockTimeByFile(path, MERO_LOCK_EXCLUSIVE, kSaveLockTimeoutSeconds,
                                        lock.OutParam()))
    return false;
  const std::string text = detail::FastWrite(value);
  const off_t length = static_cast<off_t>(text.size());
  // Rewritten in place through the locked descriptor, and nothing of the
  // old document is cut before the new one is whole: the space is reserved
  // first (a full disk or a file-size limit fails here, the file as it
  // was), the new text goes over the old, and only then is the rest cut
  // off. A process killed between these steps leaves the old document, or
  // the new one followed by the old one's tail, which readers ignore.
  int reserved;
  while ((reserved = ::posix_fallocate(lock.Get(), 0, length)) == EINTR) {
  }
  if (reserved != 0) return false;
  return WriteAllAtStart(lock.Get(), text) && ::ftruncate(lock.Get(), length) == 0;
}

}  // namespace WebAPIUtil
}  // namespace MERO
