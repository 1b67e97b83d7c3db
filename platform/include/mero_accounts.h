// Accounts and groups through NSS, for the platform libraries that ask who a
// user is: the re-entrant lookups with their buffers grown as NSS asks, and
// an account's groups from getgrouplist. Header-only and internal (not
// installed), like mero_owners.h: a split build exports nothing beyond the
// declared API, so the libraries cannot share a hidden function. C++ only;
// the containers may throw std::bad_alloc, which each C boundary catches.
#ifndef MERO_ACCOUNTS_H
#define MERO_ACCOUNTS_H

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

namespace mero {

struct Account {
  std::string name;  // as the account database spells it
  uid_t uid = 0;
  gid_t gid = 0;  // primary group
  std::string home;
};

// kFailed: the database could not be read; errno tells why.
enum class Lookup { kFound, kMissing, kFailed };

// A record needing more than this is a broken database, not a big account.
constexpr size_t kMaxLookupBufferBytes = 1 << 20;
// Most groups of one account: the kernel's NGROUPS_MAX.
constexpr int kMaxAccountGroups = 65536;

namespace accounts_detail {

// getpwnam_r(3) lets a module say "no such name" with any of these.
inline bool IsNoSuchName(int status) {
  return status == 0 || status == ENOENT || status == ESRCH || status == EBADF || status == EPERM;
}

// Runs a *_r lookup, doubling `buffer` while it answers ERANGE. Only a
// non-null result with status 0 counts as found: some modules leave the
// result pointer untouched when they fail.
template <typename Record, typename Call>
Lookup LookupRecord(Call call, Record* record, std::vector<char>* buffer) {
  buffer->resize(1024);
  for (;;) {
    Record* result = nullptr;
    const int status = call(record, buffer->data(), buffer->size(), &result);
    if (status == 0 && result) return Lookup::kFound;
    if (status == ERANGE && buffer->size() < kMaxLookupBufferBytes) {
      buffer->resize(buffer->size() * 2);
      continue;
    }
    if (IsNoSuchName(status)) return Lookup::kMissing;
    errno = status;
    return Lookup::kFailed;
  }
}

}  // namespace accounts_detail

inline Lookup FindAccount(const char* name, Account* account) {
  passwd record{};
  std::vector<char> buffer;
  const Lookup found = accounts_detail::LookupRecord(
      [name](passwd* out, char* buf, size_t size, passwd** result) {
        return ::getpwnam_r(name, out, buf, size, result);
      },
      &record, &buffer);
  if (found == Lookup::kFound) {
    account->name = record.pw_name;
    account->uid = record.pw_uid;
    account->gid = record.pw_gid;
    account->home = record.pw_dir ? record.pw_dir : "";
  }
  return found;
}

inline Lookup FindGroupId(const char* name, gid_t* gid) {
  group record{};
  std::vector<char> buffer;
  const Lookup found = accounts_detail::LookupRecord(
      [name](group* out, char* buf, size_t size, group** result) {
        return ::getgrnam_r(name, out, buf, size, result);
      },
      &record, &buffer);
  if (found == Lookup::kFound) *gid = record.gr_gid;
  return found;
}

// 1 when `gid` is the account's primary group or one of its supplementary
// groups (getgrouplist), 0 when not, -1 when the list could not be had
// (errno ERANGE past kMaxAccountGroups).
inline int IsInGroup(const Account& account, gid_t gid) {
  if (account.gid == gid) return 1;
  std::vector<gid_t> groups;
  int capacity = 32;
  for (;;) {
    groups.resize(static_cast<size_t>(capacity));
    int count = capacity;
    if (::getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) >= 0) {
      groups.resize(static_cast<size_t>(count));
      return std::find(groups.begin(), groups.end(), gid) != groups.end() ? 1 : 0;
    }
    // It says how many it needs; should a module not, doubling still ends.
    const int next = count > capacity ? count : capacity * 2;
    if (next > kMaxAccountGroups) {
      errno = ERANGE;
      return -1;
    }
    capacity = next;
  }
}

}  // namespace mero

#endif  // MERO_ACCOUNTS_H
