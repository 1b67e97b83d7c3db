// A visitor proves a link's password and gets a sharing session, throttled
// per link and per client address like logins.
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "../merocgi/login/LoginAudit.h"
#include "../merocgi/session/SessionKeys.h"
#include "LinkRules.h"
#include "PasswordHash.h"
#include "SharingLog.h"
#include "Throttle.h"
#include "merosharing.h"

namespace MERO {
namespace sharing {
namespace {

using db::Digest;
using db::Store;

constexpr size_t kMaxClientKeyBytes = 256;

int GetCount(Store& store, MDB_txn* txn, const std::string& key, Count* count) {
  MDB_val value;
  const int found = db::Get(txn, store.throttle, db::ValOf(key), &value);
  if (found == 1) *count = DecodeCount(value);
  return found < 0 ? found : 0;
}

int PutCount(Store& store, MDB_txn* txn, const std::string& key, const Count& count) {
  const std::string record = EncodeCount(count);
  MDB_val k = db::ValOf(key), value = db::ValOf(record);
  const int status = mdb_put(txn, store.throttle, &k, &value, 0);
  return status == 0 ? 0 : Store::Fail("throttle write", status);
}

// Counts one attempt on the link and from the client, unless either is
// locked: 1 counted, 0 locked (*retryAfter set), or the store's failure.
int Attempt(Store& store, const std::string& linkKey, const std::string& clientKey, int64_t now,
            int* retryAfter) {
  return store.Write([&](MDB_txn* txn) {
    Count link, client;
    int status = GetCount(store, txn, linkKey, &link);
    if (status == 0) status = GetCount(store, txn, clientKey, &client);
    if (status < 0) return status;
    const int64_t lockedUntil = std::max(link.lockedUntil, client.lockedUntil);
    if (lockedUntil > now) {
      *retryAfter =
          static_cast<int>(std::min<int64_t>(lockedUntil - now, MERO_SHARING_THROTTLE_MAX_LOCK));
      return 0;
    }
    status = PutCount(store, txn, linkKey, CountAttempt(link, now, MERO_SHARING_THROTTLE_LINK_LIMIT));
    if (status == 0)
      status = PutCount(store, txn, clientKey,
                        CountAttempt(client, now, MERO_SHARING_THROTTLE_CLIENT_LIMIT));
    return status < 0 ? status : 1;
  });
}

// Takes a counted attempt back after a successful proof.
int TakeBack(Store& store, MDB_txn* txn, const std::string& key) {
  Count count;
  const int status = GetCount(store, txn, key, &count);
  if (status < 0 || count.attempts == 0) return status;
  --count.attempts;
  return PutCount(store, txn, key, count);
}

void Audit(const std::string& ref, const char* client, const char* result) {
  syslog(LOG_AUTH | (std::strcmp(result, "success") == 0 ? LOG_NOTICE : LOG_WARNING),
         "sharing: link=%s client=%s result=%s", ref.c_str(), merocgi::AuditField(client).c_str(),
         result);
}

// Joins the visitor's session (or a new one) to the link, in one write
// transaction, once the password was proven.
int Join(Store& store, const Digest& entryHash, const std::string& ref, const char* client,
         const char* currentSid, const std::string& linkKey, const std::string& clientKey,
         int64_t now, std::string* sid) {
  return store.Write([&](MDB_txn* txn) {
    MDB_val value;
    int found = db::Get(txn, store.entries, db::ValOf(entryHash), &value);
    db::EntryRow entry;
    if (found < 0) return found;
    if (found == 0) return MERO_SHARING_UNKNOWN_LINK;  // revoked while the password was checked
    if (!db::DecodeEntry(value, &entry)) return MERO_SHARING_STORE_ERROR;
    db::SessionRow session;
    if (IsIdShape(currentSid)) {
      found = db::Get(txn, store.sessions, db::ValOf(db::IdHash(currentSid)), &value);
      if (found < 0) return found;
      if (found == 1 && db::DecodeSession(value, &session) && IsLive(session, now) &&
          merocgi::SameClientAddress(session.client, client))
        *sid = currentSid;
    }
    if (sid->empty()) {
      *sid = merocgi::RandomToken(32);
      if (sid->empty()) return MERO_SHARING_STORE_ERROR;
      session = db::SessionRow{ref, client, now, false};
    }
    session.passwordProven = session.passwordProven || !entry.passwordHash.empty();
    const Digest sessionHash = db::IdHash(*sid);
    const std::string sessionRecord = db::EncodeSession(session);
    const std::string tokenKey = db::TokenKey(sessionHash, entryHash);
    const std::string tokenRecord = db::EncodeCreated(now);
    MDB_val sessionKey = db::ValOf(sessionHash), sessionValue = db::ValOf(sessionRecord);
    MDB_val joinKey = db::ValOf(tokenKey), joinValue = db::ValOf(tokenRecord);
    int status = mdb_put(txn, store.sessions, &sessionKey, &sessionValue, 0);
    if (status == 0) status = mdb_put(txn, store.tokens, &joinKey, &joinValue, 0);
    if (status != 0) return Store::Fail("opening a sharing session", status);
    // As a login clears its user name's count: whoever knows the password
    // unlocks the link; the address only gets its own attempt back.
    MDB_val linkCount = db::ValOf(linkKey);
    status = mdb_del(txn, store.throttle, &linkCount, nullptr);
    if (status != 0 && status != MDB_NOTFOUND) return Store::Fail("throttle write", status);
    status = TakeBack(store, txn, clientKey);
    return status < 0 ? status : MERO_SHARING_OPENED;
  });
}

int Open(const char* linkId, const char* password, const char* client, const char* currentSid,
         std::string* sid, int* retryAfter) {
  if (!IsIdShape(linkId)) return MERO_SHARING_UNKNOWN_LINK;
  Store* store = Store::ForProcess(Store::Open::kExisting);
  if (!store) return Store::Exists() ? MERO_SHARING_STORE_ERROR : MERO_SHARING_UNKNOWN_LINK;
  const Digest entryHash = db::IdHash(linkId);
  const std::string ref = db::RefOf(entryHash);
  const int64_t now = std::time(nullptr);
  db::EntryRow entry;
  int verdict = store->Read([&](MDB_txn* txn) {
    MDB_val value;
    const int found = db::Get(txn, store->entries, db::ValOf(entryHash), &value);
    if (found <= 0) return found < 0 ? found : MERO_SHARING_UNKNOWN_LINK;
    return db::DecodeEntry(value, &entry) ? LinkState(entry, now) : MERO_SHARING_STORE_ERROR;
  });
  if (verdict != MERO_SHARING_AUTHORIZED) return verdict;

  const std::string linkKey = "l:" + ref;
  const std::string clientKey = "c:" + std::string(client).substr(0, kMaxClientKeyBytes);
  verdict = Attempt(*store, linkKey, clientKey, now, retryAfter);
  if (verdict < 0) return verdict;
  if (verdict == 0) {
    Audit(ref, client, "throttled");
    return MERO_SHARING_THROTTLED;
  }
  if (!entry.passwordHash.empty()) {
    const PasswordResult checked = CheckPassword(password, entry.passwordHash);
    if (checked == PasswordResult::kUnavailable) return MERO_SHARING_UNAVAILABLE;
    if (checked == PasswordResult::kMismatch) {
      Audit(ref, client, "failure");
      return MERO_SHARING_WRONG_PASSWORD;
    }
  }
  verdict = Join(*store, entryHash, ref, client, currentSid, linkKey, clientKey, now, sid);
  if (verdict == MERO_SHARING_OPENED) Audit(ref, client, "success");
  return verdict;
}

}  // namespace
}  // namespace sharing
}  // namespace MERO

extern "C" int MeroSharingSessionOpen(const char* linkId, const char* password, const char* client,
                                      const char* currentSid, char* sid, int sidSize,
                                      int* retryAfter) {
  if (sid && sidSize >= 1) sid[0] = '\0';
  int ignored = 0;
  if (!retryAfter) retryAfter = &ignored;
  *retryAfter = 0;
  if (!linkId || !password || !client || !*client || !sid || sidSize <= MERO_SHARING_ID_CHARS ||
      ::strnlen(password, MERO_SHARING_MAX_PASSWORD_BYTES + 1) > MERO_SHARING_MAX_PASSWORD_BYTES)
    return MERO_SHARING_INVALID;
  try {
    std::string opened;
    const int result =
        MERO::sharing::Open(linkId, password, client, currentSid, &opened, retryAfter);
    if (result == MERO_SHARING_OPENED) std::memcpy(sid, opened.c_str(), opened.size() + 1);
    return result;
  } catch (const std::bad_alloc&) {
    MEROSHARING_LOG("password proof failed: out of memory");
    return MERO_SHARING_STORE_ERROR;
  }
}
