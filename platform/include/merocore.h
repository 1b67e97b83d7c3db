/* Core platform library (libmerocore): string list and string hash, settings
 * files, file locks, the last-error code, lower-casing, the appliance root
 * and membership of the administrators' group.
 *
 * C linkage, usable from C and C++. No operation throws; each states below
 * what it returns in every case and who frees what it hands out (always
 * `free` for texts, the matching *Free call for records). Every operation is
 * re-entrant except the last-error code, which is per thread. */
#ifndef MEROCORE_H
#define MEROCORE_H

#include <stddef.h>

#include "mero_export.h"

MERO_EXTERN_C_BEGIN

/* ------------------------------------------------------------------------ */
/* Last-error code                                                            */
/* ------------------------------------------------------------------------ */

/* Codes this platform records with MLIBCErrSetEx. A caller can act on the
 * request ones (answer 400 or 413); the rest are diagnostics, with the
 * details in the system log. */
enum {
  MERO_ERR_NONE = 0,
  MERO_ERR_INVALID_ARGUMENT = 1, /* null or out-of-range argument */
  MERO_ERR_NO_MEMORY = 2,
  MERO_ERR_IO = 3,                 /* open/read/write failed; errno tells why */
  MERO_ERR_LOCK_TIMEOUT = 4,       /* a file lock was not granted in time */
  MERO_ERR_NOT_FOUND = 5,          /* file or key absent */
  MERO_ERR_REQUEST_TOO_LARGE = 6,  /* a request exceeded a documented limit */
  MERO_ERR_REQUEST_INCOMPLETE = 7, /* the body ended before CONTENT_LENGTH */
  MERO_ERR_REQUEST_MALFORMED = 8,  /* bad CONTENT_LENGTH, NUL byte, ... */
  MERO_ERR_CANCELLED = 9,          /* the caller's cancel callback stopped the operation */
  MERO_ERR_EXISTS = 10             /* a file of that name exists and may not be replaced */
};

/* The platform's truth value in callback types: non-zero is true. */
#ifndef MERO_BOOL_DEFINED
#define MERO_BOOL_DEFINED
typedef int BOOL;
#endif

/* Records `code` with the source position that detected it. Per thread;
 * overwrites the previous record. */
MERO_EXPORT void MLIBCErrSetEx(int code, const char* file, int line);
/* The last recorded code (MERO_ERR_NONE when nothing was recorded). */
MERO_EXPORT int MLIBCErrGet(void);
/* Source file and line of the last record; "" and 0 when there is none.
 * The text is static; do not free it. */
MERO_EXPORT const char* MLIBCErrorGetFile(void);
MERO_EXPORT int MLIBCErrorGetLine(void);

#define MERO_ERR_SET(code) MLIBCErrSetEx((code), __FILE__, __LINE__)

/* ------------------------------------------------------------------------ */
/* Appliance root                                                             */
/* ------------------------------------------------------------------------ */

/* Every fixed absolute path of the appliance ("/usr/mero/meroman/webapi",
 * "/etc/meroinfo.conf", ...) and all platform state resolve under one
 * appliance root. It is, in this order:
 *   1. the environment variable MERO_APPLIANCE_ROOT, when it holds an
 *      absolute path (the web server operator sets it; a request cannot,
 *      because request headers only ever reach the environment as HTTP_*);
 *   2. the build's default (CMake cache variable WEBAPI_APPLIANCE_ROOT,
 *      "/" unless configured otherwise).
 * It is read once per process, at first use.
 *
 * Returns the root without its trailing "/": "" for "/", so production
 * paths come out exactly as written. Static text; do not free it. */
MERO_EXPORT const char* MeroApplianceRoot(void);

/* Writes the appliance root followed by `absolutePath` (which must begin with
 * "/") into `buf`.
 *   >= 0  the length of the text written.
 *   -1    `buf` is left holding "" (when size > 0): the arguments were invalid
 *         or the text would not fit in `size` bytes (MERO_ERR_INVALID_ARGUMENT
 *         or MERO_ERR_REQUEST_TOO_LARGE recorded). */
MERO_EXPORT int MeroAppliancePath(const char* absolutePath, char* buf, size_t size);

/* 1 when the browser reached the server over https: the CGI variable HTTPS
 * is "on", or HTTP_X_FORWARDED_PROTO is "https" (a proxy that ended TLS),
 * letter case ignored (ASCII only); 0 otherwise. Read at every call. */
MERO_EXPORT int MeroRequestIsHttps(void);

/* ------------------------------------------------------------------------ */
/* Texts and files                                                            */
/* ------------------------------------------------------------------------ */

/* Folds ASCII letters of `text` to lower case in place (bytes >= 0x80 are left
 * as they are, so UTF-8 stays valid). Returns `text`; null gives null. */
MERO_EXPORT char* MLIBCStrCaseLower(char* text);

/* Non-zero when `path` names an existing file of any type (stat succeeds);
 * 0 when it does not exist, cannot be reached, or `path` is null. */
MERO_EXPORT int MLIBCFileExist(const char* path);

/* Settings files: one `key="value"` per line (the quotes are optional;
 * leading and trailing blanks around key and value are ignored; lines that
 * start with '#' or hold no '=' are skipped; the first line with the key
 * wins). Lines may be up to 4095 bytes; longer lines are skipped whole.
 *
 * Copies the value of `key` in `file` into `buf` (always NUL-terminated).
 *   1   found; `buf` holds the value (cut to size - 1 bytes, with a log line,
 *       when it is longer).
 *   0   the file opened but has no such key; `buf` is "".
 *   -1  bad arguments, or the file could not be opened or read before the
 *       key was found (a directory, an I/O error); `buf` is "" when it
 *       is usable (MERO_ERR_INVALID_ARGUMENT, MERO_ERR_NOT_FOUND or
 *       MERO_ERR_IO recorded).
 * `flags` is reserved and must be 0. The path is used as given; callers
 * resolve appliance paths with MeroAppliancePath first. */
MERO_EXPORT int MLIBCFileGetKeyValue(const char* file, const char* key, char* buf, int size,
                                     int flags);

/* Whether settings file `file` holds `key` with exactly `value` (compared
 * byte for byte, after the quotes and blanks MLIBCFileGetKeyValue removes).
 *   1  it does.
 *   0  it does not: another value, no such key, no such file, a file that
 *      could not be read, or a null argument (MLIBCErrGet() tells which as
 *      for MLIBCFileGetKeyValue).
 * `flags` is reserved and must be 0. */
MERO_EXPORT int MLIBCFileCheckKeyValue(const char* file, const char* key, const char* value,
                                       int flags);

/* ------------------------------------------------------------------------ */
/* Administrators                                                             */
/* ------------------------------------------------------------------------ */

/* The administrators' group, unless the appliance settings file
 * "/etc/meroinfo.conf" (under the appliance root) names another with
 * admin_group="name". */
#define MERO_ADMIN_GROUP_DEFAULT "administrators"

/* Whether account `user` is an administrator: a member of the
 * administrators' group, as its primary group (getpwnam) or as a
 * supplementary one (getgrouplist). The settings file is read at every call;
 * when it is absent, or its admin_group is missing or empty, the group is
 * MERO_ADMIN_GROUP_DEFAULT.
 *   1   a member.
 *   0   not a member, no group of that name exists, or NSS knows no such
 *       account (PAM may authenticate accounts NSS does not know).
 *   -1  MLIBCErrGet() tells why: MERO_ERR_INVALID_ARGUMENT (null or empty
 *       user), MERO_ERR_IO (the account
 *       or group database could not be read, logged; or the settings file
 *       exists but could not be read, so the configured group is unknown),
 *       MERO_ERR_NO_MEMORY.
 * `flags` is reserved (pass 0); it changes nothing on this platform. */
MERO_EXPORT int MLIBGroupIsAdminGroupMem(const char* user, int flags);

/* ------------------------------------------------------------------------ */
/* File locks                                                                 */
/* ------------------------------------------------------------------------ */

/* Lock modes for MLIBCFileLockTimeByFile. The locks are whole-file flock()
 * locks on `path` itself, so they exclude readers that flock the same file
 * with LOCK_SH. */
enum {
  MERO_LOCK_SHARED = 0,   /* reader: LOCK_SH, opens the file read-only */
  MERO_LOCK_EXCLUSIVE = 1 /* writer: LOCK_EX, opens read-write, creates 0644 */
};

/* Opens `path` (creating it, mode 0644 before the umask, in the exclusive
 * mode) and takes the lock of `mode`, waiting at most `timeout` seconds
 * (polled every 50 ms; 0 tries once).
 *   non-zero  the lock is held; *fd is the descriptor that holds it
 *             (O_CLOEXEC).
 *   0         *fd is -1 and nothing is left open; MLIBCErrGet() tells why:
 *             MERO_ERR_INVALID_ARGUMENT, MERO_ERR_IO (open failed; errno),
 *             MERO_ERR_LOCK_TIMEOUT.
 * Release with MLIBCFileUnlockByFile(*fd), which unlocks and closes. */
MERO_EXPORT int MLIBCFileLockTimeByFile(const char* path, int mode, int timeout, int* fd);

/* Releases the lock held by `fd` and closes it. A negative `fd` is accepted
 * and does nothing, so releasing after a failed lock call is harmless.
 * Returns 0, or -1 when `fd` was negative or close failed. */
MERO_EXPORT int MLIBCFileUnlockByFile(int fd);

/* ------------------------------------------------------------------------ */
/* Running a program                                                          */
/* ------------------------------------------------------------------------ */

/* Longest a program run by MLIBCExecl may take, in seconds, and the most
 * arguments it takes (arg0 included). */
#define MERO_EXECL_TIMEOUT_SECONDS 10
#define MERO_EXECL_MAX_ARGS 64

/* Results of MLIBCExecl besides an exit status (0 to 255). */
#define MERO_EXECL_NOT_RUN (-1)   /* the program could not be started: missing, not
                                     executable, too many arguments (errno says why) */
#define MERO_EXECL_TIMED_OUT (-2) /* still running after MERO_EXECL_TIMEOUT_SECONDS: killed
                                     (SIGKILL) and reaped */
#define MERO_EXECL_KILLED (-3)    /* ended by a signal */
#define MERO_EXECL_WAIT_FAILED (-4) /* waiting failed (a SIGCHLD set to SIG_IGN, ...) */

/* Runs the executable at `path` (not searched in PATH; the caller resolves
 * appliance paths, merocore.h) with the arguments arg0, ... up to a null
 * pointer, in the caller's environment, and waits for it. Its standard
 * input, output and error are /dev/null, so nothing it prints can reach the
 * caller's response; it inherits no other descriptor the platform opened
 * (all are O_CLOEXEC). `options` is accepted for callers that pass flags
 * (the library passes 0x33); this platform always runs the program this
 * way. Returns the exit status (0 to 255) or one of MERO_EXECL_* above, and
 * never leaves a child behind. */
MERO_EXPORT int MLIBCExecl(const char* path, int options, const char* arg0, ...);

/* ------------------------------------------------------------------------ */
/* String list                                                                */
/* ------------------------------------------------------------------------ */

/* An ordered list of NUL-terminated texts that the list owns.
 *
 * Layout: a header followed by the item pointers inline, so one realloc
 * grows it; that is why operations that add items take the caller's
 * pointer by address and may replace it. Field order is fixed: readers may
 * read `count` (the second header word) directly.
 *   word 0  capacity   item slots allocated after the header
 *   word 1  count      items in use, indexes 0 .. count-1
 *   then    items[]    pointer-sized item slots
 * On a 64-bit target the header is two ints (8 bytes) and items[] starts at
 * byte 8; on a 32-bit target likewise (the static_asserts in the
 * implementation hold either way). */
typedef struct _tag_MLIBSZLIST {
  int capacity;
  int count;
  char* items[];
} MLIBSZLIST;

/* Limit of both records: at most MERO_SZ_MAX_ITEMS items or pairs, so
 * capacities and counts always fit the int header words. */
#define MERO_SZ_MAX_ITEMS (1 << 26)

/* New empty list with room for `capacity` items (values below 1 mean 1).
 * Null, with errno set (ENOMEM, or EINVAL above MERO_SZ_MAX_ITEMS), when it
 * cannot be allocated. Free with MLIBCSzListFree. */
MERO_EXPORT MLIBSZLIST* MLIBCSzListAlloc(int capacity);

/* Item `index` (from 0), owned by the list; null when `list` is null or the
 * index is out of range. */
MERO_EXPORT const char* MLIBCSzListGet(const MLIBSZLIST* list, int index);

/* Appends a copy of `text`, growing the list (capacity doubles) and storing
 * the possibly moved record through `list`.
 *   >= 0  the new item's index.
 *   -1    nothing changed; *list is still valid; errno is EINVAL (null
 *         argument) or ENOMEM (also past MERO_SZ_MAX_ITEMS). */
MERO_EXPORT int MLIBCSzListAdd(MLIBSZLIST** list, const char* text);

/* Frees the list and every item. Null is accepted. */
MERO_EXPORT void MLIBCSzListFree(MLIBSZLIST* list);

/* ------------------------------------------------------------------------ */
/* String hash                                                                */
/* ------------------------------------------------------------------------ */

typedef struct _tag_MLIBSZHASH_SLOT {
  char* key;   /* null in an empty slot */
  char* value; /* null in an empty slot */
} MLIBSZHASH_SLOT;

/* Key to value, both NUL-terminated texts that the hash owns (copies).
 *
 * Layout: five header words, then the slots inline. Field order is fixed:
 * readers walk slots 0 .. slotCount-1 directly and skip a slot whose key or
 * value is null; every pair lies within that range.
 *   word 0  slotCapacity  slots allocated after the header
 *   word 1  bucketMask    size of the lookup index minus one (a power of two
 *                         minus one); the index is private to the hash
 *   word 2  slotCount     slots in use; read again after every store
 *   word 3  reserved      always 0
 *   word 4  buckets       the lookup index (private to the hash)
 *   then    slots[]       pairs of pointers, key first, then value
 * Slots are filled in insertion order and never emptied, so a walk sees the
 * pairs in the order their keys were first stored. On a 64-bit target
 * `buckets` is pointer-sized and slots[] starts at byte 24 (byte 20 on a
 * 32-bit one).
 *
 * Storing can move the record (the slots grow by realloc, doubling), so
 * MLIBCSzHashSetValue takes the caller's pointer by address: use the pointer
 * only after the call, never a copy taken before it. Lookups are O(1) on
 * average. */
typedef struct _tag_MLIBSZHASH {
  int slotCapacity;
  int bucketMask;
  int slotCount;
  int reserved;
  int* buckets;
  MLIBSZHASH_SLOT slots[];
} MLIBSZHASH;

/* New empty hash with room for `capacity` pairs before it first grows
 * (values below 1 mean 1). Null, with errno set, when it cannot be
 * allocated. Free with MLIBCSzHashFree. */
MERO_EXPORT MLIBSZHASH* MLIBCSzHashAlloc(int capacity);

/* Stores copies of `key` and `value`; an existing key gets the new value in
 * its slot (no second slot). May replace the record through `hash`.
 *   >= 0  the slot index of the pair.
 *   -1    nothing changed, *hash still valid; errno is EINVAL (null
 *         argument) or ENOMEM (also past MERO_SZ_MAX_ITEMS pairs). */
MERO_EXPORT int MLIBCSzHashSetValue(MLIBSZHASH** hash, const char* key, const char* value);

/* The value stored under `key`, owned by the hash (valid until that key is
 * stored again or the hash is freed); null when absent or an argument is
 * null. */
MERO_EXPORT const char* MLIBCSzHashGetValue(const MLIBSZHASH* hash, const char* key);

/* Appends a copy of every key, in slot order, to *list (growing it, possibly
 * replacing the record through `list`).
 *   >= 0  the number of keys added.
 *   -1    errno EINVAL (null argument) or ENOMEM; keys added before the
 *         failure stay in the list. */
MERO_EXPORT int MLIBCSzHashEnumKey(const MLIBSZHASH* hash, MLIBSZLIST** list);

/* Frees the hash with all its keys and values. Null is accepted. */
MERO_EXPORT void MLIBCSzHashFree(MLIBSZHASH* hash);

MERO_EXTERN_C_END

#endif /* MEROCORE_H */
