// MERO::WebAPIUtil: free functions the library uses and CGI programs call
// directly. None throws on its own account; what jsoncpp or the standard
// library throws (a failed allocation) passes through.
#ifndef WEBAPI_WEBAPIUTIL_H
#define WEBAPI_WEBAPIUTIL_H

#include <json/value.h>

#include <string>
#include <vector>

#include "webapi/Export.h"

// The platform's string list and hash (merocore.h), by name only.
typedef struct _tag_MLIBSZLIST MLIBSZLIST;
typedef struct _tag_MLIBSZHASH MLIBSZHASH;

namespace MERO {

// Browser families told by WebAPIUtil::GetBrowserInfo. 0 is never stored.
enum BROWSER_TYPE {
  BROWSER_IE = 1,  // "MSIE", or "Trident/7.0" (version 11)
  BROWSER_FIREFOX = 2,
  BROWSER_SAFARI = 3,
  BROWSER_CHROME = 4,
  BROWSER_FACEBOOK = 5,  // the agent "facebookexternalhit"
  BROWSER_EDGE = 6,      // "Edge/" or "Edg/", version 12 and above
  BROWSER_UNKNOWN = 7,   // a user agent with none of the tokens
  BROWSER_NONE = 8,      // no user agent in the environment
};

// What GetBrowserInfo tells; the caller owns it.
struct _tag_mero_browser_info_ {
  int type;          // a BROWSER_TYPE code
  char version[32];  // NUL-terminated version text, at most 31 characters
};

namespace WebAPIUtil {

// ---- JSON files shared between processes ---------------------------------
//
// Readers take a shared flock on the file and poll for it; the writer takes
// the platform's exclusive lock (MLIBCFileLockTimeByFile, mode 1) on the same
// file. So a reader never parses a file a writer is half-way through, and
// each side gives up after about 15 seconds. Neither function logs.

// Number of shared-lock attempts of ReadJsonFile, kReadLockPollMicros apart
// (about 15 seconds in all).
constexpr int kReadLockAttempts = 301;
constexpr int kReadLockPollMicros = 50000;
// Seconds SaveJsonFile waits for the writer's lock.
constexpr int kSaveLockTimeoutSeconds = 15;

// Reads the JSON document in `path` into `value`, as jsoncpp's Reader
// parses a file: comments are accepted and dropped, and whatever follows
// the document is ignored (a stray character after a hand-edited file does
// not make it unreadable). Request text is held to JSON itself instead
// (MERO::JsonValue::fromString).
//   true   the file was opened, locked and its document parsed; `value`
//          holds it.
//   false  `path` is null; the file cannot be opened (it does not exist:
//          no waiting); the shared lock was not had within kReadLockAttempts
//          (`value` untouched); or the file does not begin with a JSON
//          document (brackets nested deeper than
//          MERO::JsonValue::kMaxJsonDepth anywhere count as not JSON). After
//          a parse failure `value` holds whatever the parser left: discard
//          it.
// The lock and the descriptor are released on every path. A FIFO or other
// file that cannot be read at once gives false, never a wait.
WEBAPI_EXPORT bool ReadJsonFile(Json::Value& value, const char* path);

// Writes `value` to `path` as one line of compact JSON ended by a line feed
// (Json::FastWriter), creating the file when it does not exist (mode 0644
// before the umask). The file is rewritten in place under the lock (no
// temporary file), and never cut before the new text is whole in it.
//   true   the lock was taken and the file holds exactly the new text.
//   false  the lock was not had within kSaveLockTimeoutSeconds, the file
//          could not be opened, or the space for the new text could not be
//          had (disk full, file-size limit): the old document is whole (on
//          a file system without fallocate, possibly followed by zero bytes).
//          Also false, very unlikely, when the write or the final cut
//          failed after the space was had.
// A process killed during a save leaves the old document or the new one,
// either possibly followed by bytes that ReadJsonFile ignores; the new text
// is written in one call, which the kernel can stop between memory pages
// (4 KiB): a killed writer of a longer text can leave it cut there.
WEBAPI_EXPORT bool SaveJsonFile(Json::Value& value, const char* path);

// ---- Scalars and environment ------------------------------------------------

// Strict decimal integer: optional leading blanks and one sign, then digits,
// then nothing else.
//   true   *value (when `value` is not null) holds the number; values past
//          the 32-bit range are clamped to INT_MIN / INT_MAX and accepted.
//   false  no digits, or anything after them (blank, ".", "x"); a null text.
//          *value is untouched.
WEBAPI_EXPORT bool ParseInt(const char* text, int* value);

// Boolean words, letter case ignored, no trimming: "true", "yes", "1" give
// true; "false", "no", "0" give false.
//   true   *value (when not null) holds the boolean.
//   false  null or any other text; *value is untouched.
WEBAPI_EXPORT bool ParseBool(const char* text, bool* value);

// Copies environment variable `name` into `buf`.
//   true   the variable exists: all `size` bytes of `buf` were zeroed, then
//          the value copied, cut to size - 1 bytes without notice.
//   false  the variable is unset (`buf` untouched), or `buf`/`size` unusable,
//          or formatting failed (logged: "%s:%d snprintf failed. %m").
WEBAPI_EXPORT bool GetEnv(const char* name, char* buf, int size);

// ---- String lists and JSON collections -------------------------------------
//
// Stateless and re-entrant: no static buffers, results by value or through
// the object passed in.

// True when `array` is an array holding the JSON string `text` (jsoncpp
// equality: same type, same bytes, so case-sensitive). False for a non-array.
WEBAPI_EXPORT bool JsonArrayHasString(const Json::Value& array, const std::string& text);

// True when an element of `array` matches `needle`: compared as the needle's
// type (integer, unsigned, real, string, boolean) when jsoncpp's
// isConvertibleTo accepts the element for it; strings compare without regard
// to ASCII case. With `strict`, only elements of the needle's own type can
// match. A null, array or object needle never matches; a non-array gives
// false. With a string needle and `strict` off, numbers, booleans and null
// elements are skipped (they have no text of their own to compare).
WEBAPI_EXPORT bool JsonArrayHas(Json::Value& array, Json::Value needle, bool strict);

// Splits `text` at any character of `delimiters` into a JSON array of
// strings. A backslash before a backslash or before the first delimiter
// character escapes it (the backslash is dropped); before anything else it
// stays. With `trim`, " \t\n\r" is removed from both ends of each token.
// Empty tokens are dropped. A null text or delimiter set gives [].
WEBAPI_EXPORT Json::Value ParseToArray(const char* text, const char* delimiters, bool trim);
WEBAPI_EXPORT Json::Value ParseToArray(const char* text, const char* delimiters);  // trims

// The list's items as a JSON array of strings ([] for a null or empty list;
// a null item, which the platform never stores, is skipped).
WEBAPI_EXPORT Json::Value SzListToArray(MLIBSZLIST* list);

// Stores every member of `object` whose value converts to a string (strings,
// numbers, booleans; null as "") into *hash, in member order; arrays and
// objects are skipped, failed stores ignored. False, with nothing done, when
// `object` is not an object or `hash` or *hash is null (this never creates a
// hash). *hash may be replaced as the hash grows.
WEBAPI_EXPORT bool JsonObjToSzHash(Json::Value& object, MLIBSZHASH** hash);

// Sets a string member of `object` for every pair of `hash`, replacing members
// of the same name and keeping the others. False, `object` unchanged, when
// `hash` is null or `object` is not already an object.
WEBAPI_EXPORT bool SzHashToJsonObj(MLIBSZHASH* hash, Json::Value& object);

// Splits `text` at runs of `delimiters` (strtok_r semantics): no empty
// tokens; an embedded NUL ends the text; an empty delimiter set gives the
// whole text.
WEBAPI_EXPORT std::vector<std::string> StringExplode(const std::string& text,
                                                     const std::string& delimiters);

// Joins `parts` with `glue` between neighbours (null glue: "").
WEBAPI_EXPORT std::string StringImplode(const std::vector<std::string>& parts, const char* glue);

// True for "", null, [] and {}; never for numbers or booleans.
WEBAPI_EXPORT bool IsEmpty(const Json::Value& value);

// The JSON document in `text` (JsonValue::fromString), or null with the log
// line "%s:%d %s is not JSON format".
WEBAPI_EXPORT Json::Value ParseJson(const std::string& text);

// ---- URL codec (percent-encoding) -----------------------------------------
//
// Both work on bytes and know nothing of character sets: a multi-byte
// character is encoded byte by byte. Neither logs.

// `text` with every byte outside the unreserved set A-Z a-z 0-9 "-" "." "_"
// written as "%" and two capital hex digits ("~" gives %7E, a space %20,
// never "+"). No byte from 0x80 up is unreserved. At most three times as
// long as `text`; "" gives "".
WEBAPI_EXPORT std::string URLEncode(const std::string& text);

// `text` with each "%" and the two characters after it replaced by one byte,
// and "+" by a space when `plusAsSpace` is set; every other byte is kept.
// The pair after "%" is read as a hex integer would be by an istream (blanks
// skipped first, an optional sign, an optional 0x, hex digits of either
// case, up to the first other character) and its low 8 bits are the byte:
// "%4a" gives "J", "%-1" 0xFF, "%4g" 0x04, "%zz" a NUL byte. The three
// characters are always consumed, and nothing is decoded twice ("%2541"
// gives "%41").
//   ""   when a "%" has fewer than two characters after it ("abc%4",
//        "%41%"), however much was decoded before it; also for "".
// Never longer than `text`. Decoding URLEncode's output gives back its input
// with either flag.
WEBAPI_EXPORT std::string URLDecode(const std::string& text, bool plusAsSpace);

// ---- Key-value strings and JSON objects -------------------------------------
//
// A key-value string is name=value pairs joined by "&", as in a query string.
// Names are written and read exactly as they stand (never encoded or
// decoded, may be empty); only the values go through the URL codec and, on
// request, through JSON. Neither function logs.

// Writes the members of `object`, in member order (ascending bytes of the
// names), as name=value pairs joined by "&" into `out`.
//   With `jsonValues`, every member's value is its compact JSON text (a
//   string in JSON quotes, null as null, arrays and objects as compact
//   JSON); without it, only members convertible to a string are written,
//   as asString() gives them (null as ""), and arrays and objects are left
//   out. With `urlEncode`, each value text is then URLEncode'd.
//   true   `object` is an object; `out` holds the pairs ("" for none).
//   false  `object` is not an object; `out` is unchanged.
WEBAPI_EXPORT bool JsonObjTostrPair(const Json::Value& object, std::string& out, bool urlEncode,
                                    bool jsonValues);

// Reads the name=value pairs of `text` (split at runs of "&"; the text ends
// at its first NUL) into members of `target`. The name is what comes before
// the first "=" of a pair, the value what comes after it; a pair without
// "=" or with nothing after it is skipped. A later pair of the same name
// replaces an earlier one; members not named are left alone.
//   With `urlDecode`, the value is URLDecode'd with plus-as-space (a broken
//   escape sets the member to ""). The member is the value as a JSON string,
//   unless `jsonValues` is set and the value reads as JSON the way
//   Json::Reader reads it (a leading value, whatever follows it): then it is
//   the parsed value, except that a non-negative int read from a text with
//   anything but the digits 0-9 in it stays a string ("5abc", " 5", "5.0"
//   stay strings; "5", "-3abc", "1.5", "true", "[1,2]" are taken as JSON).
//   A value on which Json::Reader throws instead of failing (nested deeper
//   than its limit of 1000) stays a string.
//   true   `target` is an object.
//   false  `target` is not an object (a null Json::Value is not one);
//          nothing is changed.
WEBAPI_EXPORT bool strPairToJsonObj(const std::string& text, Json::Value& target, bool urlDecode,
                                    bool jsonValues);

// ---- Browser detection --------------------------------------------------------

// Tells the browser of the request from the environment variable
// "HTTP_USER_AGENT", of which the first 4095 characters are searched,
// case-sensitively, for these tokens in this order; the first that applies
// decides:
//   "MSIE" -> BROWSER_IE; "Trident/7.0" -> BROWSER_IE with version "11";
//   "Edge/", then "Edg/", when the number after it (strtof) is 12 or more
//   -> BROWSER_EDGE with all the text after the token as the version, cut to
//   31 characters; "Firefox" -> BROWSER_FIREFOX; "Chrome" -> BROWSER_CHROME;
//   "Safari" -> BROWSER_SAFARI; "facebookexternalhit" -> BROWSER_FACEBOOK;
//   none -> BROWSER_UNKNOWN with an empty version.
// For MSIE, Firefox, Chrome, Safari and facebookexternalhit the version is
// the first run of digits and "." after the token (for Safari after
// "Version/" when the agent holds that anywhere).
//    0  `info` is filled. Also when the variable is unset: type BROWSER_NONE,
//       version untouched.
//   -1  `info` is null (nothing done); or the token has no digit after it
//       (type set, version empty; logs "%s(%d): not supported browser type,
//       USER_AGENT: %s"); or the version run is 32 characters or longer
//       (type set, version its first 31; logs "%s(%d): version size not
//       enough, USER_AGENT: %s"). The logged agent is the searched copy.
// Keeps no state and allocates nothing.
WEBAPI_EXPORT int GetBrowserInfo(_tag_mero_browser_info_* info);

// ---- HTML encoding --------------------------------------------------------------

// `text` with "<", ">" and "&" replaced by "&lt;", "&gt;", "&amp;", and each
// space by "&nbsp;" when `nbsp` is set; every other byte, the quotes
// included, is kept, so the result is for element content, not for
// attribute values. Text already encoded is encoded again ("&lt;" gives
// "&amp;lt;"). "" gives "".
WEBAPI_EXPORT std::string EncodeHtml(const std::string& text, bool nbsp);

}  // namespace WebAPIUtil
}  // namespace MERO

#endif  // WEBAPI_WEBAPIUTIL_H
