#include "LoginThrottle.h"

#include <lmdb.h>
#include <sys/random.h>

#include <algorithm>
#include <cstring>

#include "../session/SessionDb.h"
#include "merocgi.h"
#include "merocore.h"

namespace merocgi {
namespace {

// User names compare without letter case, as PAM modules mostly do, so that
// "Admin" and "admin" share one count.
constexpr size_t kMaxKeyBytes = 256;
// Counters a write looks at for clean-up: bounded, so a login never scans
// the store, yet a steady trickle of logins keeps it small.
constexpr int kCleanupPerWrite = 16;

std::string KeyFor(char kind, const std::string& text, bool foldCase) {
  std::string key(1, kind);
  key += ':';
  for (char c : text.substr(0, kMaxKeyBytes)) key += foldCase && c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
  return key;
}

int Get(MDB_txn* txn, MDB_dbi dbi, const std::string& key, ThrottleCount* count) {
  MDB_val k{key.size(), const_cast<char*>(key.data())}, value;
  const int status = mdb_get(txn, dbi, &k, &value);
  if (status == 0) *count = mero::DecodeThrottleCount(value.mv_data, value.mv_size);
  return status == MDB_NOTFOUND ? 0 : status;
}

int Put(MDB_txn* txn, MDB_dbi dbi, const std::string& key, const ThrottleCount& count) {
  const std::string record = mero::EncodeThrottleCount(count);
  MDB_val k{key.size(), const_cast<char*>(key.data())}, value{record.size(), const_cast<char*>(record.data())};
  return mdb_put(txn, dbi, &k, &value, 0);
}

// Removes a few stale counters from a random place in the key order.
int CleanUp(MDB_txn* txn, MDB_dbi dbi, int64_t now) {
  MDB_cursor* cursor = nullptr;
  int status = mdb_cursor_open(txn, dbi, &cursor);
  if (status != 0) return status;
  unsigned char start[3] = {};
  if (::getrandom(start, sizeof start, GRND_NONBLOCK) != sizeof start) std::memset(start, 0, sizeof start);
  MDB_val key{sizeof start, start}, value;
  status = mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE);
  if (status == MDB_NOTFOUND) status = mdb_cursor_get(cursor, &key, &value, MDB_FIRST);
  for (int seen = 0; status == 0 && seen < kCleanupPerWrite; ++seen) {
    if (IsStale(mero::DecodeThrottleCount(value.mv_data, value.mv_size), now) && (status = mdb_cursor_del(cursor, 0)) != 0) break;
    status = mdb_cursor_get(cursor, &key, &value, MDB_NEXT);
  }
  mdb_cursor_close(cursor);
  return status == MDB_NOTFOUND ? 0 : status;
}

}  // namespace

LoginThrottle::LoginThrottle(std::string user, std::string client)
    : userKey_(KeyFor('u', user, true)), clientKey_(KeyFor('c', client, false)) {}

std::string LoginThrottle::Path() {
  return std::string(MeroApplianceRoot()) + MERO_CGI_LOGIN_THROTTLE_DB;
}

LoginThrottle::Verdict LoginThrottle::Attempt(int64_t now, int* retryAfter) {
  SessionDb store(Path());
  if (store.Open(SessionDb::Access::kWriter) != SessionDb::OpenResult::kOpened)
    return Verdict::kStoreError;
  const MDB_dbi dbi = store.Dbi();
  const int result = store.InWriteTransaction([&](MDB_txn* txn) -> int {
    ThrottleCount user, client;
    int status = Get(txn, dbi, userKey_, &user);
    if (status == 0) status = Get(txn, dbi, clientKey_, &client);
    if (status != 0) return store.Fail("throttle read", status);
    const int64_t lockedUntil = std::max(user.lockedUntil, client.lockedUntil);
    if (lockedUntil > now) {
      *retryAfter = static_cast<int>(std::min<int64_t>(lockedUntil - now, MERO_CGI_LOGIN_THROTTLE_MAX_LOCK));
      return 0;  // nothing to write: the transaction ends without a change
    }
    status = Put(txn, dbi, userKey_, CountAttempt(user, now, MERO_CGI_LOGIN_THROTTLE_USER_LIMIT));
    if (status == 0)
      status = Put(txn, dbi, clientKey_, CountAttempt(client, now, MERO_CGI_LOGIN_THROTTLE_CLIENT_LIMIT));
    if (status == 0) status = CleanUp(txn, dbi, now);
    return status == 0 ? 1 : store.Fail("throttle write", status);
  });
  if (result < 0) return Verdict::kStoreError;
  return result == 0 ? Verdict::kLocked : Verdict::kProceed;
}

bool LoginThrottle::Succeeded(int64_t now) {
  SessionDb store(Path());
  if (store.Open(SessionDb::Access::kWriter) != SessionDb::OpenResult::kOpened) return false;
  const MDB_dbi dbi = store.Dbi();
  return store.InWriteTransaction([&](MDB_txn* txn) -> int {
    MDB_val userKey{userKey_.size(), userKey_.data()};
    int status = mdb_del(txn, dbi, &userKey, nullptr);
    if (status != 0 && status != MDB_NOTFOUND) return store.Fail("throttle write", status);
    ThrottleCount client;
    status = Get(txn, dbi, clientKey_, &client);
    if (status == 0 && client.attempts > 0) {
      --client.attempts;
      client.lastAttempt = std::min(client.lastAttempt, now);
      status = Put(txn, dbi, clientKey_, client);
    }
    return status == 0 ? 1 : store.Fail("throttle write", status);
  }) >= 0;
}

}  // namespace merocgi
