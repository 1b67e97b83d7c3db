// The session store: one LMDB environment shared by every CGI process and
// the administration tool, keyed by the SHA-256 of a session id.
//
// LMDB rather than SQLite, by measurement: a request reads its session
// through a memory map with no locking call, and the library loads in a
// fraction of SQLite's time; both count in every CGI process (see the
// session notes in the README).
#ifndef MEROCGI_SESSION_SESSIONDB_H
#define MEROCGI_SESSION_SESSIONDB_H

#include <lmdb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "SessionKeys.h"
#include "Sha256.h"

namespace merocgi {

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
  // The widest idle limit (minutes; 0: none) a successful check has
  // applied to the session, which the store's own expiry goes by.
  int64_t idleMinutes = kIdleLimitUnknown;
};

// A stored row: its fields packed after a format byte, texts with 32-bit
// lengths. Decoding checks every length against the record's size.
std::string EncodeSessionRow(const SessionRow& row);
bool DecodeSessionRow(const void* data, size_t size, SessionRow* row);

class SessionDb {
 public:
  enum class OpenResult { kOpened, kMissing, kFailed };
  enum class Access { kRequest, kWriter };

  // The session store, or another store of the same kind at `path` (the
  // login throttling records).
  SessionDb();
  explicit SessionDb(std::string path);
  ~SessionDb();
  SessionDb(const SessionDb&) = delete;
  SessionDb& operator=(const SessionDb&) = delete;

  // kRequest opens an existing store only (kMissing when there is none);
  // kWriter creates the directory and the store when needed and clears the
  // reader slots of processes that died. kFailed is logged.
  OpenResult Open(Access access);

  // 1 found (row filled), 0 not found, -1 failed (logged). FindById finds
  // the session in any registry; Find only in `registry`.
  int FindById(const Sha256Digest& idHash, SessionRow* row);
  int Find(const Sha256Digest& idHash, const std::string& registry, SessionRow* row);
  // Writes a new last-seen time and idle limit (the store must be open for
  // writing); false when it failed (logged).
  bool Touch(const Sha256Digest& idHash, int64_t now, int64_t idleMinutes);

  // Each runs in one write transaction and returns the rows changed, or -1
  // (logged). Insert first removes the expired sessions among
  // MERO_CGI_SESSION_EXPIRY_BATCH stored ones, taken from where the new
  // key falls (a random place: keys are hashes of random identifiers).
  int Insert(const SessionRow& row, bool endOthers);
  int Delete(const Sha256Digest& idHash);
  int DeleteByRefPrefix(const std::string& hexPrefix);  // -2 when ambiguous
  int DeleteByUser(const std::string& user);
  // Also removes records that do not decode (logged by Collect).
  int Purge(int64_t now, int64_t idleSeconds);
  // Appends every row that decodes, oldest first; the number of rows, or -1
  // when the store cannot be read. Records that do not decode are skipped
  // (logged): one bad record must not hide the others from the
  // administrator.
  int Collect(std::vector<SessionRow>* rows);

  static std::string Path();

  // Runs `work` in a write transaction, committing when it returns >= 0.
  int InWriteTransaction(const std::function<int(MDB_txn*)>& work);
  MDB_dbi Dbi() const { return dbi_; }
  // Logs an LMDB failure; returns -1.
  int Fail(const char* what, int status);

 private:
  // A read transaction; frees the slots of dead readers once when the
  // reader table is full.
  int BeginRead(MDB_txn** txn);

  std::string path_;
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONDB_H
