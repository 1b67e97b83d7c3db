// The sharing store: one LMDB environment per process holding four tables,
// each keyed by SHA-256 digests (the store never holds an id):
//   entries   link id hash                      -> EntryRow
//   sessions  sharing session id hash           -> SessionRow
//   tokens    session id hash, then link hash   -> TokenRow
//   throttle  "l:<ref>" / "c:<address>"        -> three 64-bit counts
// LMDB, like the login sessions: a request reads through a memory map with
// no lock call, LMDB is already linked into the library, and one write
// transaction at a time across processes makes "test the count, count the
// access" atomic. LMDB allows one environment per process, so every user in
// the process (the library, the checks, the administration calls) goes
// through Store::ForProcess.
#ifndef MEROSHARING_SHARINGSTORE_H
#define MEROSHARING_SHARINGSTORE_H

#include <lmdb.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "../merocgi/session/Sha256.h"
#include "merosharing.h"

namespace MERO {
namespace sharing {
namespace db {

using Digest = merocgi::Sha256Digest;

struct EntryRow {
  std::string item;
  std::string apis;  // admitted APIs, separated by '\n'
  std::string owner;
  int64_t created = 0;
  int64_t expires = 0;
  int64_t accessLimit = 0;
  int64_t accessCount = 0;
  std::string passwordHash;
  bool enabled = true;
};

struct SessionRow {
  std::string link;  // ref of the first link proven
  std::string client;
  int64_t created = 0;
  bool passwordProven = false;
};

std::string EncodeEntry(const EntryRow& row);
bool DecodeEntry(const MDB_val& value, EntryRow* row);
std::string EncodeSession(const SessionRow& row);
bool DecodeSession(const MDB_val& value, SessionRow* row);
std::string EncodeCreated(int64_t created);  // a token: when it was made
bool DecodeCreated(const MDB_val& value, int64_t* created);

Digest IdHash(const std::string& id);
std::string RefOf(const Digest& hash);  // 16 hex digits
std::string TokenKey(const Digest& session, const Digest& entry);

inline MDB_val ValOf(const void* data, size_t size) {
  return MDB_val{size, const_cast<void*>(data)};
}
inline MDB_val ValOf(const std::string& text) { return ValOf(text.data(), text.size()); }
inline MDB_val ValOf(const Digest& hash) { return ValOf(hash.data(), hash.size()); }

class Store {
 public:
  enum class Open { kExisting, kCreate };

  // The process's store at MERO_SHARING_DB under the appliance root: opened
  // on first use, kept open, reopened when its file was replaced or removed
  // since. With kExisting a missing store gives null and nothing is
  // created; null also when it could not be opened (logged).
  static Store* ForProcess(Open mode);
  // Whether the store's file exists (to tell "no store" from "unusable").
  static bool Exists();
  static std::string Path();

  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store();

  // Run `work` in a read (write) transaction; the result of `work`, or
  // MERO_SHARING_STORE_ERROR when the transaction failed (logged). A write
  // commits when `work` returns >= 0.
  int Read(const std::function<int(MDB_txn*)>& work);
  int Write(const std::function<int(MDB_txn*)>& work);
  // Logs an LMDB failure; returns MERO_SHARING_STORE_ERROR.
  static int Fail(const char* what, int status);

  MDB_dbi entries = 0, sessions = 0, tokens = 0, throttle = 0;

 private:
  Store() = default;
  bool OpenAt(const std::string& path, bool create);

  MDB_env* env_ = nullptr;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Reads the record under `key` of `dbi`: 1 found, 0 not,
// MERO_SHARING_STORE_ERROR (logged).
int Get(MDB_txn* txn, MDB_dbi dbi, MDB_val key, MDB_val* value);

// Visits every record of `dbi`; `visit` answers true to delete the record.
// 0, or MERO_SHARING_STORE_ERROR when the walk or a deletion failed (logged).
int ForEach(MDB_txn* txn, MDB_dbi dbi,
            const std::function<bool(const MDB_val& key, const MDB_val& value)>& visit);

}  // namespace db
}  // namespace sharing
}  // namespace MERO

#endif  // MEROSHARING_SHARINGSTORE_H
