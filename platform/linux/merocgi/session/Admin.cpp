// Session administration: creating sessions (login, the webapi-session
// tool), listing them without their identifiers, revoking and purging.
#include <time.h>

#include <cstring>
#include <string>
#include <vector>

#include "../CgiLog.h"
#include "SessionDb.h"
#include "SessionKeys.h"
#include "SessionCreate.h"
#include "merocgi.h"

namespace {

constexpr size_t kMinRefPrefix = 8;

// Texts that name a session must print as one field of one line.
bool IsPlainText(const char* text) {
  for (; *text; ++text)
    if (static_cast<unsigned char>(*text) < 0x20 || *text == 0x7f) return false;
  return true;
}

bool IsHex(const std::string& text) {
  return text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

int OpenWriter(merocgi::SessionDb& db) {
  return db.Open(merocgi::SessionDb::Access::kWriter) == merocgi::SessionDb::OpenResult::kOpened
             ? 0
             : MERO_SESSION_STORE_ERROR;
}

}  // namespace

namespace merocgi {

int CreateSession(const char* registry, const char* user, const char* client, long long lifetime,
                  const char* privileges, bool endOthers, std::string* id, std::string* csrf) {
  SessionRow row;
  *id = NewSessionId();
  *csrf = RandomToken(kCsrfTokenBytes);
  if (id->empty() || csrf->empty()) return MERO_SESSION_STORE_ERROR;
  row.csrf = *csrf;
  row.idHash = SessionIdHash(*id);
  row.registry = CanonicalRegistry(registry);
  row.user = user;
  row.client = client;
  row.created = row.lastSeen = static_cast<int64_t>(::time(nullptr));
  row.lifetime = lifetime > 0 ? lifetime : 0;
  row.privileges = privileges ? privileges : "";

  SessionDb db;
  if (const int failed = OpenWriter(db)) return failed;
  if (db.Insert(row, endOthers) < 0) return MERO_SESSION_STORE_ERROR;
  return MERO_SESSION_AUTHORIZED;
}

}  // namespace merocgi

extern "C" {

int MeroCgiSessionCreate(const char* registry, const char* user, const char* client,
                         long long lifetime, const char* privileges, int endOthers, char* id,
                         int idSize) {
  if (!registry || !*registry || !user || !*user || !client || !*client || !id ||
      idSize < MERO_CGI_SESSION_ID_CHARS + 1 || !IsPlainText(registry) || !IsPlainText(user) ||
      !IsPlainText(client) || (privileges && !IsPlainText(privileges)))
    return MERO_SESSION_INVALID;
  try {
    std::string sid, csrf;
    const int created =
        merocgi::CreateSession(registry, user, client, lifetime, privileges, endOthers != 0, &sid, &csrf);
    if (created == MERO_SESSION_AUTHORIZED) std::memcpy(id, sid.c_str(), sid.size() + 1);
    return created;
  } catch (...) {
    MEROCGI_LOG("session create failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

int MeroCgiSessionList(void (*visit)(const MEROCGI_SESSION_INFO* info, void* context),
                       void* context) {
  if (!visit) return MERO_SESSION_INVALID;
  try {
    std::vector<merocgi::SessionRow> rows;
    {
      merocgi::SessionDb db;
      switch (db.Open(merocgi::SessionDb::Access::kRequest)) {
        case merocgi::SessionDb::OpenResult::kMissing: return 0;
        case merocgi::SessionDb::OpenResult::kFailed: return MERO_SESSION_STORE_ERROR;
        case merocgi::SessionDb::OpenResult::kOpened: break;
      }
      if (db.Collect(&rows) < 0) return MERO_SESSION_STORE_ERROR;
    }
    // The store is closed: `visit` may open it again (one environment per
    // process at a time).
    for (const merocgi::SessionRow& row : rows) {
      const std::string ref = merocgi::SessionRef(row.idHash);
      const MEROCGI_SESSION_INFO info = {ref.c_str(), row.registry.c_str(), row.user.c_str(),
                                         row.client.c_str(), row.created, row.lastSeen,
                                         row.lifetime, row.state, row.privileges.c_str()};
      visit(&info, context);
    }
    return static_cast<int>(rows.size());
  } catch (...) {
    MEROCGI_LOG("session list failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

int MeroCgiSessionRevoke(const char* id, const char* refPrefix, const char* user) {
  try {
    if (!id && refPrefix && (std::strlen(refPrefix) < kMinRefPrefix || !IsHex(refPrefix)))
      return MERO_SESSION_INVALID;
    if (!id && !refPrefix && (!user || !*user)) return MERO_SESSION_INVALID;
    merocgi::SessionDb db;
    if (const int failed = OpenWriter(db)) return failed;
    int removed;
    if (id)
      removed = db.Delete(merocgi::SessionIdHash(id));
    else if (refPrefix)
      removed = db.DeleteByRefPrefix(refPrefix);
    else
      removed = db.DeleteByUser(user);
    if (removed == -2) return MERO_SESSION_INVALID;
    return removed < 0 ? MERO_SESSION_STORE_ERROR : removed;
  } catch (...) {
    MEROCGI_LOG("session revoke failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

int MeroCgiSessionPurge(int idleMinutes) {
  try {
    merocgi::SessionDb db;
    if (const int failed = OpenWriter(db)) return failed;
    const int removed = db.Purge(static_cast<int64_t>(::time(nullptr)),
                                 idleMinutes > 0 ? int64_t(idleMinutes) * 60 : 0);
    return removed < 0 ? MERO_SESSION_STORE_ERROR : removed;
  } catch (...) {
    MEROCGI_LOG("session purge failed: out of memory");
    return MERO_SESSION_STORE_ERROR;
  }
}

}  // extern "C"
