/* SDK platform library (libmerosdk): the accounts behind the names people
 * log in with.
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

MERO_EXTERN_C_END

#endif /* MEROSDK_H */
