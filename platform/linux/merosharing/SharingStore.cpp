#include "SharingStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "../merocgi/session/SessionKeys.h"
#include "SharingLog.h"
#include "merocore.h"
#include "mero_lmdb_owners.h"

#ifdef MEROCGI_LMDB_LINKED_IN
// What the linked-in LMDB's assertion handler prints to (see CMakeLists.txt).
// The session store defines it where both stores share one copy of LMDB;
// this weak definition serves a libmerosharing.so of its own.
extern "C" __attribute__((visibility("hidden"), weak)) std::FILE* merocgi_lmdb_stderr;
std::FILE* merocgi_lmdb_stderr = nullptr;
#endif

namespace MERO {
namespace sharing {
namespace db {
namespace {

using mero::CursorOwner;
using mero::TxnOwner;

constexpr uint8_t kRowFormat = 1;
constexpr unsigned kTables = 4;

class Writer {
 public:
  explicit Writer(std::string* out) : out_(out) { out_->push_back(char(kRowFormat)); }
  Writer& Int(int64_t value) {
    for (int i = 0; i < 8; ++i) out_->push_back(static_cast<char>(uint64_t(value) >> (8 * i)));
    return *this;
  }
  Writer& Text(const std::string& text) {
    const uint32_t size = static_cast<uint32_t>(text.size());
    for (int i = 0; i < 4; ++i) out_->push_back(static_cast<char>(size >> (8 * i)));
    out_->append(text);
    return *this;
  }

 private:
  std::string* out_;
};

// Reads what Writer wrote; every length is checked against the record.
class Reader {
 public:
  explicit Reader(const MDB_val& value)
      : at_(static_cast<const uint8_t*>(value.mv_data)), left_(value.mv_size) {
    ok_ = left_ >= 1 && *at_ == kRowFormat;
    Skip(ok_ ? 1 : 0);
  }
  Reader& Int(int64_t* value) {
    if (!ok_ || left_ < 8) return Bad();
    uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits |= uint64_t(at_[i]) << (8 * i);
    *value = static_cast<int64_t>(bits);
    Skip(8);
    return *this;
  }
  Reader& Text(std::string* text) {
    if (!ok_ || left_ < 4) return Bad();
    const uint32_t size = at_[0] | at_[1] << 8 | at_[2] << 16 | uint32_t(at_[3]) << 24;
    Skip(4);
    if (left_ < size) return Bad();
    text->assign(reinterpret_cast<const char*>(at_), size);
    Skip(size);
    return *this;
  }
  bool Done() const { return ok_ && left_ == 0; }

 private:
  Reader& Bad() {
    ok_ = false;
    return *this;
  }
  void Skip(size_t n) {
    at_ += n;
    left_ -= n;
  }
  const uint8_t* at_;
  size_t left_;
  bool ok_;
};

bool MakeParentDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (::mkdir(path.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

}  // namespace

std::string EncodeEntry(const EntryRow& row) {
  std::string out;
  Writer(&out)
      .Int(row.created)
      .Int(row.expires)
      .Int(row.accessLimit)
      .Int(row.accessCount)
      .Int(row.enabled)
      .Text(row.item)
      .Text(row.apis)
      .Text(row.owner)
      .Text(row.passwordHash);
  return out;
}

bool DecodeEntry(const MDB_val& value, EntryRow* row) {
  int64_t enabled = 0;
  const bool done = Reader(value)
                        .Int(&row->created)
                        .Int(&row->expires)
                        .Int(&row->accessLimit)
                        .Int(&row->accessCount)
                        .Int(&enabled)
                        .Text(&row->item)
                        .Text(&row->apis)
                        .Text(&row->owner)
                        .Text(&row->passwordHash)
                        .Done();
  row->enabled = enabled != 0;
  return done;
}

std::string EncodeSession(const SessionRow& row) {
  std::string out;
  Writer(&out).Int(row.created).Int(row.passwordProven).Text(row.link).Text(row.client);
  return out;
}

bool DecodeSession(const MDB_val& value, SessionRow* row) {
  int64_t proven = 0;
  const bool done =
      Reader(value).Int(&row->created).Int(&proven).Text(&row->link).Text(&row->client).Done();
  row->passwordProven = proven != 0;
  return done;
}

std::string EncodeCreated(int64_t created) {
  std::string out;
  Writer(&out).Int(created);
  return out;
}

bool DecodeCreated(const MDB_val& value, int64_t* created) {
  return Reader(value).Int(created).Done();
}

Digest IdHash(const std::string& id) { return merocgi::Sha256(id.data(), id.size()); }

std::string RefOf(const Digest& hash) { return merocgi::SessionRef(hash); }

std::string TokenKey(const Digest& session, const Digest& entry) {
  std::string key(reinterpret_cast<const char*>(session.data()), session.size());
  key.append(reinterpret_cast<const char*>(entry.data()), entry.size());
  return key;
}

Store* Store::ForProcess(Open mode) {
  // Function-local: nothing is opened before the first sharing request.
  static std::unique_ptr<Store> store;
  const std::string path = Path();
  struct stat now;
  const bool exists = ::stat(path.c_str(), &now) == 0;
  if (store && exists && now.st_dev == store->device_ && now.st_ino == store->inode_)
    return store.get();
  store.reset();  // removed or replaced: the open environment is no longer the store
  if (!exists && mode == Open::kExisting) return nullptr;
  std::unique_ptr<Store> opened(new Store());
  if (!opened->OpenAt(path, mode == Open::kCreate)) return nullptr;
  store = std::move(opened);
  return store.get();
}

Store::~Store() {
  if (env_) mdb_env_close(env_);
}

int Store::Fail(const char* what, int status) {
  MEROSHARING_LOG("sharing store %s failed: %s", what, mdb_strerror(status));
  return MERO_SHARING_STORE_ERROR;
}

std::string Store::Path() { return std::string(MeroApplianceRoot()) + MERO_SHARING_DB; }

bool Store::Exists() { return ::access(Path().c_str(), F_OK) == 0; }

bool Store::OpenAt(const std::string& path, bool create) {
  auto Failed = [](int status) {
    Fail("open", status);
    return false;
  };
  if (create && !MakeParentDirectories(path)) {
    MEROSHARING_LOG("cannot create the directory of %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
#ifdef MEROCGI_LMDB_LINKED_IN
  merocgi_lmdb_stderr = stderr;
#endif
  // A crash may lose the last counted access, never the store's
  // consistency; one sync per write instead of two halves its cost.
  const unsigned flags = MDB_NOSUBDIR | MDB_NOTLS | MDB_NORDAHEAD | MDB_NOMETASYNC;
  int status = mdb_env_create(&env_);
  if (status == 0) status = mdb_env_set_mapsize(env_, MERO_SHARING_STORE_BYTES);
  if (status == 0) status = mdb_env_set_maxreaders(env_, MERO_SHARING_MAX_READERS);
  if (status == 0) status = mdb_env_set_maxdbs(env_, kTables);
  if (status == 0) status = mdb_env_open(env_, path.c_str(), flags, 0600);
  if (status != 0) return Failed(status);
  int cleared = 0;
  mdb_reader_check(env_, &cleared);  // slots of processes that died mid-read
  MDB_txn* txn = nullptr;
  // The tables exist once the store does: only its creator needs a write.
  status = mdb_txn_begin(env_, nullptr, create ? 0 : MDB_RDONLY, &txn);
  if (status != 0) return Failed(status);
  TxnOwner owner(txn);
  const unsigned tableFlags = create ? MDB_CREATE : 0;
  for (auto [name, dbi] : {std::pair{"entries", &entries}, std::pair{"sessions", &sessions},
                           std::pair{"tokens", &tokens}, std::pair{"throttle", &throttle}}) {
    if (status == 0) status = mdb_dbi_open(txn, name, tableFlags, dbi);
  }
  if (status == 0) status = owner.Commit();
  if (status != 0) return Failed(status);
  struct stat opened;
  if (::stat(path.c_str(), &opened) != 0) return false;
  device_ = opened.st_dev;
  inode_ = opened.st_ino;
  return true;
}

int Store::Read(const std::function<int(MDB_txn*)>& work) {
  MDB_txn* txn = nullptr;
  int status = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  if (status == MDB_READERS_FULL) {
    int cleared = 0;
    mdb_reader_check(env_, &cleared);
    status = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn);
  }
  if (status != 0) return Fail("read", status);
  TxnOwner owner(txn);
  return work(txn);
}

int Store::Write(const std::function<int(MDB_txn*)>& work) {
  MDB_txn* txn = nullptr;
  int status = mdb_txn_begin(env_, nullptr, 0, &txn);
  if (status != 0) return Fail("write", status);
  TxnOwner owner(txn);
  const int result = work(txn);
  if (result < 0) return result;
  status = owner.Commit();
  if (status == MDB_MAP_FULL)
    MEROSHARING_LOG("sharing store is full; remove old links with: webapi-share purge");
  return status == 0 ? result : Fail("commit", status);
}

int Get(MDB_txn* txn, MDB_dbi dbi, MDB_val key, MDB_val* value) {
  const int status = mdb_get(txn, dbi, &key, value);
  if (status == MDB_NOTFOUND) return 0;
  return status == 0 ? 1 : Store::Fail("lookup", status);
}

int ForEach(MDB_txn* txn, MDB_dbi dbi,
            const std::function<bool(const MDB_val& key, const MDB_val& value)>& visit) {
  CursorOwner cursor;
  int status = mdb_cursor_open(txn, dbi, cursor.Out());
  MDB_val key, value;
  if (status == 0) status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_FIRST);
  while (status == 0) {
    if (visit(key, value) && (status = mdb_cursor_del(cursor.Get(), 0)) != 0) break;
    status = mdb_cursor_get(cursor.Get(), &key, &value, MDB_NEXT);
  }
  return status == MDB_NOTFOUND ? 0 : Store::Fail("walk", status);
}

}  // namespace db
}  // namespace sharing
}  // namespace MERO
