// The rules every decision about a link shares: whether the link itself can
// be used now, and whether a sharing session has proven it.
#ifndef MEROSHARING_LINKRULES_H
#define MEROSHARING_LINKRULES_H

#include <cstdint>
#include <string>

#include "SharingStore.h"

namespace MERO {
namespace sharing {

// Whether `id` has the shape of a link or session id (43 URL-safe
// characters). Anything else is never looked up.
bool IsIdShape(const char* id);

// MERO_SHARING_AUTHORIZED when the link can be used at `now`, else
// MERO_SHARING_DISABLED, _EXPIRED or _USED_UP, tested in that order.
int LinkState(const db::EntryRow& row, int64_t now);

// MERO_SHARING_AUTHORIZED when the link needs no password, or session
// `sid` (may be null) proved it from `client` and is within its lifetime;
// MERO_SHARING_PASSWORD_NEEDED otherwise; MERO_SHARING_STORE_ERROR when the
// store failed.
int SessionState(db::Store& store, MDB_txn* txn, const db::Digest& entryHash,
                 const db::EntryRow& row, const char* sid, const char* client, int64_t now);

// A sharing session at `now`: within its lifetime.
inline bool IsLive(const db::SessionRow& session, int64_t now) {
  return now >= session.created && now - session.created < MERO_SHARING_SESSION_LIFETIME;
}

}  // namespace sharing
}  // namespace MERO

#endif  // MEROSHARING_LINKRULES_H
