// Preference directories of users and groups under the appliance root.
// Created on first use; never reached through a symbolic link, since a
// user who could plant one would make the library read or write elsewhere.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "AccountNames.h"
#include "mero_accounts.h"
#include "merocore.h"
#include "merosdk.h"

namespace {

enum class Owner { kUser, kGroup };

bool MakeDirectory(const std::string& path, mode_t mode, bool* created) {
  *created = ::mkdir(path.c_str(), mode) == 0;
  if (!*created && errno != EEXIST) {
    syslog(LOG_ERR, "%s:%d cannot create %s: %s", "merosdk", __LINE__, path.c_str(),
           std::strerror(errno));
    return false;
  }
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeParents(const std::string& path) {
  const size_t rootLength = std::strlen(MeroApplianceRoot());
  for (size_t slash = path.find('/', rootLength + 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    bool created = false;
    const std::string parent = path.substr(0, slash);
    if (!MakeDirectory(parent, 0755, &created)) return false;
    if (created) ::chmod(parent.c_str(), 0755);  // whatever the umask: owners must pass through
  }
  return true;
}

// A new directory goes to its owner; when that is not allowed (the process
// is no root) it stays the process's, which still works for one user.
void HandOver(const std::string& path, Owner owner, const char* name) {
  if (owner == Owner::kUser) {
    mero::Account account;
    if (mero::FindAccount(name, &account) == mero::Lookup::kFound)
      (void)!::chown(path.c_str(), account.uid, account.gid);
  } else {
    gid_t gid = 0;
    if (mero::FindGroupId(name, &gid) == mero::Lookup::kFound &&
        ::chown(path.c_str(), static_cast<uid_t>(-1), gid) == 0)
      ::chmod(path.c_str(), 0770);
  }
}

int PreferenceDir(Owner owner, const char* name, char* buf, int size) {
  if (buf && size > 0) buf[0] = '\0';
  if (!name || merosdk::IsRefusedName(name) || !buf || size < 1) return -1;
  const std::string path = std::string(MeroApplianceRoot()) + MERO_PREFERENCE_DIR +
                           (owner == Owner::kUser ? "/users/" : "/groups/") + name;
  if (path.size() > static_cast<size_t>(size) - 1) return -1;
  bool created = false;
  if (!MakeParents(path) || !MakeDirectory(path, 0700, &created)) return -1;
  if (created) HandOver(path, owner, name);
  std::memcpy(buf, path.c_str(), path.size() + 1);
  return static_cast<int>(path.size());
}

}  // namespace

extern "C" {

int MEROUserPreferenceDirGet(const char* user, char* buf, int size) {
  try {
    return PreferenceDir(Owner::kUser, user, buf, size);
  } catch (...) {
    return -1;
  }
}

int MEROGroupPreferenceDirGet(const char* group, char* buf, int size) {
  try {
    return PreferenceDir(Owner::kGroup, group, buf, size);
  } catch (...) {
    return -1;
  }
}

}  // extern "C"
