// The records, the process's database and its three accessors.
#include <strings.h>

#include <new>

#include "SharingStore.h"
#include "merosharing.h"

namespace MERO {
namespace sharing {
namespace record {

bool Entry::Admits(const std::string& api, const std::string& method) const {
  for (const std::string& admitted : apis) {
    if (admitted == api && api.find(':') == std::string::npos) return true;
    if (admitted.size() == api.size() + 1 + method.size() && !method.empty() &&
        admitted.compare(0, api.size(), api) == 0 && admitted[api.size()] == ':' &&
        strcasecmp(admitted.c_str() + api.size() + 1, method.c_str()) == 0)
      return true;
  }
  return false;
}

bool Entry::Covers(const std::string& path) const {
  if (item.empty() || path.compare(0, item.size(), item) != 0) return false;
  if (path.size() == item.size()) return true;
  // Below a folder item: "/a/b" covers "/a/b/c" but not "/a/bc" or "/a/b/../x".
  size_t at = item.size();
  if (item.back() != '/') {
    if (path[at] != '/') return false;
    ++at;
  }
  for (size_t end; at <= path.size(); at = end + 1) {
    end = path.find('/', at);
    if (end == std::string::npos) end = path.size();
    const std::string component = path.substr(at, end - at);
    if (component.empty() || component == "." || component == "..") return false;
  }
  return true;
}

}  // namespace record

namespace db {
namespace {

void FillEntry(const std::string& hash, const EntryRow& row, record::Entry* entry) {
  entry->hash = hash;
  entry->ref = RefOf(IdHash(hash));
  entry->item = row.item;
  entry->apis.clear();
  for (size_t at = 0; at < row.apis.size();) {
    size_t end = row.apis.find('\n', at);
    if (end == std::string::npos) end = row.apis.size();
    entry->apis.push_back(row.apis.substr(at, end - at));
    at = end + 1;
  }
  entry->owner = row.owner;
  entry->created = row.created;
  entry->expires = row.expires;
  entry->accessLimit = row.accessLimit;
  entry->accessCount = row.accessCount;
  entry->passwordHash = row.passwordHash;
  entry->enabled = row.enabled;
}

// Runs a look-up on the store of `base`; false when it is not good, the
// look-up found nothing, failed, or ran out of memory.
bool Lookup(const BaseDB& base, const std::function<int(Store&, MDB_txn*)>& find) {
  Store* store = base.GetStore();
  if (!store) return false;
  try {
    return store->Read([&](MDB_txn* txn) { return find(*store, txn); }) == 1;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

bool BaseDB::IsGood() const { return store_ != nullptr; }

SharingDB& SharingDB::Instance() {
  static SharingDB instance;  // constructed at the first call, opens nothing itself
  instance.store_ = Store::ForProcess(Store::Open::kExisting);
  return instance;
}

bool EntryDB::GetByHash(const std::string& hash, record::Entry& entry) const {
  return Lookup(base_, [&](Store& store, MDB_txn* txn) {
    MDB_val value;
    const int found = Get(txn, store.entries, ValOf(IdHash(hash)), &value);
    EntryRow row;
    if (found != 1) return found;
    if (!DecodeEntry(value, &row)) return -1;
    FillEntry(hash, row, &entry);
    return 1;
  });
}

bool SessionDB::GetBySessionId(const std::string& id, record::Session& session) const {
  return Lookup(base_, [&](Store& store, MDB_txn* txn) {
    MDB_val value;
    const int found = Get(txn, store.sessions, ValOf(IdHash(id)), &value);
    SessionRow row;
    if (found != 1) return found;
    if (!DecodeSession(value, &row)) return -1;
    session.id = id;
    session.link = row.link;
    session.client = row.client;
    session.created = row.created;
    session.passwordProven = row.passwordProven;
    return 1;
  });
}

bool TokenDB::GetBySessionEntry(const record::Session& session, const record::Entry& entry,
                                record::Token& token) const {
  return Lookup(base_, [&](Store& store, MDB_txn* txn) {
    const Digest sessionHash = IdHash(session.id), entryHash = IdHash(entry.hash);
    MDB_val value;
    const int found = Get(txn, store.tokens, ValOf(TokenKey(sessionHash, entryHash)), &value);
    int64_t created = 0;
    if (found != 1) return found;
    if (!DecodeCreated(value, &created)) return -1;
    token.sessionRef = RefOf(sessionHash);
    token.entryRef = RefOf(entryHash);
    token.created = created;
    return 1;
  });
}

}  // namespace db
}  // namespace sharing
}  // namespace MERO
