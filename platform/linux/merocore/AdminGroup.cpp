// Membership of the administrators' group. The appliance settings may name
// another group; a settings file that exists but cannot be read is an
// error, not the default, so an unreadable file never hands administration
// to the default group's members.
#include <limits.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "mero_accounts.h"
#include "merocore.h"

namespace {

constexpr char kApplianceSettings[] = "/etc/meroinfo.conf";
constexpr char kAdminGroupKey[] = "admin_group";
// Settings lines are at most 4095 bytes, so any value fits whole: a name cut
// short could be another group's.
constexpr int kSettingsValueBytes = 4096;

void LogLookupFailure(const char* what) {
  syslog(LOG_ERR, "%s:%d %s lookup failed: %s", "merocore", __LINE__, what, std::strerror(errno));
}

// The configured group name; false when the settings file exists but could
// not be read (its error recorded).
bool AdminGroupName(std::string* name) {
  *name = MERO_ADMIN_GROUP_DEFAULT;
  char path[PATH_MAX];
  if (MeroAppliancePath(kApplianceSettings, path, sizeof path) < 0) return true;
  char value[kSettingsValueBytes];
  const int found = MLIBCFileGetKeyValue(path, kAdminGroupKey, value, sizeof value, 0);
  if (found < 0) {
    if (MLIBCErrGet() == MERO_ERR_NOT_FOUND) return true;  // no settings: the default
    syslog(LOG_ERR, "%s:%d cannot read %s for the administrators' group", "merocore", __LINE__,
           path);
    return false;
  }
  if (found > 0 && value[0]) *name = value;
  return true;
}

int IsAdminGroupMember(const char* user) {
  mero::Account account;
  switch (mero::FindAccount(user, &account)) {
    case mero::Lookup::kMissing:
      return 0;  // PAM may know accounts that NSS does not: they are in no group
    case mero::Lookup::kFailed:
      LogLookupFailure("account");
      MERO_ERR_SET(MERO_ERR_IO);
      return -1;
    case mero::Lookup::kFound:
      break;
  }
  std::string groupName;
  if (!AdminGroupName(&groupName)) return -1;
  gid_t adminGid = 0;
  switch (mero::FindGroupId(groupName.c_str(), &adminGid)) {
    case mero::Lookup::kMissing:
      return 0;
    case mero::Lookup::kFailed:
      LogLookupFailure("group");
      MERO_ERR_SET(MERO_ERR_IO);
      return -1;
    case mero::Lookup::kFound:
      break;
  }
  const int member = mero::IsInGroup(account, adminGid);
  if (member < 0) {
    LogLookupFailure("group list");
    MERO_ERR_SET(MERO_ERR_IO);
  }
  return member;
}

}  // namespace

extern "C" int MLIBGroupIsAdminGroupMem(const char* user, int /*flags: reserved*/) {
  if (!user || !*user) {
    MERO_ERR_SET(MERO_ERR_INVALID_ARGUMENT);
    return -1;
  }
  try {
    return IsAdminGroupMember(user);
  } catch (...) {  // only the account and group records' allocations throw
    MERO_ERR_SET(MERO_ERR_NO_MEMORY);
    return -1;
  }
}
