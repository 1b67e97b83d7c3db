/* Sharing platform library (libmerosharing): links that let somebody without
 * an account call chosen APIs on one chosen item, the visitors' sharing
 * sessions, and the decision whether a request may go through a link.
 *
 * The store. Links, sharing sessions, the tokens that join them and the
 * password-throttling counts live in one LMDB store, MERO_SHARING_DB under
 * the appliance root (merocore.h), lock file "<path>-lock" beside it,
 * created with mode 0600 in a 0700 directory by the first writer (the
 * webapi-share tool creating a link): both files must belong to the user
 * the CGI programs run as. A process opens the store once, on its first
 * sharing request, and never creates it; an ordinary request never opens it
 * (nothing here runs at load time). Readers never wait; writers take turns,
 * one write transaction at a time across processes, so no update is lost.
 *
 * Identifiers. A link id and a sharing session id are 256 bits from
 * getrandom(2) as 43 characters of URL-safe base64. The store keeps only
 * their SHA-256, so a copy of the store opens no link; a link's `ref` (the
 * first 16 hex digits of that hash) names it to the operator.
 *
 * Passwords are stored as yescrypt hashes made by libxcrypt, which is loaded
 * (dlopen of libcrypt.so.1) only where a password is set or checked:
 * creating a link and MeroSharingSessionOpen. A sharing request never
 * checks a password: a visitor proves it once and gets a sharing session.
 *
 * One process, one thread (the process's store is not shared between
 * threads). C linkage for the operations a C program may call; the records
 * and database accessors are C++. Nothing throws. */
#ifndef MEROSHARING_H
#define MEROSHARING_H

#include "mero_export.h"

/* Name of the CGI environment variable that carries a link id sent as the
 * request header "X-Mero-Sharing" (the web server's rendering of it). */
#define SZ_X_SHARING_HEADER "HTTP_X_MERO_SHARING"

/* Where the store lives, under the appliance root. */
#define MERO_SHARING_DB "/var/lib/merosharing/links.mdb"
/* The checker program the library runs, under the appliance root. */
#define MERO_SHARING_CHECKER "/usr/mero/bin/merosharingchecker"

/* Limits. */
#define MERO_SHARING_ID_CHARS 43              /* link ids and sharing session ids */
#define MERO_SHARING_REF_CHARS 16             /* a link's ref */
#define MERO_SHARING_MAX_ITEM_BYTES 4096      /* the shared item's path */
#define MERO_SHARING_MAX_API_BYTES 256        /* one admitted "API" or "API:method" */
#define MERO_SHARING_MAX_APIS 64              /* admitted APIs of one link */
#define MERO_SHARING_MAX_OWNER_BYTES 256      /* the owner's name */
#define MERO_SHARING_MAX_PASSWORD_BYTES 1024  /* a link password */
#define MERO_SHARING_STORE_BYTES (256LL * 1024 * 1024) /* data the store holds at most */
#define MERO_SHARING_MAX_READERS 1024         /* processes reading at once */
/* A sharing session lasts this many seconds from its creation. */
#define MERO_SHARING_SESSION_LIFETIME 86400

/* Throttling of password proofs, the rule of logins (merocgi.h): every
 * attempt counts against its link and its client address before the
 * password is checked; a success clears its link's count and takes its
 * attempt back from the address. A count is
 * forgotten once its last attempt is WINDOW seconds old. At LINK_LIMIT
 * attempts on one link, or CLIENT_LIMIT from one address, that link or
 * address is locked for LOCK seconds, doubling with every further attempt
 * up to MAX_LOCK; while locked, proofs are answered
 * MERO_SHARING_OPEN_THROTTLED without checking the password. */
#define MERO_SHARING_THROTTLE_LINK_LIMIT 10
#define MERO_SHARING_THROTTLE_CLIENT_LIMIT 20
#define MERO_SHARING_THROTTLE_WINDOW 300
#define MERO_SHARING_THROTTLE_LOCK 60
#define MERO_SHARING_THROTTLE_MAX_LOCK 900

MERO_EXTERN_C_BEGIN

/* ---- the decision of a sharing request ------------------------------------ */

/* The request handed to MeroSharingIsAuthorized: five pointer-sized words.
 * The three reserved words are not read on this platform (pass null). */
typedef struct _tag_SharingAuthRequest {
  const char* sharingId;  /* the link id, or null */
  const void* reserved1;
  const void* reserved2;
  const void* reserved3;
  const char* sharingSid; /* the sharing session id, or null */
} SharingAuthRequest;

/* Results of MeroSharingIsAuthorized, and the envelope code the library
 * (WebAPI::CheckSharingPermission) turns each into, so that a page knows
 * what to do:
 *   1   MERO_SHARING_AUTHORIZED                 the call may go on
 *   -1  MERO_SHARING_PASSWORD_NEEDED   125      the link has a password and
 *       the request has no sharing session that proved it: no or unknown
 *       session id, a session past its lifetime, used from another address,
 *       or one that never proved this link's password (a session of another
 *       link). The page asks for the password (MeroSharingSessionOpen).
 *   -2  MERO_SHARING_UNKNOWN_LINK      126      no such link: never created,
 *       revoked, or no store at all (the code of an API that admits no
 *       links: nothing to offer through this link)
 *   -3  MERO_SHARING_STORE_ERROR       101      the store could not be read
 *       or written (logged): the operator's problem
 *   -4  MERO_SHARING_INVALID           101      null request or link id
 *   -5  MERO_SHARING_EXPIRED           122      the link is past its expiry
 *   -6  MERO_SHARING_USED_UP           124      its accesses are used up
 *   -7  MERO_SHARING_DISABLED          123      the operator disabled it
 * The tests run in that order of the link (unknown, disabled, expired,
 * used up), then the password, so a visitor is never asked for the
 * password of a link that cannot be used anyway. */
#define MERO_SHARING_AUTHORIZED 1
#define MERO_SHARING_PASSWORD_NEEDED (-1)
#define MERO_SHARING_UNKNOWN_LINK (-2)
#define MERO_SHARING_STORE_ERROR (-3)
#define MERO_SHARING_INVALID (-4)
#define MERO_SHARING_EXPIRED (-5)
#define MERO_SHARING_USED_UP (-6)
#define MERO_SHARING_DISABLED (-7)

/* Decides whether the link `request->sharingId` may be used now, by the
 * sharing session `request->sharingSid` from the client address REMOTE_ADDR
 * (addresses compared as addresses: "::ffff:127.0.0.1" is 127.0.0.1).
 * A link with an access limit counts the access it admits in the same write
 * transaction that tested the count, so N concurrent requests on a link with
 * L accesses left admit exactly min(N, L); a link without a limit is only
 * read (no write, no sync). Returns one of the results above. */
MERO_EXPORT int MeroSharingIsAuthorized(SharingAuthRequest* request);

/* ---- a visitor proves a link's password ----------------------------------- */

/* Results of MeroSharingSessionOpen (apart from the link's own refusals,
 * MERO_SHARING_UNKNOWN_LINK, _DISABLED, _EXPIRED, _USED_UP, _STORE_ERROR and
 * _INVALID as above). */
#define MERO_SHARING_OPENED 1
#define MERO_SHARING_WRONG_PASSWORD (-8)
#define MERO_SHARING_THROTTLED (-9)   /* *retryAfter holds the seconds to wait */
#define MERO_SHARING_UNAVAILABLE (-10) /* libcrypt could not be loaded (logged) */

/* Checks `password` against link `linkId`'s password (a link without one
 * admits any password), throttled as described above, for a visitor at
 * `client`. On success the visitor's sharing session proves the link:
 * `currentSid` when it names a live session from the same address (so one
 * session cookie serves every link the visitor opened), else a new session,
 * created now; its id is written into `sid` (MERO_SHARING_ID_CHARS + 1
 * bytes at least). The caller sets it as the cookie named
 * MERO::sharing::SZK_SHARING_SID. `retryAfter` may be null. On every result
 * but MERO_SHARING_OPENED `sid` holds "" (when sidSize >= 1).
 * MERO_SHARING_INVALID: null link id, password or client, a password over
 * MERO_SHARING_MAX_PASSWORD_BYTES, or sidSize too small. Each proof writes
 * an audit line (facility LOG_AUTH): "sharing: link=<ref> client=<address>
 * result=success|failure|throttled", never a password or an id. */
MERO_EXPORT int MeroSharingSessionOpen(const char* linkId, const char* password,
                                       const char* client, const char* currentSid, char* sid,
                                       int sidSize, int* retryAfter);

/* ---- administration (the webapi-share tool) ------------------------------- */

/* A link as the operator creates and lists it. Times are seconds since the
 * epoch. `apis` holds `apiCount` entries, each "API" (every method of it)
 * or "API:method" (method names match without regard to letter case). */
typedef struct _tag_MEROSHARING_LINK_INFO {
  const char* ref;       /* in listings; ignored by MeroSharingLinkCreate */
  const char* item;      /* the shared item: an absolute path, no "." or ".." */
  const char* const* apis;
  int apiCount;
  const char* owner;
  long long created;     /* in listings; creation sets it */
  long long expires;     /* 0: never */
  long long accessLimit; /* 0: none */
  long long accessCount; /* accesses counted so far (links with a limit) */
  int hasPassword;
  int enabled;
} MEROSHARING_LINK_INFO;

/* Creates a link from `link` (item, apis, owner, expires, accessLimit,
 * enabled; `password` null or "" for none), creating the store when needed,
 * and writes its id into `id` (MERO_SHARING_ID_CHARS + 1 bytes at least):
 * the only time the id exists outside the request that uses it.
 *   MERO_SHARING_AUTHORIZED  created.
 *   MERO_SHARING_INVALID     an item that is not an absolute path or holds a
 *                            "." or ".." component, a control byte or more
 *                            than MERO_SHARING_MAX_ITEM_BYTES; no API, too
 *                            many, or one that is empty, holds a blank or
 *                            control byte, or is too long; an owner that is
 *                            empty, too long or holds a control byte; a
 *                            negative limit or expiry; an over-long password;
 *                            idSize too small. Nothing is written.
 *   MERO_SHARING_UNAVAILABLE the password could not be hashed (logged).
 *   MERO_SHARING_STORE_ERROR logged. */
MERO_EXPORT int MeroSharingLinkCreate(const MEROSHARING_LINK_INFO* link, const char* password,
                                      char* id, int idSize);

/* Calls `visit` once per link, oldest first, after the store is closed
 * again; the texts live during the call only. Returns the number of links,
 * 0 without a store, or MERO_SHARING_STORE_ERROR. */
MERO_EXPORT int MeroSharingLinkList(void (*visit)(const MEROSHARING_LINK_INFO* link,
                                                  void* context),
                                    void* context);

/* The link whose ref starts with `refPrefix` (at least 8 hex digits, letter
 * case ignored), changed in one write transaction:
 * MeroSharingLinkSetEnabled enables or disables it; MeroSharingLinkRevoke
 * removes it together with the tokens that joined sessions to it, so a
 * request that comes after is answered MERO_SHARING_UNKNOWN_LINK.
 *   1                         done.
 *   0                         no link matched.
 *   MERO_SHARING_INVALID      a null or short prefix, not hex, or one that
 *                             names more than one link (nothing changed).
 *   MERO_SHARING_STORE_ERROR  logged. */
MERO_EXPORT int MeroSharingLinkSetEnabled(const char* refPrefix, int enabled);
MERO_EXPORT int MeroSharingLinkRevoke(const char* refPrefix);

/* Removes the links past their expiry, the sharing sessions past their
 * lifetime and their tokens, tokens whose link is gone, and throttling
 * counts that no longer matter, at `now` (seconds since the epoch). Returns
 * the number of links removed (>= 0), or MERO_SHARING_STORE_ERROR. */
MERO_EXPORT int MeroSharingPurge(long long now);

/* Writes the store's path (under the appliance root) into `buf`. 1, or 0
 * when `buf` is null or too small (then "" when size >= 1). */
MERO_EXPORT int MeroSharingGetDbPath(char* buf, int size);

MERO_EXTERN_C_END

#ifdef __cplusplus
#include <cstdint>
#include <string>
#include <vector>

namespace MERO {
namespace sharing {

/* Name of the cookie that carries the sharing session id. */
constexpr char SZK_SHARING_SID[] = "sharing_sid";

/* The kind of address GetSharingURL built. */
enum _tag_SHARING_URL_TYPE : int {
  SHARING_URL_HTTP = 0,         /* http://host[:port]/sharing/ */
  SHARING_URL_HTTPS = 1,        /* https://host[:port]/sharing/ */
  SHARING_URL_PORTAL_HTTP = 2,  /* http://host[:port]/<portal>/sharing/ */
  SHARING_URL_PORTAL_HTTPS = 3, /* https://host[:port]/<portal>/sharing/ */
  SHARING_URL_NONE = 4          /* no address could be built */
};

/* The base address of links for a request that reached the appliance at
 * `host` (a name of letters, digits, '-', '_' and '.', or an IPv6 literal in
 * brackets) and `port` (1 to 65535; 0, or the scheme's default, is left out
 * of the address), over https when `https`, through application portal
 * `portal` when it is not empty (letters, digits, '-', '_', '.'). A link's
 * full address is the base followed by "#" and the link id, so the id
 * reaches the visitor's page but never a server log.
 *   true   `url` holds the base, `type` its kind (0 to 3).
 *   false  a host, port or portal outside those rules: `url` is "" and
 *          `type` SHARING_URL_NONE. */
MERO_EXPORT bool GetSharingURL(const std::string& host, int port, bool https,
                               const std::string& portal, std::string& url,
                               _tag_SHARING_URL_TYPE& type);

namespace record {

/* A link. `hash` is the link id it was looked up by (the store keeps only
 * its SHA-256); default-constructed records are empty and disabled. */
class MERO_EXPORT Entry {
 public:
  std::string hash;
  std::string ref;
  std::string item;
  std::vector<std::string> apis;  /* "API" or "API:method" */
  std::string owner;
  int64_t created = 0;
  int64_t expires = 0;      /* 0: never */
  int64_t accessLimit = 0;  /* 0: none */
  int64_t accessCount = 0;
  std::string passwordHash; /* "" for none; a yescrypt hash */
  bool enabled = false;

  /* Whether the link admits method `method` of API `api`: an entry equal to
   * `api` admits all its methods; "api:method" admits that method (API
   * names compared byte for byte, method names without letter case, as the
   * API description compares them). */
  bool Admits(const std::string& api, const std::string& method) const;
  /* Whether `path` is the shared item, or lies below it when the item is a
   * folder: the item followed by "/" and components none of which is
   * empty, "." or "..". */
  bool Covers(const std::string& path) const;
};

/* A visitor's sharing session. `id` is the id it was looked up by. */
class MERO_EXPORT Session {
 public:
  std::string id;
  std::string link;  /* ref of the link it was first opened for */
  std::string client;
  int64_t created = 0;
  bool passwordProven = false;
};

/* What joins a session to a link: the session proved the link's password
 * (or opened a link without one) at `created`. */
class MERO_EXPORT Token {
 public:
  std::string sessionRef; /* first 16 hex digits of the session id's hash */
  std::string entryRef;
  int64_t created = 0;
};

}  // namespace record

namespace db {

class Store;

/* The process's open store, shared by the accessors built on it. */
class MERO_EXPORT BaseDB {
 public:
  BaseDB(const BaseDB&) = delete;
  BaseDB& operator=(const BaseDB&) = delete;
  /* True when the store is open and usable. */
  bool IsGood() const;
  Store* GetStore() const { return store_; }

 protected:
  BaseDB() = default;
  ~BaseDB() = default;
  Store* store_ = nullptr;
};

class MERO_EXPORT SharingDB : public BaseDB {
 public:
  /* The process's sharing database, opened (never created) at the first
   * call, and opened afresh when the store's file was replaced or removed
   * since. Not good when there is no store yet or it could not be opened
   * (logged). */
  static SharingDB& Instance();

 private:
  SharingDB() = default;
};

/* Accessors of one kind of record. Each look-up reads the store as it is
 * at the call. On false the out-record is left as it was. */
class MERO_EXPORT EntryDB {
 public:
  explicit EntryDB(BaseDB& base) : base_(base) {}
  /* The link whose id is `hash`; false when there is none, the store is not
   * good, or the read failed (logged). */
  bool GetByHash(const std::string& hash, record::Entry& entry) const;

 private:
  BaseDB& base_;
};

class MERO_EXPORT SessionDB {
 public:
  explicit SessionDB(BaseDB& base) : base_(base) {}
  /* The sharing session whose id is `id` (also one past its lifetime). */
  bool GetBySessionId(const std::string& id, record::Session& session) const;

 private:
  BaseDB& base_;
};

class MERO_EXPORT TokenDB {
 public:
  explicit TokenDB(BaseDB& base) : base_(base) {}
  /* The token that joins `session` (by its id) to `entry` (by its hash). */
  bool GetBySessionEntry(const record::Session& session, const record::Entry& entry,
                         record::Token& token) const;

 private:
  BaseDB& base_;
};

}  // namespace db
}  // namespace sharing
}  // namespace MERO
#endif /* __cplusplus */

#endif /* MEROSHARING_H */
