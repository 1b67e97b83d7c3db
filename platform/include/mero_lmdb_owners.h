// Owners of LMDB transactions and cursors, for the platform libraries that
// keep LMDB stores (sessions, login throttling, sharing links). Header-only
// and internal (not installed), like mero_owners.h, which stays free of
// LMDB so that code without a store never sees its header. C++ only.
#ifndef MERO_LMDB_OWNERS_H
#define MERO_LMDB_OWNERS_H

#include <lmdb.h>

#include <utility>

namespace mero {

// Aborts a transaction unless it was committed.
class TxnOwner {
 public:
  explicit TxnOwner(MDB_txn* txn) : txn_(txn) {}
  TxnOwner(const TxnOwner&) = delete;
  TxnOwner& operator=(const TxnOwner&) = delete;
  ~TxnOwner() {
    if (txn_) mdb_txn_abort(txn_);
  }
  MDB_txn* Get() const { return txn_; }
  int Commit() { return mdb_txn_commit(std::exchange(txn_, nullptr)); }

 private:
  MDB_txn* txn_;
};

// Closes a cursor once it was opened into Out().
class CursorOwner {
 public:
  CursorOwner() = default;
  CursorOwner(const CursorOwner&) = delete;
  CursorOwner& operator=(const CursorOwner&) = delete;
  ~CursorOwner() {
    if (cursor_) mdb_cursor_close(cursor_);
  }
  MDB_cursor** Out() { return &cursor_; }
  MDB_cursor* Get() const { return cursor_; }

 private:
  MDB_cursor* cursor_ = nullptr;
};

}  // namespace mero

#endif  // MERO_LMDB_OWNERS_H
