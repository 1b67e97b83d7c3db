/* SDK platform library (libmerosdk): the accounts behind the names people
 * log in with, and their preference directories.
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

MERO_EXTERN_C_END

#endif /* MEROSDK_H */
