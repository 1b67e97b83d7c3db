/* SDK platform library (libmerosdk): the accounts behind the names people
 * log in with, their preference directories, and the storage volumes files
 * are kept on.
 *
 * Accounts are looked up through NSS (getpwnam_r), so local, domain and
 * directory accounts are found however the system's name service is set
 * up. C linkage, usable from C and C++; nothing throws; re-entrant. */
#ifndef MEROSDK_H
#define MEROSDK_H

#include "mero_export.h"

MERO_EXTERN_C_BEGIN

/* Writes the name of the account that login name `name` stands for into
 * `buf`: the account found by getpwnam(name) as given; when there is none
 * and `name` holds ASCII upper-case letters, the account found with those
 * letters lowered (login forms ignore letter case, and account names are
 * lower case by convention). Domain forms ("DOM\\user") and directory forms
 * ("user@example.com") are looked up as given, since that is how the NSS
 * modules of domains and directories name their accounts.
 *   > 0  the length of the account name written (as the account database
 *        spells it).
 *   0    no account matches; `buf` holds "".
 *   -1   `buf` holds "" when it is usable: a null or empty name, a null
 *        `buf` or size < 1, a name that holds "/" or a control byte
 *        (0x00-0x1F, 0x7F) or is "." or ".." (callers build paths and
 *        log lines from these names), an account name longer than
 *        size - 1 bytes, or an account database that could not be read
 *        (logged). */
MERO_EXPORT int MEROUserLoginNameConvert(const char* name, char* buf, int size);

/* Preference directories live under the appliance root (merocore.h):
 *   users   MERO_PREFERENCE_DIR "/users/<name>"
 *   groups  MERO_PREFERENCE_DIR "/groups/<name>"
 * The parents are created on first use with mode 0755. A user's directory
 * is created with mode 0700 and handed to the account (chown to its uid and
 * primary group) when NSS knows it and the process may; a group's with mode
 * 0770 and handed to the group. Otherwise a new directory belongs to the
 * process's user. An existing directory is used as it is, but never
 * through a symbolic link. Files inside belong to the user, who may replace
 * them with links: open them with O_NOFOLLOW (or as the user). */
#define MERO_PREFERENCE_DIR "/var/lib/merosdk/preferences"

/* Writes the preference directory of user `user` (MEROUserPreferenceDirGet)
 * or of group `group` (MEROGroupPreferenceDirGet) into `buf`, creating it
 * as above when it is missing.
 *   > 0  the length of the path written.
 *   -1   `buf` holds "" when it is usable: a null or refused name (as for
 *        MEROUserLoginNameConvert: "", ".", "..", "/" or a control byte),
 *        a null `buf`, a path longer than size - 1 bytes, a directory that
 *        could not be created (logged), or a path that is no directory (a
 *        file, a symbolic link). */
MERO_EXPORT int MEROUserPreferenceDirGet(const char* user, char* buf, int size);
MERO_EXPORT int MEROGroupPreferenceDirGet(const char* group, char* buf, int size);

/* ---- storage volumes ------------------------------------------------------ */

/* Storage volumes are the mounted file systems whose mount points match the
 * appliance's volume patterns, read from the mount table at every call.
 * Both come from the appliance settings file "/etc/meroinfo.conf" (under
 * the appliance root, merocore.h):
 *   storage_volumes="/ /volume[0-9]*"   blank-separated fnmatch(3) patterns
 *                                       (FNM_PATHNAME: '*' stops at '/')
 *                                       over absolute mount points; the
 *                                       default when the file or key is
 *                                       absent, so a plain server with one
 *                                       root file system has one volume
 *   mount_table="/proc/self/mounts"     the mount table, in the format of
 *                                       /proc/self/mounts (fields separated
 *                                       by blanks, octal escapes such as
 *                                       \040 for a blank); an absolute path
 *                                       used as it is, not under the root
 * A pattern without wildcards names one volume even while nothing is
 * mounted there: it is then listed as not mounted (a removed disk). */
#define MERO_VOLUME_DEFAULT_PATTERNS "/ /volume[0-9]*"
#define MERO_VOLUME_DEFAULT_MOUNT_TABLE "/proc/self/mounts"
/* Longest mount point a record holds, with its NUL; a longer one is skipped
 * (logged), as is a pattern that long. */
#define MERO_VOLUME_PATH_BYTES 256
#define MERO_VOLUME_FSTYPE_BYTES 32

/* One volume. The field order is fixed: the first status word precedes the
 * mount path and the second follows it. */
typedef struct _tag_VOLUME_INFO {
  int mounted;                          /* 1: mounted now; 0: a configured volume that is not */
  char path[MERO_VOLUME_PATH_BYTES];    /* the mount point, NUL-terminated */
  int writable;                         /* 1: mounted read-write (no "ro" option); 0 otherwise */
  char fsType[MERO_VOLUME_FSTYPE_BYTES]; /* "ext4", "xfs", ... ("" when not mounted), cut to fit */
  struct _tag_VOLUME_INFO* next;        /* the next volume, or null */
} VolumeInfo;

/* The storage volumes, in mount table order (a mount point mounted over is
 * listed once, as its last, visible mount; configured volumes not mounted
 * come last, in pattern order), as a newly allocated list: release it with
 * MEROMountVolInfoFree.
 *   non-null  the first volume.
 *   null      no volume matched (MLIBCErrGet() is MERO_ERR_NONE then), or
 *             failure: the settings file or the mount table could not be
 *             read (MERO_ERR_IO, logged) or memory ran out
 *             (MERO_ERR_NO_MEMORY).
 * `type` and `flags` are reserved (pass 0). */
MERO_EXPORT VolumeInfo* MEROMountVolInfoEnum(int type, int flags);

/* Frees a list from MEROMountVolInfoEnum. Null is accepted. */
MERO_EXPORT void MEROMountVolInfoFree(VolumeInfo* list);

/* Bits of VolumeAvailGet's reason word: why no volume was chosen. */
#define MERO_VOLUME_REASON_FULL 1      /* a mounted, writable volume lacked the room */
#define MERO_VOLUME_REASON_READ_ONLY 2 /* a mounted volume was skipped: read-only */
#define MERO_VOLUME_REASON_NO_VOLUME 4 /* no volume is both mounted and writable */
#define MERO_VOLUME_REASON_STAT_FAILED 8 /* statvfs failed on a volume (skipped, logged) */

/* Chooses a volume with room for `bytes`: the first mounted, writable
 * volume (in MEROMountVolInfoEnum order) whose space available to
 * unprivileged users (statvfs: f_bavail * f_frsize) is at least `bytes`.
 *   > 0  chosen: *volume is a copy of its record (next null); *reason 0.
 *   0    none has room: *reason holds the MERO_VOLUME_REASON_* bits of what
 *        was seen (NO_VOLUME when no volume is mounted and writable; FULL
 *        when one was but lacked the room; READ_ONLY, STAT_FAILED added
 *        when they occurred); *volume untouched.
 *   -1   failure: a null `volume`, or MEROMountVolInfoEnum failed
 *        (MLIBCErrGet() tells why); *volume and *reason untouched.
 * `reason` may be null. `flags` is reserved (pass 0). */
MERO_EXPORT int VolumeAvailGet(unsigned long long bytes, VolumeInfo* volume, int* reason,
                               int flags);

MERO_EXTERN_C_END

#endif /* MEROSDK_H */
