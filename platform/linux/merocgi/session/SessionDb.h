// The session database: one SQLite file shared by every CGI process and the
// administration tool. Rows are keyed by the SHA-256 of a session id.
//
// Rollback-journal mode, opened read-write without create by requests: a
// lookup takes one shared lock and reads a few pages, and a WAL database
// would create and remove its -wal and -shm files in every process.
#ifndef MEROCGI_SESSION_SESSIONDB_H
#define MEROCGI_SESSION_SESSIONDB_H

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Sha256.h"

namespace merocgi {

struct SqliteCloser {
  void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using UniqueSqlite = std::unique_ptr<sqlite3, SqliteCloser>;
using UniqueStatement = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

enum class SessionState : int { kActive = 1, kEnded = 2 };

struct SessionRow {
  Sha256Digest idHash{};
  std::string registry;
  std::string user;
  std::string client;
  int64_t created = 0;
  int64_t lastSeen = 0;
  int64_t lifetime = 0;  // seconds from creation; 0: none
  std::string csrf;
  int state = static_cast<int>(SessionState::kActive);
  std::string privileges;
};

class SessionDb {
 public:
  enum class OpenResult { kOpened, kMissing, kFailed };
  enum class Access { kRequest, kWriter };

  // kRequest opens an existing database only (kMissing when there is none);
  // kWriter creates the directory, the file and the schema when needed.
  // kFailed is logged.
  OpenResult Open(Access access);

  // 1 found (row filled), 0 not found, -1 failed (logged).
  int Find(const Sha256Digest& idHash, const std::string& registry, SessionRow* row);
  // Writes a new last-seen time; false when it failed (logged).
  bool Touch(const Sha256Digest& idHash, int64_t now);

  // The writer's operations run in one immediate transaction each. Each
  // returns the rows changed, or -1 (logged).
  int Insert(const SessionRow& row, bool endOthers);
  int Delete(const Sha256Digest& idHash);
  int DeleteByRefPrefix(const std::string& hexPrefix);  // -2 when ambiguous
  int DeleteByUser(const std::string& user);
  int Purge(int64_t now, int64_t idleSeconds);
  // Calls `visit` per row, oldest first; the number of rows or -1.
  int ForEach(const std::function<void(const SessionRow&)>& visit);

  static std::string Path();

 private:
  bool Exec(const char* sql);
  UniqueStatement Prepare(const char* sql);
  int Fail(const char* what);
  int InTransaction(const std::function<int()>& work);

  UniqueSqlite db_;
};

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONDB_H
