// Owners of the resources the library and the platform hold: descriptors,
// streams, malloc'd texts, platform records and file locks. Each owns one
// resource and releases it once, on every path. Header-only and internal
// (not installed); C++ only.
#ifndef MERO_OWNERS_H
#define MERO_OWNERS_H

#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "merocore.h"

namespace mero {

class UniqueFd {  // owns a descriptor; closes it once
 public:
  explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }
  int Get() const noexcept { return fd_; }
  int Release() noexcept { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// A descriptor whose lock was handed out by MLIBCFileLockTimeByFile (or taken
// with flock on a descriptor we opened): the protocol fixes the release call,
// MLIBCFileUnlockByFile, which unlocks and closes.
class PlatformLockFd {
 public:
  explicit PlatformLockFd(int fd = -1) noexcept : fd_(fd) {}
  PlatformLockFd(const PlatformLockFd&) = delete;
  PlatformLockFd& operator=(const PlatformLockFd&) = delete;
  ~PlatformLockFd() {
    if (fd_ >= 0) MLIBCFileUnlockByFile(fd_);
  }
  int Get() const noexcept { return fd_; }
  int* OutParam() noexcept { return &fd_; }

 private:
  int fd_;
};

struct FileCloser {
  void operator()(FILE* f) const noexcept { std::fclose(f); }
};
struct FreeDeleter {
  void operator()(void* p) const noexcept { std::free(p); }
};
struct SzListDeleter {
  void operator()(MLIBSZLIST* l) const noexcept { MLIBCSzListFree(l); }
};
struct SzHashDeleter {
  void operator()(MLIBSZHASH* h) const noexcept { MLIBCSzHashFree(h); }
};

using UniqueFile = std::unique_ptr<FILE, FileCloser>;
using UniqueCText = std::unique_ptr<char, FreeDeleter>;
using UniqueSzList = std::unique_ptr<MLIBSZLIST, SzListDeleter>;
using UniqueSzHash = std::unique_ptr<MLIBSZHASH, SzHashDeleter>;

}  // namespace mero

#endif  // MERO_OWNERS_H
