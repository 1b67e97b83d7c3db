/* CGI platform library (libmerocgi): the CGI state of one request, its
 * parameter line, form decoding, cookies, UI language, sessions and the
 * identity of a session's user.
 *
 * One process serves one request (CGI), on one thread. The request is read
 * from the CGI environment (REQUEST_METHOD, QUERY_STRING, CONTENT_LENGTH,
 * CONTENT_TYPE, HTTP_COOKIE, HTTP_ACCEPT_LANGUAGE) and standard input. Texts
 * handed out by a state belong to it and stay valid until MeroCgiFree, unless
 * a note says otherwise. C linkage; nothing throws.
 *
 * Limits (a request beyond one is refused with a log line and an error code
 * left for MLIBCErrGet, never cut short silently): */
#ifndef MEROCGI_H
#define MEROCGI_H

#include "merocore.h"
#include "mero_export.h"

/* Largest parameter line: the query string of a GET or the body of a POST,
 * in bytes. A larger CONTENT_LENGTH is refused before anything is read. */
#define MERO_CGI_MAX_PARAM_LINE_BYTES (1024 * 1024)
/* Most name=value pairs in one parameter line (each '&'-separated pair counts,
 * repeated names too). */
#define MERO_CGI_MAX_PARAMS 65536
/* Largest Cookie header (HTTP_COOKIE), in bytes; a larger one loads no
 * cookie at all. */
#define MERO_CGI_MAX_COOKIE_HEADER_BYTES (16 * 1024)
/* Longest Accept-Language header read for the UI language; the rest is
 * ignored (it only ranks languages, so nothing is lost but preference). */
#define MERO_CGI_MAX_ACCEPT_LANGUAGE_BYTES 4096

MERO_EXTERN_C_BEGIN

/* The CGI state of one request. Callers embed it by value and pass its
 * address to every call; fields are read by name, never by byte offset.
 * The field order is fixed (it is the record layout of the 32-bit appliance
 * target, where every field is one 32-bit word and the record is 60 bytes):
 *   word  0  inCookieTable   request cookies (MeroCgiLoadInCookies)
 *   word  1  queryTable      a POST's query-string parameters, parsed on
 *                            first need (MeroCgiGetCGIParam)
 *   word  2  uiLanguage      negotiated UI language, cached (static text)
 *   word  3  initialized     1 after MeroCgiInit / MeroCgiInitEx
 *   word  4  setCookieTable  cookies to set in the response
 *   word  5  paramTable      request parameters; null until the first store
 *   word  6  headerTable     response headers to send
 *   word  7  registry        current-users registry name (owned copy)
 *   word  8  extra           extra session text (owned copy): blank-separated
 *                            words; "csrf" turns the CSRF rule of
 *                            MeroCgiIsAuthorizedEx on
 *   word  9  headerPrinted   1 once the header block was printed
 *   word 10  session         the session found by the last successful
 *                            MeroCgiIsAuthorizedEx (owned; its options)
 *   word 11  upload          the upload being received (owned; uploads below)
 *   word 12                  reserved, 0
 *   word 13  sessionTimeout  session time-out (minutes; 0 and -1 passed on)
 *   word 14  skipCheckIP     1: do not tie a session to its client address
 * On 64-bit Linux pointer fields are 8 bytes; the record is 96 bytes there
 * (the implementation static_asserts the order and, on 32-bit, the offsets). */
typedef struct _tag_MEROCGI_STATE {
  MLIBSZHASH* inCookieTable;
  MLIBSZHASH* queryTable;
  const char* uiLanguage;
  int initialized;
  MLIBSZHASH* setCookieTable;
  MLIBSZHASH* paramTable;
  MLIBSZHASH* headerTable;
  char* registry;
  char* extra;
  int headerPrinted;
  struct _tag_MEROCGI_SESSION* session;
  struct _tag_MEROCGI_UPLOAD* upload;
  int reserved;
  int sessionTimeout;
  int skipCheckIP;
} MEROCGI_STATE;

/* Platform defaults of MeroCgiInit. */
#define MERO_CGI_DEFAULT_SESSION_TIMEOUT 10080
#define MERO_CGI_DEFAULT_SKIP_CHECK_IP 0
#define MERO_CGI_DEFAULT_REGISTRY "current.users"

/* ---- lifecycle ---------------------------------------------------------- */

/* Zeroes *state and applies the default session settings above. `text` is
 * reserved (pass ""). Returns 1, or 0 when `state` is null. */
MERO_EXPORT int MeroCgiInit(const char* text, MEROCGI_STATE* state);

/* Zeroes *state and applies the given session settings. `registry` and
 * `extra` are copied (null means ""). Returns 1; 0 when `state` is null or
 * a copy cannot be made (the state is then zeroed and usable). */
MERO_EXPORT int MeroCgiInitEx(MEROCGI_STATE* state, int timeout, int skipCheckIP,
                              const char* registry, const char* extra);

/* Replaces the session settings of an initialised state, keeping its tables.
 * Returns 1; 0 when `state` is null or a copy cannot be made (the old
 * texts are kept then). */
MERO_EXPORT int MeroCgiSetSessionParam(MEROCGI_STATE* state, int timeout, int skipCheckIP,
                                       const char* registry, const char* extra);

/* Frees every table and text the state owns and zeroes it. Null is
 * accepted; a second call does nothing. */
MERO_EXPORT void MeroCgiFree(MEROCGI_STATE* state);

/* ---- parameters ---------------------------------------------------------- */

/* The request's raw parameter line, newly allocated (release with `free`):
 *   GET, HEAD and any method but POST/PUT/PATCH: QUERY_STRING;
 *   POST, PUT, PATCH: the body, read from standard input to exactly
 *   CONTENT_LENGTH bytes; when the body is empty, QUERY_STRING instead.
 * The body is read once per process; later calls return copies of it.
 * Null when there is no line (nothing to read, or an empty one), and when the
 * request is refused, with a log line and MLIBCErrGet():
 *   MERO_ERR_REQUEST_TOO_LARGE   the line would exceed
 *                                MERO_CGI_MAX_PARAM_LINE_BYTES;
 *   MERO_ERR_REQUEST_INCOMPLETE  the body ended before CONTENT_LENGTH bytes;
 *   MERO_ERR_REQUEST_MALFORMED   CONTENT_LENGTH is not a decimal number, or
 *                                the line holds a NUL byte;
 *   MERO_ERR_IO                  reading standard input failed. */
MERO_EXPORT char* MeroCgiGetParamLine(void);

/* Decodes an application/x-www-form-urlencoded line (as browsers send forms)
 * into the state's parameter table, creating it when needed:
 *   pairs are separated by '&'; empty pairs are skipped; a pair without '='
 *   is a name with the empty value; '+' is a space; "%XY" with two hex digits
 *   is that byte; a '%' not followed by two hex digits is kept as it is (with
 *   one log line per line parsed); a repeated name keeps its last value.
 * Returns the number of pairs stored (>= 0). Returns -1 and stores nothing
 * (the parameter table is left as it was) when `state` or `line` is null
 * (MERO_ERR_INVALID_ARGUMENT), the line exceeds MERO_CGI_MAX_PARAM_LINE_BYTES
 * or holds more than MERO_CGI_MAX_PARAMS pairs (MERO_ERR_REQUEST_TOO_LARGE),
 * a name or value decodes to a NUL byte, which no C text could carry
 * (MERO_ERR_REQUEST_MALFORMED), or memory runs out (MERO_ERR_NO_MEMORY);
 * each refusal writes a log line. */
MERO_EXPORT int MeroCgiParseCGIParam(MEROCGI_STATE* state, const char* line);

/* Value of parameter `name`: from the parameter table; on a POST, a name
 * that the table lacks is looked up in the query string as well (the body
 * wins). `def` when neither has it or an argument is null. */
MERO_EXPORT const char* MeroCgiGetCGIParam(MEROCGI_STATE* state, const char* name,
                                           const char* def);

/* Stores a copy of `value` under `name` in the parameter table, creating the
 * table (capacity 256) when needed. 1 on success; 0 with errno set (EINVAL for
 * a null argument, ENOMEM). */
MERO_EXPORT int MeroCgiSetCGIParam(MEROCGI_STATE* state, const char* name, const char* value);

/* 1 when the request body is a file upload: a POST whose CONTENT_TYPE is
 * multipart/form-data (letter case ignored); 0 otherwise. */
MERO_EXPORT int MeroCgiIsUploadRequest(void);

/* ---- uploads ------------------------------------------------------------- */

/* An upload's body (multipart/form-data, RFC 7578) is read from standard
 * input as it arrives, to exactly CONTENT_LENGTH bytes (which must be given),
 * through one buffer of MERO_CGI_UPLOAD_BUFFER_BYTES: memory stays bounded
 * whatever the size of the upload. It is read as browsers and curl send it:
 *   - the boundary is CONTENT_TYPE's boundary parameter (a token or a quoted
 *     string of 1 to 70 bytes, no control byte);
 *   - a delimiter is a line "--" boundary, which up to
 *     MERO_CGI_UPLOAD_MAX_PADDING blanks or tabs may follow; the line end
 *     before it, CRLF or a bare LF, belongs to it, and so does its own.
 *     "--" boundary "--" closes the body; nothing after it is read. Text
 *     that starts like a delimiter but goes on otherwise ("--" boundary "x"
 *     at the start of a line) is data. The first delimiter may open the
 *     body; anything before it is skipped;
 *   - a part's headers end at the first empty line; lines end with CRLF or
 *     LF; header names ignore letter case; a header line that is folded
 *     (starts with a blank) or holds a control byte other than tab, and a
 *     repeated Content-Disposition or Content-Type, are refused;
 *     Content-Disposition must be form-data with a name parameter, and
 *     Content-Type is kept for files; other headers are ignored;
 *   - parameter values are tokens or quoted strings. Inside quotes \" and
 *     \\ stand for '"' and '\'; any other backslash is itself (browsers
 *     send Windows paths unescaped). Values are not percent-decoded
 *     (browsers write '"' as %22, which stays), except filename* (RFC 8187,
 *     UTF-8 only), which is, and which wins over filename. A repeated
 *     parameter is refused;
 *   - a part with a filename or filename* parameter is a file, any other a
 *     form field (its value: the part's bytes). A file part whose file name
 *     is empty is skipped whole: browsers send one for a file input left
 *     empty.
 * Stored file names: the sent name's last path component (the text after
 * its last '/' or '\'), since a browser may send a whole client path. Refused
 * are the empty name, "." and "..", names with a control byte (0x00-0x1F,
 * 0x7F) and names longer than MERO_CGI_UPLOAD_MAX_NAME_BYTES. So a stored
 * name never leaves its directory.
 * Files are written unnamed into their target directory (O_TMPFILE) and get
 * their final name only once complete. A file system without O_TMPFILE gets
 * a hidden name ".upload-XXXXXX" instead, removed on every failure. So a
 * body cut short, refused or cancelled leaves no file under a final name,
 * and, with O_TMPFILE, nothing at all, even when the process is killed
 * midway. Files are created with mode MERO_CGI_UPLOAD_FILE_MODE (less the
 * umask); they are not synced to disk.
 * A body is read once: it cannot be read again, nor as a parameter line.
 *
 * Limits: a request beyond one is refused (below: -1, a log line,
 * MERO_ERR_REQUEST_TOO_LARGE). */
#define MERO_CGI_UPLOAD_BUFFER_BYTES (256 * 1024)
/* Headers of one part, their line ends and the empty line included. */
#define MERO_CGI_UPLOAD_MAX_PART_HEADER_BYTES 8192
/* Parts of one body, fields, files and skipped parts alike. */
#define MERO_CGI_UPLOAD_MAX_PARTS 1024
/* Files of one MeroCgiLoadUploadData call: each holds a descriptor until
 * the body has ended. */
#define MERO_CGI_UPLOAD_MAX_FILES 256
/* A stored file name, a part's field name, a file part's Content-Type. */
#define MERO_CGI_UPLOAD_MAX_NAME_BYTES 255
/* Buffers of the step-by-step calls hold any name with this many bytes. */
#define MERO_CGI_UPLOAD_TEXT_BYTES (MERO_CGI_UPLOAD_MAX_NAME_BYTES + 1)
/* All form fields of one body, names and values together. */
#define MERO_CGI_UPLOAD_MAX_FIELD_BYTES MERO_CGI_MAX_PARAM_LINE_BYTES
/* Blanks and tabs that may follow a delimiter on its line. */
#define MERO_CGI_UPLOAD_MAX_PADDING 64
#define MERO_CGI_UPLOAD_FILE_MODE 0600

/* Other refusals, all with a log line and -1 (MLIBCErrGet()):
 *   MERO_ERR_REQUEST_MALFORMED   no usable boundary, a part or header
 *                                that breaks the rules above, a refused
 *                                file name, a form field holding a NUL
 *                                byte, or a body whose CONTENT_LENGTH
 *                                ends before its closing delimiter;
 *   MERO_ERR_REQUEST_INCOMPLETE  standard input ended before CONTENT_LENGTH
 *                                bytes (the client went away);
 *   MERO_ERR_IO                  reading standard input failed, or the
 *                                target directory could not be opened or
 *                                written (errno in the log line: ENOSPC, ...);
 *   MERO_ERR_EXISTS              a file could not be given its name without
 *                                replacing one (see each call);
 *   MERO_ERR_CANCELLED           the cancel callback stopped it;
 *   MERO_ERR_INVALID_ARGUMENT    a null state or directory, non-zero
 *                                flags, a body already read, or a call out
 *                                of the order below;
 *   MERO_ERR_NO_MEMORY. */

/* Receives the whole upload. Every form field becomes a request parameter
 * (as MeroCgiSetCGIParam; a repeated name keeps its last value), and every
 * file is stored in directory `dir`, which must exist, under its stored
 * name, replacing a file of that name. The parameter named by a file
 * part's field holds the file's stored name (replacing a form field of that
 * name); several files under one field name give their stored names joined
 * by '/', which no stored name holds, in body order.
 * All or nothing: the files get their names, and the parameters are
 * stored, only after the closing delimiter was read; a refused request
 * stores nothing. (Should giving a name fail midway, a directory of that
 * name for instance, the files named before it stay; logged.)
 *   >= 0  the number of files stored.
 *   -1    refused, see above; also MERO_ERR_EXISTS when two files of the
 *         body have the same stored name (one would be lost) and
 *         MERO_ERR_REQUEST_TOO_LARGE beyond MERO_CGI_UPLOAD_MAX_FILES files.
 * `flags` is reserved: pass 0. */
MERO_EXPORT int MeroCgiLoadUploadData(MEROCGI_STATE* state, const char* dir, int flags);

/* Progress of an upload, kept up to date by the step-by-step calls. */
typedef struct _tag_cgi_upload_progress_ {
  unsigned long long total;     /* CONTENT_LENGTH */
  unsigned long long received;  /* body bytes read so far */
  unsigned long long fileBytes; /* bytes of the file being received */
  int files;                    /* files given their final name so far */
  char fileName[MERO_CGI_UPLOAD_TEXT_BYTES]; /* stored name of the file announced last */
} CGI_UPLOAD_PROGRESS;

/* The upload step by step, for a program that decides file by file: first
 * MeroCgiLoadUploadParams reads the form fields up to the first file part;
 * then each call of MeroCgiLoadUploadFileBW or
 * MeroCgiLoadUploadFileNoTruncate receives the file announced last, and
 * reads on up to the next one. Each call stores the form fields it read as
 * request parameters (as MeroCgiSetCGIParam) once it succeeds, and
 * describes the next file part in three texts:
 *   field     its field name
 *   fileName  its stored name (the rules above)
 *   type      its Content-Type ("" when it has none)
 * each at most MERO_CGI_UPLOAD_MAX_NAME_BYTES long; a null buffer is not
 * written. Every call answers:
 *   1   a file part is next, described in the texts.
 *   0   the body has ended; the texts are "".
 *   -1  refused (see above): this call stored nothing, neither a file under
 *       its final name nor a parameter, and the upload is over (later calls
 *       answer -1, MERO_ERR_INVALID_ARGUMENT); the texts are "".
 * `progress`, when not null, is called after every read with the body
 * bytes received so far and CONTENT_LENGTH; `record`, when not null, is
 * updated at the same moments. Files a call receives are counted in
 * record->files, and are not named in the parameters. */

/* Begins the upload: reads the form fields before the first file part.
 * The three texts go to buffers of the given sizes; a text that does not
 * fit refuses the call (MERO_ERR_INVALID_ARGUMENT; the upload is over):
 * MERO_CGI_UPLOAD_TEXT_BYTES hold any. */
MERO_EXPORT int MeroCgiLoadUploadParams(MEROCGI_STATE* state,
                                        void (*progress)(unsigned long long received,
                                                         unsigned long long total),
                                        CGI_UPLOAD_PROGRESS* record, char* field, int fieldSize,
                                        char* fileName, int fileNameSize, char* type,
                                        int typeSize);

/* Receives the file announced last into the file `path` (its directory
 * must exist; the name is the caller's choice), replacing a file there once
 * the part has ended and the next part's headers (or the closing delimiter)
 * were read; a null `path` reads the part and keeps nothing. `bandwidth`
 * is the most bytes per second to read, in decimal digits (null, "" or "0":
 * no limit; anything else is refused before reading,
 * MERO_ERR_INVALID_ARGUMENT). The texts of the next file part go to buffers
 * of MERO_CGI_UPLOAD_TEXT_BYTES each. */
MERO_EXPORT int MeroCgiLoadUploadFileBW(MEROCGI_STATE* state, const char* path,
                                        void (*progress)(unsigned long long received,
                                                         unsigned long long total),
                                        CGI_UPLOAD_PROGRESS* record, char* field,
                                        char* fileName, char* type, const char* bandwidth);

/* As MeroCgiLoadUploadFileBW, but never replaces a file: when `path`
 * exists the call is refused before reading (MERO_ERR_EXISTS), and a file
 * that appears there meanwhile refuses it at the end, the received file
 * removed (MERO_ERR_EXISTS). Instead of a bandwidth text:
 *   rate     when not null, called after every read with the bytes of this
 *            file written so far, the body bytes received so far and
 *            CONTENT_LENGTH; it answers the most bytes per second to read
 *            from then on (0 or less: no limit).
 *   written  when not null, receives the bytes of this file written, on
 *            every return (a refused call included).
 *   cancel   when not null, asked after every read; non-zero stops the
 *            upload (MERO_ERR_CANCELLED), leaving nothing of this call. */
MERO_EXPORT int MeroCgiLoadUploadFileNoTruncate(
    MEROCGI_STATE* state, const char* path,
    void (*progress)(unsigned long long received, unsigned long long total),
    CGI_UPLOAD_PROGRESS* record,
    long long (*rate)(unsigned long long fileBytes, unsigned long long received,
                      unsigned long long total),
    char* field, char* fileName, char* type, unsigned long long* written, BOOL (*cancel)(void));

/* ---- cookies ------------------------------------------------------------- */

/* Parses HTTP_COOKIE into the state's request cookies, per RFC 6265 section
 * 5.4 as browsers send it: pairs separated by ';', blanks around them
 * ignored, the name up to the first '=', no percent-decoding. A value that
 * is one string in double quotes ("a b", no quote inside) loses the quotes;
 * any other value is kept as it came, quotes and all ("zzz "   "ppp" stays
 * exactly that, and so does "a"b"). Where a name repeats, the first pair wins
 * (browsers list the most specific cookie first). Pairs without '=' or a
 * name, and pairs with a control byte (0x00-0x1F, 0x7F), are skipped, with
 * one log line per header. A header longer than
 * MERO_CGI_MAX_COOKIE_HEADER_BYTES loads nothing (log line,
 * MERO_ERR_REQUEST_TOO_LARGE).
 * Returns the number of cookies loaded (0 when there is no header), or -1
 * for a null state, a refused header or no memory. Replaces cookies loaded
 * before. */
MERO_EXPORT int MeroCgiLoadInCookies(MEROCGI_STATE* state);

/* Value of request cookie `name`, or `def`. */
MERO_EXPORT const char* MeroCgiGetInCookies(MEROCGI_STATE* state, const char* name,
                                            const char* def);

/* ---- response ------------------------------------------------------------ */

/* Nothing from the request or a handler reaches the header block unchecked:
 * every name and value is tested where it is recorded, and a refused one is
 * never stored (one log line, MERO_ERR_REQUEST_MALFORMED). Rules:
 *   header name   an RFC 9110 token (letters, digits, !#$%&'*+-.^_`|~), at
 *                 most MERO_CGI_MAX_HEADER_NAME_BYTES;
 *   header value  no control byte but tab (so no CR, LF or NUL), at most
 *                 MERO_CGI_MAX_HEADER_VALUE_BYTES;
 *   cookie name   an RFC 6265 token; cookie value: cookie-octets (no blank,
 *                 '"', ',', ';', '\\' or control byte), optionally in double
 *                 quotes; path: printable, no ';'; domain: letters, digits,
 *                 '-' and '.'. */
#define MERO_CGI_MAX_HEADER_NAME_BYTES 256
#define MERO_CGI_MAX_HEADER_VALUE_BYTES 8192
/* Most headers and most cookies a response records (each). */
#define MERO_CGI_MAX_RESPONSE_HEADERS 256

/* Records response header `name` with `value` in headerTable (created on
 * first use). A name already recorded, in any letter case, gets the new
 * value under its first spelling. 1 on success; 0 when an argument is null,
 * the name or value is refused (see above), the table is full, or memory
 * runs out. */
MERO_EXPORT int MeroCgiSetHTTPHeader(MEROCGI_STATE* state, const char* name, const char* value);

/* Flags of MeroCgiSetCookies; 0 gives the safe defaults: HttpOnly,
 * SameSite=Strict, and Secure when the request came over https (HTTPS=on,
 * or HTTP_X_FORWARDED_PROTO=https from a proxy that ended TLS). */
#define MERO_COOKIE_SCRIPT_READABLE 1 /* no HttpOnly */
#define MERO_COOKIE_SAMESITE_LAX 2    /* SameSite=Lax instead of Strict */

/* Records a cookie to set, in setCookieTable under its name (a second call
 * for the same name replaces it). It is printed as
 *   Set-Cookie: name=value[; Max-Age=N]; Path=path[; Domain=d][; Secure]
 *               [; HttpOnly]; SameSite=Strict|Lax
 * `maxAge` > 0 gives Max-Age=maxAge, 0 a session cookie, < 0 deletes the
 * cookie (Max-Age=0). A null or empty `path` means "/"; a null or empty
 * `domain` a host-only cookie. Returns 1 on success, 0 when the name, value,
 * path or domain is refused (see above) or memory runs out. */
MERO_EXPORT int MeroCgiSetCookies(MEROCGI_STATE* state, const char* name, const char* value,
                                  int maxAge, const char* path, int flags, const char* domain);

/* Prints the header block to standard output: every recorded header as
 * "Name: value" in the order first recorded, then one Set-Cookie line per
 * cookie, each line ended by CR LF, then an empty line. Once per state:
 * returns 1 when printed, 0 when it was printed before (nothing is printed
 * again), the state is null, or writing failed. */
MERO_EXPORT int MeroCgiPrintHTTPHeader(MEROCGI_STATE* state);

/* Answers with a redirection: records "Status: 302 Found" and
 * "Location: url" and prints the header block. `url` must be a valid header
 * value (no control byte, so no CR or LF). Returns 1 when printed, 0 when
 * the URL is refused or the two headers would not fit within
 * MERO_CGI_MAX_RESPONSE_HEADERS (nothing recorded or printed, log line), or
 * printing failed. Should memory run out between the two, Status is put
 * back as it was, or becomes "500 Internal Server Error" when there was
 * none: a recorded header cannot be removed, and a 302 must never go out
 * without its Location. */
MERO_EXPORT int MeroCgiRedirect(MEROCGI_STATE* state, const char* url);

/* Renders the pairs of *table as a JSON object text (keys in slot order;
 * '"', '\\' and control bytes escaped; other bytes as they are), newly
 * allocated: release it with `free`. Null for a null argument or table, or
 * without memory. */
MERO_EXPORT char* MeroCgiHashToJsonString(MLIBSZHASH** table);

/* ---- UI language --------------------------------------------------------- */

/* The request's UI language, one of the languages offered (BCP 47 tags):
 *   en de fr it es nl pl pt ru ja ko zh-CN zh-TW
 * namely the parameter
 * "lang", else the cookie "lang", when it names a supported language (letter
 * case ignored); else the best match of HTTP_ACCEPT_LANGUAGE (highest q
 * first, ties in header order; a tag matches a language exactly, else by its
 * primary subtag, so de-AT gives de and zh gives zh-CN); else "en". Computed once per state and cached; static
 * text, never null for a non-null state (null state: null). */
MERO_EXPORT const char* MeroCgiGetLang(MEROCGI_STATE* state);

/* ---- sessions ------------------------------------------------------------ */

/* Sessions live in one LMDB store, MERO_CGI_SESSION_DB under the appliance
 * root (merocore.h), with its lock file beside it ("<path>-lock"), created
 * by the first writer (login, or the webapi-session tool) with mode 0600 in
 * a 0700 directory: both files must belong to the user the CGI programs run
 * as. A request opens the store only when it checks a session, read-only
 * unless it writes a last-seen time, and never creates it.
 *
 * A session identifier is 256 bits from getrandom(2) as 43 characters of
 * URL-safe base64 (A-Z a-z 0-9 - _). Only its SHA-256 is stored, so a copy
 * of the store logs nobody in. A session record holds: registry (the
 * current-users registry name of its session name), user, client address,
 * created, last seen, lifetime (seconds from creation; 0 none), CSRF token
 * (option 2), login state (option 13: "1" active, "2" ended by another
 * login), privileges (words separated by blanks) and the widest time-out a
 * check has applied to it.
 *
 * Readers never wait and never see a half-written record; writers take
 * turns (one write transaction at a time, across processes). At most
 * MERO_CGI_SESSION_MAX_READERS processes read at once (the slots of killed
 * readers are freed when the table fills). The store holds at most
 * MERO_CGI_SESSION_STORE_BYTES of data, some three million sessions (the
 * file grows with use), and a write beyond the limit fails with
 * MERO_SESSION_STORE_ERROR (logged: purge idle sessions then). The store
 * also expires sessions itself, with no full scan: each new session looks
 * at MERO_CGI_SESSION_EXPIRY_BATCH stored ones from a random place and
 * removes those that have expired, past their lifetime or idle past the
 * widest time-out a check has applied to them (with the rule of
 * MERO_CGI_SESSION_TOUCH_SECONDS; MERO_CGI_DEFAULT_SESSION_TIMEOUT for one
 * no check has seen). Under steady logins the expired ones that wait to be
 * found are thus about one in that many sessions stored. */
#define MERO_CGI_SESSION_DB "/var/lib/merocgi/sessions.mdb"
#define MERO_CGI_SESSION_STORE_BYTES (1024LL * 1024 * 1024)
/* Stored sessions each new one looks at for expired ones to remove. */
#define MERO_CGI_SESSION_EXPIRY_BATCH 16
#define MERO_CGI_SESSION_MAX_READERS 1024
/* Last-seen times are written at most this often per session, or every
 * tenth of the idle limit when that is shorter: a check within that
 * interval of the last write only reads. A use it does not write is
 * allowed for: a session idles out only when the time since its last
 * recorded use passes the idle limit plus that interval, so one in use
 * never idles out, and one left alone does so at most that interval late. */
#define MERO_CGI_SESSION_TOUCH_SECONDS 60
#define MERO_CGI_SESSION_ID_CHARS 43
/* A session's CSRF token: 192 random bits as URL-safe base64. */
#define MERO_CGI_CSRF_TOKEN_CHARS 32

/* Results of MeroCgiIsAuthorizedEx and the session operations below. -5 is
 * left to the library ("the request carries no session identifier"). */
#define MERO_SESSION_AUTHORIZED 1
#define MERO_SESSION_EXPIRED (-1)      /* idle for longer than the time-out, or past its lifetime */
#define MERO_SESSION_UNKNOWN (-2)      /* no such session in this registry (or revoked, or no store) */
#define MERO_SESSION_ENDED (-3)        /* ended by another login, or used from another address */
#define MERO_SESSION_NO_PRIVILEGE (-4) /* the session lacks the required privilege */
#define MERO_SESSION_STORE_ERROR (-6)  /* the store could not be read or written (logged) */
#define MERO_SESSION_INVALID (-7)      /* a null or unusable argument */
#define MERO_SESSION_CSRF_REFUSED (-8) /* a state-changing request without the session's CSRF
                                          token or the server's own Origin (see below) */

/* The options record of MeroCgiIsAuthorizedEx: two words that the library
 * passes as 31 and 0. Neither changes the check on this platform. */
typedef struct _tag_MEROCGI_AUTH_OPTIONS {
  unsigned int flags;
  unsigned int reserved;
} MEROCGI_AUTH_OPTIONS;

/* Checks session `sid` in the state's registry (MeroCgiInitEx /
 * MeroCgiSetSessionParam; a bare session name is taken as
 * "<name>.current.users", folded to lower case), in this order:
 *   found in the registry             else MERO_SESSION_UNKNOWN
 *   not ended by another login        else MERO_SESSION_ENDED
 *   within its lifetime, and used within sessionTimeout minutes of its last
 *   use (timeout 0: no idle limit; negative: always expired; see
 *   MERO_CGI_SESSION_TOUCH_SECONDS for when it idles out)
 *                                     else MERO_SESSION_EXPIRED
 *   from its client address, REMOTE_ADDR, compared as addresses (unless
 *   skipCheckIP)                      else MERO_SESSION_ENDED
 *   holding `privilege` (null or "": none needed)
 *                                     else MERO_SESSION_NO_PRIVILEGE
 *   with the word "csrf" in the state's extra text, a request whose
 *   REQUEST_METHOD is anything but GET or HEAD must carry the session's
 *   CSRF token in the header X-Mero-Token (HTTP_X_MERO_TOKEN), or an Origin
 *   header naming this server (HTTP_ORIGIN equal to "http[s]://" HTTP_HOST,
 *   letter case ignored, a default port optional on either side; https
 *   as MeroRequestIsHttps says)
 *                                     else MERO_SESSION_CSRF_REFUSED
 * and returns MERO_SESSION_AUTHORIZED, the last use becoming now (written at
 * most every MERO_CGI_SESSION_TOUCH_SECONDS, or tenth of the idle limit). Whenever the session was
 * found, whatever the result, its user name is written into `user` (cut to
 * userSize - 1 bytes, zero-ended); when it was not found `user` is left as
 * it was. MERO_SESSION_STORE_ERROR when the store cannot be read;
 * MERO_SESSION_INVALID for a null state, sid or user, or userSize < 1. On
 * success the session's options become readable with MeroCgiGetOption. */
MERO_EXPORT int MeroCgiIsAuthorizedEx(MEROCGI_STATE* state, const char* sid, char* user,
                                      int userSize, const MEROCGI_AUTH_OPTIONS* options,
                                      const char* privilege);

/* Option `option` of the session found by the last successful
 * MeroCgiIsAuthorizedEx on this state, or `def`: 2 the CSRF token, 13 the
 * login state ("1"). Any other option, and every option before a successful
 * check, gives `def`. The text lives as long as the state. */
MERO_EXPORT const char* MeroCgiGetOption(MEROCGI_STATE* state, int option, const char* def);

/* Writes the session store's path (under the appliance root) into `buf`.
 * One store serves every state, so `state` may be null. 1 on success; 0
 * when `buf` is null or `size` is too small (then `buf` holds "" when
 * size >= 1). */
MERO_EXPORT int MeroCgiGetSessPath(MEROCGI_STATE* state, char* buf, int size);

/* ---- session administration (login, the webapi-session tool) ------------ */

/* What MeroCgiSessionList reports of a session: never its identifier.
 * `ref` is the first 16 hex digits of the identifier's SHA-256, enough to
 * name the session to MeroCgiSessionRevoke. */
typedef struct _tag_MEROCGI_SESSION_INFO {
  const char* ref;
  const char* registry;
  const char* user;
  const char* client;
  long long created;  /* seconds since the epoch */
  long long lastSeen; /* seconds since the epoch */
  long long lifetime; /* seconds from creation; 0: none */
  int state;          /* 1 active, 2 ended by another login */
  const char* privileges;
} MEROCGI_SESSION_INFO;

/* Creates a session for `user` used from `client` in `registry` (bare
 * session names are folded as for MeroCgiIsAuthorizedEx), with `lifetime`
 * seconds (0: none) and `privileges` (null: none), and writes its identifier
 * into `id` (MERO_CGI_SESSION_ID_CHARS + 1 bytes at least). With
 * `endOthers` non-zero, the user's other sessions in the registry are ended
 * (they then answer MERO_SESSION_ENDED). Creates the database when needed.
 * Returns MERO_SESSION_AUTHORIZED, MERO_SESSION_INVALID (null or empty user,
 * registry or client, a control byte in one of them, or `idSize` too
 * small), or MERO_SESSION_STORE_ERROR (logged). */
MERO_EXPORT int MeroCgiSessionCreate(const char* registry, const char* user, const char* client,
                                     long long lifetime, const char* privileges, int endOthers,
                                     char* id, int idSize);

/* Calls `visit` once per session, oldest first, after the store is closed
 * again (so `visit` may call the other session operations); the texts live
 * during the call only. A record that does not decode is skipped (logged;
 * MeroCgiSessionPurge removes it). Returns the number of sessions, or
 * MERO_SESSION_STORE_ERROR. No store: 0. */
MERO_EXPORT int MeroCgiSessionList(void (*visit)(const MEROCGI_SESSION_INFO* info, void* context),
                                   void* context);

/* Removes sessions: the one whose identifier is `id` (when not null), else
 * those whose ref starts with `refPrefix` (at least 8 hex digits; refused
 * with MERO_SESSION_INVALID when it names more than one session), else all
 * of `user`'s. Returns the number removed (0 when none matched), or
 * MERO_SESSION_INVALID / MERO_SESSION_STORE_ERROR. */
MERO_EXPORT int MeroCgiSessionRevoke(const char* id, const char* refPrefix, const char* user);

/* Removes every session past its lifetime, or idle for longer than
 * `idleMinutes` (> 0; 0 or less: only lifetimes count), and every record
 * that does not decode. Returns the number removed, or
 * MERO_SESSION_STORE_ERROR. */
MERO_EXPORT int MeroCgiSessionPurge(int idleMinutes);

/* ---- identity of a session's user ---------------------------------------- */

/* The uid (MeroCgiUIDGet) or primary gid (MeroCgiGIDGet) of account `user`
 * (getpwnam), given only while `sid` names a live session of that user: a
 * session in the store, in any registry, that is active (not ended by
 * another login), within its lifetime, and whose user is exactly `user`
 * (byte for byte). Idle time and client address are left to
 * MeroCgiIsAuthorizedEx, which checks the request before it asks for ids.
 * The store is opened read-only and closed again; nothing is written.
 *   >= 0  the id.
 *   -1    a null argument, no session store, no such session (or revoked),
 *         another user's session, one ended or past its lifetime, no such
 *         account, an id above INT_MAX, or a store or account database that
 *         could not be read (logged). */
MERO_EXPORT int MeroCgiUIDGet(const char* sid, const char* user);
MERO_EXPORT int MeroCgiGIDGet(const char* sid, const char* user);

/* Switch the process to the ids MeroCgiGIDGet / MeroCgiUIDGet give: the
 * real, effective and saved group id (setresgid(g, g, g)), respectively user
 * id (setresuid(u, u, u)), all three at once. That is permanent: after
 * MeroCgiUidSet to a non-root user the process can never become root again,
 * nor change its group, so call MeroCgiGidSet first. Supplementary groups
 * are left as they are: a process leaving root sets them itself (initgroups)
 * before MeroCgiUidSet, or it keeps root's. Needs CAP_SETGID / CAP_SETUID
 * unless the id is already one of the process's own.
 *   0   switched.
 *   -1  nothing changed: no id was given (errno ENOENT), or the call failed
 *       (its errno, EPERM without the privilege). */
MERO_EXPORT int MeroCgiGidSet(const char* sid, const char* user);
MERO_EXPORT int MeroCgiUidSet(const char* sid, const char* user);

/* Whether account `user` may write to its home directory, where a share
 * login puts the user's files. The account is found with getpwnam; its home
 * directory must exist as a directory (stat follows symbolic links); then,
 * as the kernel decides from the mode bits: uid 0 always may; otherwise the
 * owner's bits count when the account owns the directory, else the group's
 * when one of its groups (primary, or supplementary from getgrouplist) is
 * the directory's, else the others'; the class that counts must grant both
 * write and search (x). Access control lists are not consulted.
 *   0   writable by the account.
 *   -1  a null user, no such account, or an account database that could not
 *       be read (logged).
 *   -2  no home directory: missing, not a directory, or not reachable.
 *   -3  not writable by the account.
 * Domain accounts (MeroCgiDomValidShareWrite) and directory accounts
 * (MeroCgiLDAPValidShareWrite) are both accounts NSS resolves, so both run
 * the same check. `out`, the login's output text, is not used on this
 * platform (it may be null). Reads only; any user may call it. */
MERO_EXPORT int MeroCgiDomValidShareWrite(const char* user, const char* out);
MERO_EXPORT int MeroCgiLDAPValidShareWrite(const char* user, const char* out);

/* ---- login and logout ----------------------------------------------------- */

/* The login parameters: five words, in this order. */
typedef struct _tag_login_params {
  const char* user;     /* the login name */
  const char* password; /* the password ("" for MeroCgiLoginNoAuth) */
  const char* service;  /* the PAM service; null or "": MERO_PAM_DEFAULT_SERVICE */
  unsigned int flags;   /* user categories admitted (bits below), and
                           MERO_LOGIN_FLAG_NO_ERROR_LOG */
  int duration;         /* 1: the session gets the default lifetime (it gets
                           it anyway unless option 10 says otherwise) */
} LOGIN_PARAMS;
typedef int CGI_LOGIN_RESULT;

/* Category bits of LOGIN_PARAMS.flags. A user's category: a name with a
 * '\\' is a domain user, else one with '@' a directory user, else a local
 * user; members of the administrators' group (MLIBGroupIsAdminGroupMem)
 * are administrators. Admitted are: a local administrator with bit 1, any
 * other local user with bit 2, any domain user with bit 4, any directory
 * user with bit 8. */
#define MERO_LOGIN_FLAG_ADMIN 1
#define MERO_LOGIN_FLAG_LOCAL 2
#define MERO_LOGIN_FLAG_DOMAIN 4
#define MERO_LOGIN_FLAG_LDAP 8
/* Silences the login layer's error lines (not its audit lines). */
#define MERO_LOGIN_FLAG_NO_ERROR_LOG 16

/* Login results. Apart from MERO_LOGIN_SUCCESS, `out` holds "" except for
 * MERO_LOGIN_THROTTLED. */
#define MERO_LOGIN_SUCCESS 1
#define MERO_LOGIN_FAILED (-1)             /* wrong user name or password */
#define MERO_LOGIN_ACCOUNT_REFUSED (-2)    /* the password was right, but the account may not log
                                              in now (locked, expired, new password needed) */
#define MERO_LOGIN_CATEGORY_REFUSED (-3)   /* the user's category is not admitted by the flags */
#define MERO_LOGIN_STORE_ERROR (-6)        /* the session or throttling store failed (logged) */
#define MERO_LOGIN_INVALID (-7)            /* null or unusable argument: no user, no REMOTE_ADDR,
                                              a control byte in the user name, outSize < 1 */
#define MERO_LOGIN_THROTTLED (-8)          /* too many failed logins lately, for this user name or
                                              from this address: nothing was checked; `out`
                                              holds the seconds to wait, in decimal */
#define MERO_LOGIN_SSO_NOT_CONFIGURED (-9) /* single sign-on is not configured on this server */
#define MERO_LOGIN_UNAVAILABLE (-10)       /* PAM could not be loaded or the service could not
                                              be started (logged): the operator's to fix */

/* Throttling of failed logins, kept across processes in its own store
 * MERO_CGI_LOGIN_THROTTLE_DB beside the sessions. Every password attempt
 * counts against its user name (letter case ignored) and its client
 * address before the password is checked, in one write transaction, so
 * concurrent attempts cannot slip past the count; a successful login takes
 * its attempt back (the user name's count is cleared, the address's count
 * lowered by one). A count is forgotten once its last attempt is
 * MERO_CGI_LOGIN_THROTTLE_WINDOW seconds old. When a count reaches its
 * limit, that user name or address is locked for
 * MERO_CGI_LOGIN_THROTTLE_LOCK seconds, doubling with every further
 * attempt counted (up to MERO_CGI_LOGIN_THROTTLE_MAX_LOCK); while locked,
 * a login is answered MERO_LOGIN_THROTTLED without asking PAM, so a correct
 * password does not log in either, and the refused attempt does not count. */
#define MERO_CGI_LOGIN_THROTTLE_DB "/var/lib/merocgi/login-throttle.mdb"
#define MERO_CGI_LOGIN_THROTTLE_USER_LIMIT 5
#define MERO_CGI_LOGIN_THROTTLE_CLIENT_LIMIT 20
#define MERO_CGI_LOGIN_THROTTLE_WINDOW 300
#define MERO_CGI_LOGIN_THROTTLE_LOCK 60
#define MERO_CGI_LOGIN_THROTTLE_MAX_LOCK 900

/* Audit: every login attempt and logout writes one line to syslog with
 * facility LOG_AUTH (LOG_NOTICE for a success, LOG_WARNING otherwise),
 * never a password or a session identifier; user names and addresses are
 * cut to 64 bytes, their control bytes, blanks and backslashes written as
 * \xHH (so "DOM\\dave" is "DOM\x5Cdave", and a line splits into fields
 * at its blanks), and a missing one is "-":
 *   "login: user=%s client=%s result=success"
 *   "login: user=%s client=%s result=failure reason=%s"   reason: password,
 *        account, category, unavailable, store, invalid, sso-not-configured
 *   "login: user=%s client=%s result=throttled retry_after=%d"
 *   "logout: user=%s client=%s result=success|unknown" */

/* Logs `params->user` in with its password, in this order: throttling (see
 * above); PAM (mero_pam_login.h: service `params->service`, pam_authenticate
 * then pam_acct_mgmt); the user's category against `params->flags`; then a
 * new session in the state's registry for the user from REMOTE_ADDR, with a
 * fresh identifier (one the request carried is never reused) and a new
 * CSRF token, holding the privilege "admin" when the user is an
 * administrator. Its lifetime is option 10 when set on the state (> 0:
 * minutes; -1: no lifetime, the idle limit alone ends it), else one week
 * (MERO_CGI_DEFAULT_SESSION_TIMEOUT minutes). The cookie "id" is recorded
 * for the response (MeroCgiSetCookies: HttpOnly, SameSite=Strict, Secure on
 * https, Path=/) and replaces the request's own "id" cookie on the state, so
 * the rest of the request (MeroCgiGetInCookies, MeroCgiGetOption) sees the
 * new session. On success `out` holds the CSRF token (cut to outSize - 1;
 * MERO_CGI_CSRF_TOKEN_CHARS + 1 bytes hold it whole). `loginArg` is not
 * used on this platform. Returns one of the MERO_LOGIN_* results. */
MERO_EXPORT int MeroCgiLoginEx2(MEROCGI_STATE* state, char* out, unsigned int outSize,
                                LOGIN_PARAMS* params, const char* loginArg);

/* Creates the session as MeroCgiLoginEx2 does, without a password or
 * throttling: for programs that authenticated the user by other means. */
MERO_EXPORT int MeroCgiLoginNoAuth(MEROCGI_STATE* state, char* out, unsigned int outSize,
                                   LOGIN_PARAMS* params);

/* Single sign-on is not configured on this platform yet: returns
 * MERO_LOGIN_SSO_NOT_CONFIGURED (audited as a failure) for every call, and
 * MERO_LOGIN_INVALID for a null state or params. */
MERO_EXPORT int MeroCgiLoginWithOIDCSSOAuth(MEROCGI_STATE* state, char* out, unsigned int outSize,
                                            LOGIN_PARAMS* params, const char* loginArg,
                                            int ssoFlag);

/* Ends session `sid`: removes it from the store (a later check answers
 * MERO_SESSION_UNKNOWN) and records the "id" cookie for deletion
 * (Max-Age=0). `user` only names the user in the audit line. Returns 1
 * when the session was removed, 0 when the store held no such session,
 * MERO_SESSION_STORE_ERROR, or MERO_SESSION_INVALID for a null state or
 * sid. */
MERO_EXPORT int MeroCgiLogoutEx(MEROCGI_STATE* state, const char* sid, const char* user);

/* Options a program sets on its state. `value` points to an int for option
 * 10 (the lifetime of the session a later login creates: minutes > 0, or
 * -1 for none; other values are refused) and is a text for option 13 (the
 * login state MeroCgiGetOption(13) answers for the rest of the request;
 * the stored state of a session changes only by login and logout). Returns
 * 1 when stored, 0 for a null argument, another option or a refused value. */
#define MERO_CGI_OPTION_SESSION_LIFETIME 10
#define MERO_CGI_OPTION_LOGIN_STATE 13
MERO_EXPORT int MeroCgiSetOption(MEROCGI_STATE* state, int option, const void* value);

MERO_EXTERN_C_END

#ifdef __cplusplus
namespace MERO {
class PamConf;
}
/* Logs in as MeroCgiLoginEx2 does, with the service, service directory,
 * user and authentication token of `conf` (params->user and
 * params->password are expected to hold the same user and token; `conf`
 * wins). `pamFlag` is not used on this platform. */
extern "C" MERO_EXPORT int MeroCgiLoginWithPamConf(MEROCGI_STATE* state, char* out,
                                                   unsigned int outSize, LOGIN_PARAMS* params,
                                                   int pamFlag, const MERO::PamConf* conf);
#endif

#endif /* MEROCGI_H */
