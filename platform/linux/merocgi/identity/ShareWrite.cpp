// Whether an account may write to its home directory, decided from the
// directory's owner, group and mode the way the kernel decides it: the
// first class the account falls in (owner, group, others) alone counts.
// Access control lists are not consulted.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "../CgiLog.h"
#include "mero_accounts.h"
#include "merocgi.h"

namespace {

constexpr int kWritable = 0;
constexpr int kNoAccount = -1;
constexpr int kNoHome = -2;
constexpr int kNotWritable = -3;

// Writing into a directory needs its search bit as well.
bool HasWriteAndSearch(mode_t mode, mode_t write, mode_t search) {
  return (mode & write) && (mode & search);
}

int AccountMayWriteHome(const char* user) {
  mero::Account account;
  switch (mero::FindAccount(user, &account)) {
    case mero::Lookup::kMissing:
      return kNoAccount;
    case mero::Lookup::kFailed:
      MEROCGI_LOG("account lookup failed: %s", std::strerror(errno));
      return kNoAccount;
    case mero::Lookup::kFound:
      break;
  }
  struct stat home;
  if (account.home.empty() || ::stat(account.home.c_str(), &home) != 0 || !S_ISDIR(home.st_mode))
    return kNoHome;
  if (account.uid == 0) return kWritable;
  bool allowed = false;
  if (home.st_uid == account.uid) {
    allowed = HasWriteAndSearch(home.st_mode, S_IWUSR, S_IXUSR);
  } else {
    const int inGroup = mero::IsInGroup(account, home.st_gid);
    if (inGroup < 0) {
      MEROCGI_LOG("group list lookup failed: %s", std::strerror(errno));
      return kNoAccount;
    }
    allowed = inGroup ? HasWriteAndSearch(home.st_mode, S_IWGRP, S_IXGRP)
                      : HasWriteAndSearch(home.st_mode, S_IWOTH, S_IXOTH);
  }
  return allowed ? kWritable : kNotWritable;
}

int ValidShareWrite(const char* user) {
  if (!user) return kNoAccount;
  try {
    return AccountMayWriteHome(user);
  } catch (...) {
    MEROCGI_LOG("share write check failed: out of memory");
    return kNoAccount;
  }
}

}  // namespace

extern "C" {

int MeroCgiDomValidShareWrite(const char* user, const char* /*out: not used here*/) {
  return ValidShareWrite(user);
}

int MeroCgiLDAPValidShareWrite(const char* user, const char* /*out: not used here*/) {
  return ValidShareWrite(user);
}

}  // extern "C"
