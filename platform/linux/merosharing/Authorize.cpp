// The decision of a sharing request.
#include <cstdlib>
#include <ctime>
#include <new>

#include "../merocgi/session/SessionKeys.h"
#include "LinkRules.h"
#include "SharingLog.h"
#include "merocgi.h"
#include "merosharing.h"

namespace MERO {
namespace sharing {

static_assert(MERO_SHARING_ID_CHARS == MERO_CGI_SESSION_ID_CHARS, "ids share one shape");

bool IsIdShape(const char* id) { return id && merocgi::IsSessionIdShape(id); }

int LinkState(const db::EntryRow& row, int64_t now) {
  if (!row.enabled) return MERO_SHARING_DISABLED;
  if (row.expires > 0 && now >= row.expires) return MERO_SHARING_EXPIRED;
  if (row.accessLimit > 0 && row.accessCount >= row.accessLimit) return MERO_SHARING_USED_UP;
  return MERO_SHARING_AUTHORIZED;
}

int SessionState(db::Store& store, MDB_txn* txn, const db::Digest& entryHash,
                 const db::EntryRow& row, const char* sid, const char* client, int64_t now) {
  if (row.passwordHash.empty()) return MERO_SHARING_AUTHORIZED;
  if (!IsIdShape(sid) || !client) return MERO_SHARING_PASSWORD_NEEDED;
  const db::Digest sessionHash = db::IdHash(sid);
  MDB_val value;
  int found = db::Get(txn, store.sessions, db::ValOf(sessionHash), &value);
  if (found < 0) return MERO_SHARING_STORE_ERROR;
  db::SessionRow session;
  if (found == 0 || !db::DecodeSession(value, &session) || !IsLive(session, now) ||
      !merocgi::SameClientAddress(session.client, client))
    return MERO_SHARING_PASSWORD_NEEDED;
  found = db::Get(txn, store.tokens, db::ValOf(db::TokenKey(sessionHash, entryHash)), &value);
  if (found < 0) return MERO_SHARING_STORE_ERROR;
  return found == 1 ? MERO_SHARING_AUTHORIZED : MERO_SHARING_PASSWORD_NEEDED;
}

namespace {

// The whole decision inside `txn`; with `count`, an admitted access of a
// link with a limit is counted in the same (write) transaction.
int Decide(db::Store& store, MDB_txn* txn, const db::Digest& entryHash, const char* sid,
           const char* client, int64_t now, bool count, bool* limited) {
  MDB_val value;
  const int found = db::Get(txn, store.entries, db::ValOf(entryHash), &value);
  if (found < 0) return MERO_SHARING_STORE_ERROR;
  if (found == 0) return MERO_SHARING_UNKNOWN_LINK;
  db::EntryRow row;
  if (!db::DecodeEntry(value, &row)) {
    MEROSHARING_LOG("sharing store holds a link that does not decode");
    return MERO_SHARING_STORE_ERROR;
  }
  int verdict = LinkState(row, now);
  if (verdict == MERO_SHARING_AUTHORIZED)
    verdict = SessionState(store, txn, entryHash, row, sid, client, now);
  *limited = row.accessLimit > 0;
  if (verdict != MERO_SHARING_AUTHORIZED || !count || !*limited) return verdict;
  ++row.accessCount;
  const std::string record = db::EncodeEntry(row);
  MDB_val key = db::ValOf(entryHash), updated = db::ValOf(record);
  const int status = mdb_put(txn, store.entries, &key, &updated, 0);
  return status == 0 ? verdict : db::Store::Fail("counting an access", status);
}

int Authorize(const SharingAuthRequest& request) {
  if (!request.sharingId) return MERO_SHARING_INVALID;
  if (!IsIdShape(request.sharingId)) return MERO_SHARING_UNKNOWN_LINK;
  db::Store* store = db::Store::ForProcess(db::Store::Open::kExisting);
  if (!store) return db::Store::Exists() ? MERO_SHARING_STORE_ERROR : MERO_SHARING_UNKNOWN_LINK;
  const db::Digest entryHash = db::IdHash(request.sharingId);
  const char* client = std::getenv("REMOTE_ADDR");
  const int64_t now = std::time(nullptr);
  bool limited = false;
  // Most links have no limit: they are only read, which takes no lock and
  // writes nothing. A limited one is decided again where it is counted.
  int verdict = store->Read([&](MDB_txn* txn) {
    return Decide(*store, txn, entryHash, request.sharingSid, client, now, false, &limited);
  });
  if (verdict == MERO_SHARING_AUTHORIZED && limited) {
    // A refusal is negative: the transaction then ends without a change.
    verdict = store->Write([&](MDB_txn* txn) {
      return Decide(*store, txn, entryHash, request.sharingSid, client, now, true, &limited);
    });
  }
  return verdict;
}

}  // namespace

}  // namespace sharing
}  // namespace MERO

extern "C" int MeroSharingIsAuthorized(SharingAuthRequest* request) {
  if (!request) return MERO_SHARING_INVALID;
  try {
    return MERO::sharing::Authorize(*request);
  } catch (const std::bad_alloc&) {
    MEROSHARING_LOG("sharing check failed: out of memory");
    return MERO_SHARING_STORE_ERROR;
  }
}
