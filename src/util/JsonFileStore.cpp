// JSON files shared between CGI processes, guarded by whole-file flock locks:
// shared for readers (polled), exclusive for the writer (the platform's timed
// lock), both on the data file itself.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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
// with no writer must not make a CGI process wait).
bool ReadAll(int fd, std::string& text) {
  char chunk[16384];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      return true;
    } else if (errno != EINTR) {
      return false;
    }
  }
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
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
  return detail::ReaderParse(text.data(), text.size(), value, false);
}

bool SaveJsonFile(Json::Value& value, const char* path) {
  mero::PlatformLockFd lock;
  if (!path || !MLIBCFileLockTimeByFile(path, MERO_LOCK_EXCLUSIVE, kSaveLockTimeoutSeconds,
                                        lock.OutParam()))
    return false;
  const std::string text = detail::FastWrite(value);
  // Emptied only now, under the lock; rewritten in place through the locked
  // descriptor.
  if (::ftruncate(lock.Get(), 0) != 0 || ::lseek(lock.Get(), 0, SEEK_SET) != 0) return false;
  return WriteAll(lock.Get(), text);
}

}  // namespace WebAPIUtil
}  // namespace MERO
