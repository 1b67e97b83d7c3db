#include "UploadFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>

#include "merocgi.h"

namespace merocgi {
namespace {

constexpr int kTempNameAttempts = 64;

// ".upload-" and six random letters or digits: hidden, and unlikely to meet
// another; O_EXCL and link() catch the case where it does.
std::string TempName() {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char random[6];
  if (getrandom(random, sizeof random, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof random)) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    unsigned long mix = static_cast<unsigned long>(now.tv_nsec) ^ static_cast<unsigned long>(getpid());
    for (unsigned char& byte : random) {
      byte = static_cast<unsigned char>(mix);
      mix = mix * 6364136223846793005UL + 1442695040888963407UL;
    }
  }
  std::string name = ".upload-";
  for (unsigned char byte : random) name += kLetters[byte % (sizeof kLetters - 1)];
  return name;
}

}  // namespace

UploadFile::UploadFile(UploadFile&& other) noexcept
    : dirFd_(other.dirFd_), fd_(std::move(other.fd_)), tempName_(std::move(other.tempName_)) {
  other.tempName_.clear();
}

UploadFile::~UploadFile() { Discard(); }

void UploadFile::Discard() {
  if (!tempName_.empty()) unlinkat(dirFd_, tempName_.c_str(), 0);
  tempName_.clear();
  fd_.Reset();
}

bool UploadFile::Create(int dirFd) {
  Discard();
  dirFd_ = dirFd;
  // An unnamed file is only given a name through /proc/self/fd.
  if (access("/proc/self/fd", X_OK) == 0) {
    fd_.Reset(openat(dirFd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, MERO_CGI_UPLOAD_FILE_MODE));
    if (fd_.Get() >= 0) return true;
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return false;
  }
  for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
    std::string name = TempName();
    fd_.Reset(openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                     MERO_CGI_UPLOAD_FILE_MODE));
    if (fd_.Get() >= 0) {
      tempName_ = std::move(name);
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

bool UploadFile::Write(const char* data, size_t size) {
  while (size > 0) {
    const ssize_t wrote = ::write(fd_.Get(), data, size);
    if (wrote < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += wrote;
    size -= static_cast<size_t>(wrote);
  }
  return true;
}

bool UploadFile::LinkAs(const char* name) {
  char self[64];
  std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd_.Get());
  return linkat(AT_FDCWD, self, dirFd_, name, AT_SYMLINK_FOLLOW) == 0;
}

bool UploadFile::Commit(const char* name, bool replace) {
  if (fd_.Get() < 0) {
    errno = EBADF;
    return false;
  }
  if (tempName_.empty()) {  // unnamed
    if (!replace) {
      if (!LinkAs(name)) return false;
      fd_.Reset();
      return true;
    }
    // link() never replaces: the file takes a temporary name that
    // rename() then moves over the old file in one step.
    for (int attempt = 0; attempt < kTempNameAttempts && tempName_.empty(); ++attempt) {
      std::string temp = TempName();
      if (LinkAs(temp.c_str()))
        tempName_ = std::move(temp);
      else if (errno != EEXIST)
        return false;
    }
    if (tempName_.empty()) return false;
  }
  const int renamed = replace ? renameat(dirFd_, tempName_.c_str(), dirFd_, name)
                              : renameat2(dirFd_, tempName_.c_str(), dirFd_, name, RENAME_NOREPLACE);
  if (renamed != 0) {
    const int saved = errno;
    Discard();
    errno = saved;
    return false;
  }
  tempName_.clear();
  fd_.Reset();
  return true;
}

}  // namespace merocgi
