// The operator's calls: create, list, enable or disable, revoke and purge
// links. Each runs in one transaction of the process's store.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <vector>

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

constexpr size_t kMinRefPrefix = 8;

bool HasControlByte(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
}

// An absolute path without empty, "." or ".." components (so "/" alone, or
// no trailing slash), within the size limit.
bool IsUsableItem(const std::string& item) {
  if (item.empty() || item[0] != '/' || item.size() > MERO_SHARING_MAX_ITEM_BYTES ||
      HasControlByte(item))
    return false;
  if (item == "/") return true;
  record::Entry root;
  root.item = "/";
  return root.Covers(item);
}

bool IsUsableApi(const std::string& api) {
  return !api.empty() && api.size() <= MERO_SHARING_MAX_API_BYTES && !HasControlByte(api) &&
         api.find(' ') == std::string::npos && api.front() != ':' && api.back() != ':' &&
         std::count(api.begin(), api.end(), ':') <= 1;
}

int Create(const MEROSHARING_LINK_INFO& link, const char* password, std::string* id) {
  const std::string item = link.item ? link.item : "";
  const std::string owner = link.owner ? link.owner : "";
  if (!IsUsableItem(item) || owner.empty() || owner.size() > MERO_SHARING_MAX_OWNER_BYTES ||
      HasControlByte(owner) || link.apiCount < 1 || link.apiCount > MERO_SHARING_MAX_APIS ||
      !link.apis || link.expires < 0 || link.accessLimit < 0 ||
      (password && ::strnlen(password, MERO_SHARING_MAX_PASSWORD_BYTES + 1) >
                       MERO_SHARING_MAX_PASSWORD_BYTES))
    return MERO_SHARING_INVALID;
  db::EntryRow row;
  for (int i = 0; i < link.apiCount; ++i) {
    const std::string api = link.apis[i] ? link.apis[i] : "";
    if (!IsUsableApi(api)) return MERO_SHARING_INVALID;
    row.apis += (i ? "\n" : "") + api;
  }
  row.item = item;
  row.owner = owner;
  row.created = std::time(nullptr);
  row.expires = link.expires;
  row.accessLimit = link.accessLimit;
  row.enabled = link.enabled != 0;
  if (password && *password && !HashPassword(password, &row.passwordHash))
    return MERO_SHARING_UNAVAILABLE;
  *id = merocgi::RandomToken(32);
  if (id->empty()) return MERO_SHARING_STORE_ERROR;
  Store* store = Store::ForProcess(Store::Open::kCreate);
  if (!store) return MERO_SHARING_STORE_ERROR;
  const Digest hash = db::IdHash(*id);
  const std::string record = db::EncodeEntry(row);
  return store->Write([&](MDB_txn* txn) {
    MDB_val key = db::ValOf(hash), value = db::ValOf(record);
    const int status = mdb_put(txn, store->entries, &key, &value, MDB_NOOVERWRITE);
    return status == 0 ? MERO_SHARING_AUTHORIZED : Store::Fail("creating a link", status);
  });
}

struct Listed {
  std::string ref;
  db::EntryRow row;
  std::vector<std::string> apis;
};

int List(void (*visit)(const MEROSHARING_LINK_INFO*, void*), void* context) {
  if (!Store::Exists()) return 0;
  Store* store = Store::ForProcess(Store::Open::kExisting);
  if (!store) return MERO_SHARING_STORE_ERROR;
  std::vector<Listed> links;
  const int status = store->Read([&](MDB_txn* txn) {
    return db::ForEach(txn, store->entries, [&](const MDB_val& key, const MDB_val& value) {
      Listed link;
      if (key.mv_size != Digest().size() || !db::DecodeEntry(value, &link.row)) {
        MEROSHARING_LOG("sharing store holds a link that does not decode; skipped");
        return false;
      }
      Digest hash;
      std::memcpy(hash.data(), key.mv_data, hash.size());
      link.ref = db::RefOf(hash);
      links.push_back(std::move(link));
      return false;
    });
  });
  if (status < 0) return status;
  // Oldest first, sorting positions: sorting the records themselves would
  // instantiate the sort for them, some tens of KiB of code in the library.
  std::vector<size_t> order(links.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return links[a].row.created < links[b].row.created;
  });
  // The store's transaction is over: `visit` may call the other operations.
  for (size_t position : order) {
    Listed& link = links[position];
    std::vector<const char*> apis;
    for (size_t at = 0; at < link.row.apis.size();) {
      size_t end = link.row.apis.find('\n', at);
      if (end == std::string::npos) end = link.row.apis.size();
      link.apis.push_back(link.row.apis.substr(at, end - at));
      at = end + 1;
    }
    for (const std::string& api : link.apis) apis.push_back(api.c_str());
    const MEROSHARING_LINK_INFO info{
        link.ref.c_str(),          link.row.item.c_str(),   apis.data(),
        static_cast<int>(apis.size()), link.row.owner.c_str(), link.row.created,
        link.row.expires,          link.row.accessLimit,    link.row.accessCount,
        !link.row.passwordHash.empty(), link.row.enabled};
    visit(&info, context);
  }
  return static_cast<int>(links.size());
}

// Applies `change` to the one link whose ref starts with `prefix`.
int ChangeOne(const char* prefix, const std::function<int(MDB_txn*, Store&, const MDB_val& key,
                                                          db::EntryRow& row)>& change) {
  std::string wanted = prefix ? prefix : "";
  if (wanted.size() < kMinRefPrefix || wanted.size() > MERO_SHARING_REF_CHARS ||
      !std::all_of(wanted.begin(), wanted.end(), [](char c) { return std::isxdigit(c & 0xff); }))
    return MERO_SHARING_INVALID;
  for (char& c : wanted) c = static_cast<char>(std::toupper(c & 0xff));
  if (!Store::Exists()) return 0;
  Store* store = Store::ForProcess(Store::Open::kExisting);
  if (!store) return MERO_SHARING_STORE_ERROR;
  return store->Write([&](MDB_txn* txn) -> int {
    std::vector<Digest> named;
    int status = db::ForEach(txn, store->entries, [&](const MDB_val& key, const MDB_val&) {
      Digest hash;
      if (key.mv_size != hash.size()) return false;
      std::memcpy(hash.data(), key.mv_data, hash.size());
      if (db::RefOf(hash).compare(0, wanted.size(), wanted) == 0) named.push_back(hash);
      return false;
    });
    if (status < 0) return status;
    if (named.size() > 1) return MERO_SHARING_INVALID;
    if (named.empty()) return 0;
    MDB_val value;
    status = db::Get(txn, store->entries, db::ValOf(named[0]), &value);
    db::EntryRow row;
    if (status < 0) return status;
    if (!db::DecodeEntry(value, &row)) return MERO_SHARING_STORE_ERROR;
    status = change(txn, *store, db::ValOf(named[0]), row);
    return status < 0 ? status : 1;
  });
}

int DeleteTokensOf(MDB_txn* txn, Store& store, const std::function<bool(const uint8_t* session,
                                                                        const uint8_t* entry)>& dead) {
  return db::ForEach(txn, store.tokens, [&](const MDB_val& key, const MDB_val&) {
    const auto* bytes = static_cast<const uint8_t*>(key.mv_data);
    return key.mv_size != 2 * Digest().size() || dead(bytes, bytes + Digest().size());
  });
}

int Purge(int64_t now) {
  if (!Store::Exists()) return 0;
  Store* store = Store::ForProcess(Store::Open::kExisting);
  if (!store) return MERO_SHARING_STORE_ERROR;
  return store->Write([&](MDB_txn* txn) -> int {
    int removed = 0;
    auto present = [&](MDB_dbi dbi, const uint8_t* hash) {
      MDB_val value;
      return db::Get(txn, dbi, db::ValOf(hash, Digest().size()), &value);
    };
    int status = db::ForEach(txn, store->entries, [&](const MDB_val&, const MDB_val& value) {
      db::EntryRow row;
      const bool expired = !db::DecodeEntry(value, &row) || (row.expires > 0 && now >= row.expires);
      removed += expired;
      return expired;
    });
    if (status == 0)
      status = db::ForEach(txn, store->sessions, [&](const MDB_val&, const MDB_val& value) {
        db::SessionRow row;
        return !db::DecodeSession(value, &row) || !IsLive(row, now);
      });
    bool failed = false;
    if (status == 0)
      status = DeleteTokensOf(txn, *store, [&](const uint8_t* session, const uint8_t* entry) {
        const int hasSession = present(store->sessions, session);
        const int hasEntry = present(store->entries, entry);
        failed = failed || hasSession < 0 || hasEntry < 0;
        return hasSession == 0 || hasEntry == 0;
      });
    if (status == 0)
      status = db::ForEach(txn, store->throttle, [&](const MDB_val&, const MDB_val& value) {
        return IsStale(DecodeCount(value), now);
      });
    if (failed) return MERO_SHARING_STORE_ERROR;
    return status < 0 ? status : removed;
  });
}

template <typename Work>
int Guarded(const char* what, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    MEROSHARING_LOG("%s failed: out of memory", what);
    return MERO_SHARING_STORE_ERROR;
  }
}

}  // namespace
}  // namespace sharing
}  // namespace MERO

using MERO::sharing::Guarded;

extern "C" int MeroSharingLinkCreate(const MEROSHARING_LINK_INFO* link, const char* password,
                                     char* id, int idSize) {
  if (id && idSize >= 1) id[0] = '\0';
  if (!link || !id || idSize <= MERO_SHARING_ID_CHARS) return MERO_SHARING_INVALID;
  return Guarded("creating a link", [&] {
    std::string created;
    const int result = MERO::sharing::Create(*link, password, &created);
    if (result == MERO_SHARING_AUTHORIZED) std::memcpy(id, created.c_str(), created.size() + 1);
    return result;
  });
}

extern "C" int MeroSharingLinkList(void (*visit)(const MEROSHARING_LINK_INFO*, void*),
                                   void* context) {
  if (!visit) return MERO_SHARING_INVALID;
  return Guarded("listing links", [&] { return MERO::sharing::List(visit, context); });
}

extern "C" int MeroSharingLinkSetEnabled(const char* refPrefix, int enabled) {
  return Guarded("changing a link", [&] {
    return MERO::sharing::ChangeOne(
        refPrefix, [&](MDB_txn* txn, MERO::sharing::db::Store& store, const MDB_val& key,
                       MERO::sharing::db::EntryRow& row) {
          row.enabled = enabled != 0;
          const std::string record = MERO::sharing::db::EncodeEntry(row);
          MDB_val k = key, value = MERO::sharing::db::ValOf(record);
          const int status = mdb_put(txn, store.entries, &k, &value, 0);
          return status == 0 ? 0 : MERO::sharing::db::Store::Fail("changing a link", status);
        });
  });
}

extern "C" int MeroSharingLinkRevoke(const char* refPrefix) {
  return Guarded("revoking a link", [&] {
    return MERO::sharing::ChangeOne(
        refPrefix, [&](MDB_txn* txn, MERO::sharing::db::Store& store, const MDB_val& key,
                       MERO::sharing::db::EntryRow&) {
          MDB_val k = key;
          const int status = mdb_del(txn, store.entries, &k, nullptr);
          if (status != 0) return MERO::sharing::db::Store::Fail("revoking a link", status);
          return MERO::sharing::DeleteTokensOf(txn, store, [&](const uint8_t*, const uint8_t* entry) {
            return std::memcmp(entry, key.mv_data, key.mv_size) == 0;
          });
        });
  });
}

extern "C" int MeroSharingPurge(long long now) {
  return Guarded("purging links", [&] { return MERO::sharing::Purge(now); });
}

extern "C" int MeroSharingGetDbPath(char* buf, int size) {
  if (!buf || size < 1) return 0;
  buf[0] = '\0';
  const std::string path = MERO::sharing::db::Store::Path();
  if (path.size() >= static_cast<size_t>(size)) return 0;
  std::memcpy(buf, path.c_str(), path.size() + 1);
  return 1;
}
