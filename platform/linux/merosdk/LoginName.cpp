// Login names to account names. The name as given is looked up first, so a
// database that does hold upper-case names keeps them apart; only a miss is
// retried in lower case.
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "AccountNames.h"
#include "mero_accounts.h"
#include "merosdk.h"

namespace {

// ASCII only: bytes of UTF-8 sequences are >= 0x80 and pass through.
bool LowerAscii(std::string* text) {
  bool changed = false;
  for (char& c : *text) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
      changed = true;
    }
  }
  return changed;
}

int Convert(const char* name, char* buf, int size) {
  mero::Account account;
  mero::Lookup found = mero::FindAccount(name, &account);
  if (found == mero::Lookup::kMissing) {
    std::string lowered = name;
    if (LowerAscii(&lowered)) found = mero::FindAccount(lowered.c_str(), &account);
  }
  if (found == mero::Lookup::kMissing) return 0;
  if (found == mero::Lookup::kFailed) {
    syslog(LOG_ERR, "%s:%d account lookup failed: %s", "merosdk", __LINE__, std::strerror(errno));
    return -1;
  }
  if (account.name.size() > static_cast<size_t>(size) - 1) return -1;
  std::memcpy(buf, account.name.c_str(), account.name.size() + 1);
  return static_cast<int>(account.name.size());
}

}  // namespace

extern "C" int MEROUserLoginNameConvert(const char* name, char* buf, int size) {
  if (!buf || size < 1) return -1;
  buf[0] = '\0';
  if (!name || merosdk::IsRefusedName(name)) return -1;
  try {
    return Convert(name, buf, size);
  } catch (...) {  // only the account record's allocations throw
    syslog(LOG_ERR, "%s:%d account lookup failed: out of memory", "merosdk", __LINE__);
    return -1;
  }
}
