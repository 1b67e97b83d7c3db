#include "SessionDb.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "../CgiLog.h"
#include "SessionKeys.h"
#include "merocgi.h"
#include "merocore.h"
#include "mero_lmdb_owners.h"

#ifdef MEROCGI_LMDB_LINKED_IN
// What the linked-in LMDB's assertion handler prints to (see CMakeLists.txt):
// hidden, because the archive reaches it PC-relative.
extern "C" __attribute__((visibility("hidden"))) std::FILE* merocgi_lmdb_stderr;
std::FILE* merocgi_lmdb_stderr = nullptr;
#endif

namespace merocgi {
namespace {

using mero::CursorOwner;
using mero::TxnOwner;

// Format 2 adds the idle limit to format 1, which is still read.
constexpr uint8_t kRecordFormat = 2;
constexpr uint8_t kRecordFormatWithoutIdleLimit = 1;

void PutInt(std::string* out, int64_t value) {
  for (int i = 0; i < 8; ++i) out->push_back(static_cast<char>(uint64_t(value) >> (8 * i)));
}
void PutText(std::string* out, const std::string& text) {
  const uint32_t size = static_cast<uint32_t>(text.size());
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>(size >> (8 * i)));
  out->append(text);
}

class Reader {
 public:
  Reader(const void* data, size_t size) : at_(static_cast<const uint8_t*>(data)), left_(size) {}
  bool Int(int64_t* value) {
    if (left_ < 8) return false;
    uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits |= uint64_t(at_[i]) << (8 * i);
    *value = static_cast<int64_t>(bits);
    Skip(8);
    return true;
  }
  bool Text(std::string* text) {
    if (left_ < 4) return false;
    const uint32_t size = at_[0] | at_[1] << 8 | at_[2] << 16 | uint32_t(at_[3]) << 24;
    Skip(4);
    if (left_ < size) return false;
    text->assign(reinterpret_cast<const char*>(at_), size);
    Skip(size);
    return true;
  }
  bool Byte(uint8_t* value) {
    if (left_ < 1) return false;
    *value = *at_;
    Skip(1);
    return true;
  }
  bool AtEnd() const { return left_ == 0; }

 private:
  void Skip(size_t n) {
    at_ += n;
    left_ -= n;
  }
  const uint8_t* at_;
  size_t left_;
};

MDB_val KeyOf(const Sha256Digest& idHash) {
  return MDB_val{idHash.size(), const_cast<uint8_t*>(idHash.data())};
}

bool MakeParentDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

bool RowFromCursor(const MDB_val& key, const MDB_val& value, SessionRow* row) {
  if (key.mv_size != row->idHash.size() || !DecodeSessionRow(value.mv_data, value.mv_size, row))
    return false;
  std::memcpy(row->idHash.data(), key.mv_data, row->idHash.size());
  return true;
}

}  // namespace

std::string EncodeSessionRow(const SessionRow& row) {
  std::string out(1, static_cast<char>(kRecordFormat));
  PutInt(&out, row.created);
  PutInt(&out, row.lastSeen);
  PutInt(&out, row.lifetime);
  PutInt(&out, row.state);
  for (const std::string* text :
       {&row.registry, &row.user, &row.client, &row.csrf, &row.privileges})
    PutText(&out, *text);
  PutInt(&out, row.idleMinutes);
  return out;
}

bool DecodeSessionRow(const void* data, size_t size, SessionRow* row) {
  Reader reader(data, size);
  uint8_t format = 0;
  int64_t state = 0;
  if (!(reader.Byte(&format) &&
        (format == kRecordFormat || format == kRecordFormatWithoutIdleLimit) &&
        reader.Int(&row->created) && reader.Int(&row->lastSeen) && reader.Int(&row->lifetime) &&
        reader.Int(&state) && reader.Text(&row->registry) && reader.Text(&row->user) &&
        reader.Text(&row->client) && reader.Text(&row->csrf) && reader.Text(&row->privileges)))
    return false;
  row->state = static_cast<int>(state);
  row->idleMinutes = kIdleLimitUnknown;
  if (format == kRecordFormat && !reader.Int(&row->idleMinutes)) return false;
  return reader.AtEnd();
}

SessionDb::SessionDb() : path_(Path()) {}

SessionDb::SessionDb(std::string path) : path_(std::move(path)) {}

SessionDb::~SessionDb() {
  if (env_) mdb_env_close(env_);
}

std::string SessionDb::Path() { return std::string(MeroApplianceRoot()) + MERO_CGI_SESSION_DB; }

int SessionDb::Fail(const char* what, int status) {
  MEROCGI_LOG("session store %s failed: %s", what, mdb_strerror(status));
  return -1;
}

SessionDb::OpenResult SessionDb::Open(Access access) {
  const std::string& path = path_;
  // One environment per process: LMDB's locks belong to the process.
  unsigned flags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NORDAHEAD;
  if (access == Access::kWriter) {
    // A crash may lose the last write (a login, a last-seen time), never the
    // store's consistency; one sync per write instead of two halves its cost.
    flags |= MDB_NOMETASYNC;
    if (!MakeParentDirectories(path)) {
      MEROCGI_LOG("cannot create the session directory for %s: %s", path.c_str(),
                  std::strerror(errno));
      return OpenResult::kFailed;
    }
  } else {
    if (::access(path.c_str(), F_OK) != 0) return OpenResult::kMissing;  // no session yet
    flags |= MDB_RDONLY;
  }
#ifdef MEROCGI_LMDB_LINKED_IN
  merocgi_lmdb_stderr = stderr;
#endif
  int status = mdb_env_create(&env_);
  if (status == 0) status = mdb_env_set_mapsize(env_, MERO_CGI_SESSION_STORE_BYTES);
  if (status == 0) status = mdb_env_set_maxreaders(env_, MERO_CGI_SESSION_MAX_READERS);
  if (status == 0) status = mdb_env_open(env_, path.c_str(), flags, 0600);
  if (status != 0) {
    Fail("open", status);
    if (env_) mdb_env_close(env_);
    env_ = nullptr;
    return OpenResult::kFailed;
  }
  if (access == Access::kWriter) {
    int cleared = 0;
    mdb_reader_check(env_, &cleared);  // slots of processes that died mid-read
  }
  MDB_txn* txn = nullptr;
  status = mdb_txn_begin(env_, nullptr, access == Access::kWriter ? 0 : MDB_RDONLY, &txn);
  TxnOwner owner(txn);
  if (status == 0) status = mdb_dbi_open(txn, nullptr, 0, &dbi_);
  if (status == 0) status = owner.Commit();
  if (status != 0) {
    Fail("open", status);
    mdb_env_close(env_);
    env_ = nullptr;
    return OpenResult::kFailed;
  }
  return OpenResult::kOpened;
}

int SessionDb::BeginRead(MDB_txn** txn) {
  int status = mdb_txn_begin(env_, nullptr, MDB_RDONLY, txn);
  if (status == MDB_READERS_FULL) {
    // Slots of processes killed mid-read; free them and try once more.
    int cleared = 0;
    mdb_reader_check(env_, &cleared);
    status = mdb_txn_begin(env_, nullptr, MDB_RDONLY, txn);
  }
  return status;
}

int SessionDb::FindById(const Sha256Digest& idHash, SessionRow* row) {
  MDB_txn* txn = nullptr;
  int status = BeginRead(&txn);
  if (status != 0) return Fail("read", status);
  TxnOwner owner(txn);
  MDB_val key = KeyOf(idHash), value;
  status = mdb_get(txn, dbi_, &key, &value);
  if (status == MDB_NOTFOUND) return 0;
  if (status != 0) return Fail("lookup", status);
  if (!DecodeSessionRow(value.mv_data, value.mv_size, row)) {
    MEROCGI_LOG("session store holds a record that does not decode");
    return -1;
  }
  row->idHash = idHash;
  return 1;
}

int SessionDb::Find(const Sha256Digest& idHash, const std::string& registry, SessionRow* row) {
  const int found = FindById(idHash, row);
  return found == 1 && row->registry != registry ? 0 : found;
}

int SessionDb::InWriteTransaction(const std::function<int(MDB_txn*)>& work) {
  MDB_txn* txn = nullptr;
  int status = mdb_txn_begin(env_, nullptr, 0, &txn);
  if (status != 0) return Fail("write", status);
  TxnOwner owner(txn);
  const int result = work(txn);
  if (result < 0) return result;
  status = owner.Commit();
  return status == 0 ? result : Fail("commit", status);
}

bool SessionDb::Touch(const Sha256Digest& idHash, int64_t now, int64_t idleMinutes) {
  return InWriteTransaction([&](MDB_txn* txn) -> int {
           MDB_val key = KeyOf(idHash), value;
           const int status = mdb_get(txn, dbi_, &key, &value);
           if (status == MDB_NOTFOUND) return 0;  // revoked meanwhile: nothing to touch
           if (status != 0) return Fail("last-seen update", status);
           SessionRow row;
           if (!DecodeSessionRow(value.mv_data, value.mv_size, &row)) {
             MEROCGI_LOG("session store holds a record that does not decode");
             return -1;
           }
           row.lastSeen = now;
           row.idleMinutes = idleMinutes;
           const std::string record = EncodeSessionRow(row);
           MDB_val updated{record.size(), const_cast<char*>(record.data())};
           const int put = mdb_put(txn, dbi_, &key, &updated, 0);
           return put == 0 ? 1 : Fail("last-seen update", put);
         }) >= 0;
}

namespace {

// Walks every record with a cursor of `txn`. `visit` gets the decoded row
// (null for a record that does not decode) and the cursor on it, and
// returns 0 to go on or an LMDB error to stop. Returns 0 or that error.
int ScanRecords(MDB_txn* txn, MDB_dbi dbi,
                const std::function<int(const SessionRow*, MDB_cursor*)>& visit) {
  CursorOwner cursor;
  int status = mdb_cursor_open(txn, dbi, cursor.Out());
  if (status != 0) return status;
  MDB_val key, value;
  for (status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_FIRST); status == 0;
       status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_NEXT)) {
    SessionRow row;
    const int stop = visit(RowFromCursor(key, value, &row) ? &row : nullptr, cursor.Get());
    if (stop != 0) return stop;
  }
  return status == MDB_NOTFOUND ? 0 : status;
}

// Deletes every record for which `matches` holds, and a record that does
// not decode when `dropUndecodable` is set. The number deleted, or -1 with
// the LMDB error in *status.
int DeleteWhere(MDB_txn* txn, MDB_dbi dbi, const std::function<bool(const SessionRow&)>& matches,
                bool dropUndecodable, int* status) {
  int removed = 0;
  *status = ScanRecords(txn, dbi, [&](const SessionRow* row, MDB_cursor* cursor) {
    if (row ? !matches(*row) : !dropUndecodable) return 0;
    ++removed;
    return mdb_cursor_del(cursor, 0);
  });
  return *status == 0 ? removed : -1;
}

int CountWhere(MDB_txn* txn, MDB_dbi dbi, const std::function<bool(const SessionRow&)>& matches,
               int* status) {
  int count = 0;
  *status = ScanRecords(txn, dbi, [&](const SessionRow* row, MDB_cursor*) {
    count += row && matches(*row);
    return 0;
  });
  return *status == 0 ? count : -1;
}

bool PastLifetime(const SessionRow& row, int64_t now) {
  return row.lifetime > 0 && now - row.created > row.lifetime;
}

// Whether every check would now refuse the session as expired, going by
// the widest idle limit a check applied to it (the platform's default
// until one has).
bool HasExpired(const SessionRow& row, int64_t now) {
  const int64_t idleMinutes =
      row.idleMinutes == kIdleLimitUnknown ? MERO_CGI_DEFAULT_SESSION_TIMEOUT : row.idleMinutes;
  return IsSessionExpired(row.created, row.lifetime, row.lastSeen,
                          static_cast<int>(std::clamp<int64_t>(idleMinutes, INT_MIN, INT_MAX)),
                          now);
}

// Removes the expired sessions among MERO_CGI_SESSION_EXPIRY_BATCH records
// from `start` on, going round to the first record after the last. A
// record that does not decode is left to Purge. 0, or an LMDB error.
int ExpireSome(MDB_txn* txn, MDB_dbi dbi, const Sha256Digest& start, int64_t now) {
  CursorOwner cursor;
  int status = mdb_cursor_open(txn, dbi, cursor.Out());
  if (status != 0) return status;
  MDB_val key = KeyOf(start), value;
  status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_SET_RANGE);
  bool wrapped = false;
  for (int examined = 0; examined < MERO_CGI_SESSION_EXPIRY_BATCH; ++examined) {
    if (status == MDB_NOTFOUND && !wrapped) {
      wrapped = true;
      status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_FIRST);
    }
    if (status != 0) break;
    // Round once at most: a store smaller than the batch is seen whole.
    if (wrapped && std::memcmp(key.mv_data, start.data(), std::min(key.mv_size, start.size())) >= 0)
      break;
    SessionRow row;
    if (RowFromCursor(key, value, &row) && HasExpired(row, now) &&
        (status = mdb_cursor_del(cursor.Get(), 0)) != 0)
      return status;
    status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_NEXT);
  }
  return status == MDB_NOTFOUND ? 0 : status;
}

}  // namespace

int SessionDb::Insert(const SessionRow& row, bool endOthers) {
  return InWriteTransaction([&](MDB_txn* txn) -> int {
    // Each new session clears out a few expired ones, so a store that no
    // one purges stays bounded by the sessions in use, and no login pays
    // for a look at every session.
    const int cleanup = ExpireSome(txn, dbi_, row.idHash, row.created);
    if (cleanup != 0) return Fail("insert", cleanup);
    if (endOthers) {
      std::vector<std::pair<Sha256Digest, std::string>> ended;
      int status = ScanRecords(txn, dbi_, [&](const SessionRow* other, MDB_cursor*) {
        if (!other || other->user != row.user || other->registry != row.registry) return 0;
        SessionRow endedRow = *other;
        endedRow.state = static_cast<int>(SessionState::kEnded);
        ended.emplace_back(endedRow.idHash, EncodeSessionRow(endedRow));
        return 0;
      });
      if (status != 0) return Fail("ending other sessions", status);
      for (auto& [idHash, record] : ended) {
        MDB_val otherKey = KeyOf(idHash), otherValue{record.size(), record.data()};
        status = mdb_put(txn, dbi_, &otherKey, &otherValue, 0);
        if (status != 0) return Fail("ending other sessions", status);
      }
    }
    const std::string record = EncodeSessionRow(row);
    MDB_val key = KeyOf(row.idHash), value{record.size(), const_cast<char*>(record.data())};
    const int status = mdb_put(txn, dbi_, &key, &value, MDB_NOOVERWRITE);
    if (status == MDB_MAP_FULL)
      MEROCGI_LOG(
          "session store is full; remove idle sessions with: webapi-session purge --idle N");
    return status == 0 ? 1 : Fail("insert", status);
  });
}

int SessionDb::Delete(const Sha256Digest& idHash) {
  return InWriteTransaction([&](MDB_txn* txn) -> int {
    MDB_val key = KeyOf(idHash);
    const int status = mdb_del(txn, dbi_, &key, nullptr);
    if (status == MDB_NOTFOUND) return 0;
    return status == 0 ? 1 : Fail("delete", status);
  });
}

int SessionDb::DeleteByRefPrefix(const std::string& hexPrefix) {
  std::string prefix = hexPrefix;
  for (char& c : prefix) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  auto matches = [&](const SessionRow& row) {
    return SessionRef(row.idHash).compare(0, prefix.size(), prefix) == 0;
  };
  return InWriteTransaction([&](MDB_txn* txn) -> int {
    int status = 0;
    // Count first, in the same transaction, so an ambiguous prefix removes
    // nothing.
    const int named = CountWhere(txn, dbi_, matches, &status);
    if (named < 0) return Fail("delete", status);
    if (named > 1) return -2;
    const int removed = DeleteWhere(txn, dbi_, matches, false, &status);
    return removed < 0 ? Fail("delete", status) : removed;
  });
}

int SessionDb::DeleteByUser(const std::string& user) {
  return InWriteTransaction([&](MDB_txn* txn) -> int {
    int status = 0;
    const int removed = DeleteWhere(
        txn, dbi_, [&](const SessionRow& row) { return row.user == user; }, false, &status);
    return removed < 0 ? Fail("delete", status) : removed;
  });
}

int SessionDb::Purge(int64_t now, int64_t idleSeconds) {
  return InWriteTransaction([&](MDB_txn* txn) -> int {
    int status = 0;
    const int removed = DeleteWhere(
        txn, dbi_,
        [&](const SessionRow& row) {
          return PastLifetime(row, now) || (idleSeconds > 0 && now - row.lastSeen > idleSeconds);
        },
        true, &status);  // a record no version of this code can read serves nobody
    return removed < 0 ? Fail("purge", status) : removed;
  });
}

int SessionDb::Collect(std::vector<SessionRow>* rows) {
  MDB_txn* txn = nullptr;
  int status = BeginRead(&txn);
  if (status != 0) return Fail("read", status);
  TxnOwner owner(txn);
  int undecodable = 0;
  status = ScanRecords(txn, dbi_, [&](const SessionRow* row, MDB_cursor*) {
    if (row)
      rows->push_back(*row);
    else
      ++undecodable;
    return 0;
  });
  if (status != 0) return Fail("read", status);
  if (undecodable)
    MEROCGI_LOG("session store holds %d records that do not decode; a purge removes them",
                undecodable);
  std::stable_sort(rows->begin(), rows->end(),
                   [](const SessionRow& a, const SessionRow& b) { return a.created < b.created; });
  return static_cast<int>(rows->size());
}

}  // namespace merocgi
