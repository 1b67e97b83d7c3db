#include "SessionDb.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "../CgiLog.h"
#include "merocgi.h"
#include "merocore.h"

namespace merocgi {
namespace {

constexpr const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS sessions("
    " id_hash BLOB PRIMARY KEY, registry TEXT NOT NULL, user TEXT NOT NULL,"
    " client TEXT NOT NULL, created INTEGER NOT NULL, last_seen INTEGER NOT NULL,"
    " lifetime INTEGER NOT NULL, csrf TEXT NOT NULL, state INTEGER NOT NULL,"
    " privileges TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS sessions_by_user ON sessions(user, registry);";

constexpr const char kColumns[] =
    "id_hash, registry, user, client, created, last_seen, lifetime, csrf, state, privileges";

std::string ColumnText(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  return text ? reinterpret_cast<const char*>(text) : "";
}

void ReadRow(sqlite3_stmt* statement, SessionRow* row) {
  const void* blob = sqlite3_column_blob(statement, 0);
  if (blob && sqlite3_column_bytes(statement, 0) == static_cast<int>(row->idHash.size()))
    std::memcpy(row->idHash.data(), blob, row->idHash.size());
  row->registry = ColumnText(statement, 1);
  row->user = ColumnText(statement, 2);
  row->client = ColumnText(statement, 3);
  row->created = sqlite3_column_int64(statement, 4);
  row->lastSeen = sqlite3_column_int64(statement, 5);
  row->lifetime = sqlite3_column_int64(statement, 6);
  row->csrf = ColumnText(statement, 7);
  row->state = sqlite3_column_int(statement, 8);
  row->privileges = ColumnText(statement, 9);
}

void BindHash(sqlite3_stmt* statement, int index, const Sha256Digest& idHash) {
  sqlite3_bind_blob(statement, index, idHash.data(), static_cast<int>(idHash.size()),
                    SQLITE_STATIC);
}

void BindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// Creates each missing directory of `path`'s parent, 0700: the database is
// the CGI user's alone.
bool MakeParentDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

}  // namespace

std::string SessionDb::Path() { return std::string(MeroApplianceRoot()) + MERO_CGI_SESSION_DB; }

SessionDb::OpenResult SessionDb::Open(Access access) {
  const std::string path = Path();
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  if (access == Access::kWriter) {
    if (!MakeParentDirectories(path)) {
      MEROCGI_LOG("cannot create the session directory for %s: %s", path.c_str(),
                  std::strerror(errno));
      return OpenResult::kFailed;
    }
    flags |= SQLITE_OPEN_CREATE;
  } else if (::access(path.c_str(), F_OK) != 0) {
    return OpenResult::kMissing;  // no session was ever created
  }
  sqlite3* handle = nullptr;
  const int status = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
  db_.reset(handle);
  if (status != SQLITE_OK) {
    Fail("open");
    db_.reset();
    return OpenResult::kFailed;
  }
  sqlite3_busy_timeout(db_.get(), MERO_CGI_SESSION_BUSY_MS);
  if (access == Access::kWriter) {
    ::chmod(path.c_str(), 0600);
    if (!Exec(kSchema)) {
      db_.reset();
      return OpenResult::kFailed;
    }
  }
  return OpenResult::kOpened;
}

int SessionDb::Fail(const char* what) {
  MEROCGI_LOG("session database %s failed: %s", what, db_ ? sqlite3_errmsg(db_.get()) : "no handle");
  return -1;
}

bool SessionDb::Exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  MEROCGI_LOG("session database statement failed: %s", message ? message : "unknown error");
  sqlite3_free(message);
  return false;
}

UniqueStatement SessionDb::Prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) Fail("prepare");
  return UniqueStatement(statement);
}

int SessionDb::Find(const Sha256Digest& idHash, const std::string& registry, SessionRow* row) {
  static const std::string sql =
      std::string("SELECT ") + kColumns + " FROM sessions WHERE id_hash = ?1 AND registry = ?2";
  UniqueStatement find = Prepare(sql.c_str());
  if (!find) return -1;
  BindHash(find.get(), 1, idHash);
  BindText(find.get(), 2, registry);
  const int status = sqlite3_step(find.get());
  if (status == SQLITE_DONE) return 0;
  if (status != SQLITE_ROW) return Fail("lookup");
  ReadRow(find.get(), row);
  return 1;
}

bool SessionDb::Touch(const Sha256Digest& idHash, int64_t now) {
  UniqueStatement touch = Prepare("UPDATE sessions SET last_seen = ?2 WHERE id_hash = ?1");
  if (!touch) return false;
  BindHash(touch.get(), 1, idHash);
  sqlite3_bind_int64(touch.get(), 2, now);
  return sqlite3_step(touch.get()) == SQLITE_DONE || Fail("last-seen update") == 0;
}

int SessionDb::InTransaction(const std::function<int()>& work) {
  // IMMEDIATE takes the write lock up front, so the busy time-out applies;
  // a read lock upgraded later could fail at once to avoid a deadlock.
  if (!Exec("BEGIN IMMEDIATE")) return -1;
  const int result = work();
  if (result < 0 || !Exec("COMMIT")) {
    Exec("ROLLBACK");
    return result < 0 ? result : -1;
  }
  return result;
}

int SessionDb::Insert(const SessionRow& row, bool endOthers) {
  return InTransaction([&]() -> int {
    if (endOthers) {
      UniqueStatement end =
          Prepare("UPDATE sessions SET state = ?3 WHERE user = ?1 AND registry = ?2");
      if (!end) return -1;
      BindText(end.get(), 1, row.user);
      BindText(end.get(), 2, row.registry);
      sqlite3_bind_int(end.get(), 3, static_cast<int>(SessionState::kEnded));
      if (sqlite3_step(end.get()) != SQLITE_DONE) return Fail("ending other sessions");
    }
    UniqueStatement insert = Prepare(
        "INSERT INTO sessions(id_hash, registry, user, client, created, last_seen, lifetime,"
        " csrf, state, privileges) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
    if (!insert) return -1;
    BindHash(insert.get(), 1, row.idHash);
    BindText(insert.get(), 2, row.registry);
    BindText(insert.get(), 3, row.user);
    BindText(insert.get(), 4, row.client);
    sqlite3_bind_int64(insert.get(), 5, row.created);
    sqlite3_bind_int64(insert.get(), 6, row.lastSeen);
    sqlite3_bind_int64(insert.get(), 7, row.lifetime);
    BindText(insert.get(), 8, row.csrf);
    sqlite3_bind_int(insert.get(), 9, row.state);
    BindText(insert.get(), 10, row.privileges);
    if (sqlite3_step(insert.get()) != SQLITE_DONE) return Fail("insert");
    return 1;
  });
}

int SessionDb::Delete(const Sha256Digest& idHash) {
  return InTransaction([&]() -> int {
    UniqueStatement remove = Prepare("DELETE FROM sessions WHERE id_hash = ?1");
    if (!remove) return -1;
    BindHash(remove.get(), 1, idHash);
    if (sqlite3_step(remove.get()) != SQLITE_DONE) return Fail("delete");
    return sqlite3_changes(db_.get());
  });
}

int SessionDb::DeleteByRefPrefix(const std::string& hexPrefix) {
  return InTransaction([&]() -> int {
    // The prefix is hex digits only (checked by the caller): no LIKE wildcard.
    UniqueStatement count =
        Prepare("SELECT count(*) FROM sessions WHERE hex(id_hash) LIKE upper(?1) || '%'");
    if (!count) return -1;
    BindText(count.get(), 1, hexPrefix);
    if (sqlite3_step(count.get()) != SQLITE_ROW) return Fail("count");
    const int matches = sqlite3_column_int(count.get(), 0);
    if (matches > 1) return -2;
    UniqueStatement remove =
        Prepare("DELETE FROM sessions WHERE hex(id_hash) LIKE upper(?1) || '%'");
    if (!remove) return -1;
    BindText(remove.get(), 1, hexPrefix);
    if (sqlite3_step(remove.get()) != SQLITE_DONE) return Fail("delete");
    return sqlite3_changes(db_.get());
  });
}

int SessionDb::DeleteByUser(const std::string& user) {
  return InTransaction([&]() -> int {
    UniqueStatement remove = Prepare("DELETE FROM sessions WHERE user = ?1");
    if (!remove) return -1;
    BindText(remove.get(), 1, user);
    if (sqlite3_step(remove.get()) != SQLITE_DONE) return Fail("delete");
    return sqlite3_changes(db_.get());
  });
}

int SessionDb::Purge(int64_t now, int64_t idleSeconds) {
  return InTransaction([&]() -> int {
    UniqueStatement remove = Prepare(
        "DELETE FROM sessions WHERE (lifetime > 0 AND created + lifetime < ?1)"
        " OR (?2 > 0 AND last_seen + ?2 < ?1)");
    if (!remove) return -1;
    sqlite3_bind_int64(remove.get(), 1, now);
    sqlite3_bind_int64(remove.get(), 2, idleSeconds);
    if (sqlite3_step(remove.get()) != SQLITE_DONE) return Fail("purge");
    return sqlite3_changes(db_.get());
  });
}

int SessionDb::ForEach(const std::function<void(const SessionRow&)>& visit) {
  const std::string sql = std::string("SELECT ") + kColumns + " FROM sessions ORDER BY created";
  UniqueStatement list = Prepare(sql.c_str());
  if (!list) return -1;
  int rows = 0;
  int status;
  while ((status = sqlite3_step(list.get())) == SQLITE_ROW) {
    SessionRow row;
    ReadRow(list.get(), &row);
    visit(row);
    ++rows;
  }
  return status == SQLITE_DONE ? rows : Fail("list");
}

}  // namespace merocgi
