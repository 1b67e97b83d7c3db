// MERO::WebCGI: the context of one CGI request. Everything the library knows
// about the request (parameters, cookies, session settings, caller, headers
// to send) hangs off one object, which lives for the whole request. All
// state is in MERO::WebCGIPrivate; this class is its public face.
//
// One process serves one request, on one thread. Texts returned by the
// context belong to it and stay valid while it lives.
//
// Request limits (enforced where the request enters, by the CGI platform;
// a request beyond one is refused with a log line, never parsed in part):
//   parameter line (query string or body)   1 MiB   MERO_CGI_MAX_PARAM_LINE_BYTES
//   parameters in one line                  65536   MERO_CGI_MAX_PARAMS
//   Cookie header                           16 KiB  MERO_CGI_MAX_COOKIE_HEADER_BYTES
//   nesting of a JSON parameter line        512     MERO::JsonValue::kMaxJsonDepth
//   values in a JSON parameter line         one per 16 bytes, at least 4096
//                                                   MERO::JsonValue::MaxJsonParamValues
//   upload parts, files, header and name sizes    MERO_CGI_UPLOAD_* (merocgi.h)
// After a refusal MLIBCErrGet() tells which (merocore.h, MERO_ERR_REQUEST_*).
#ifndef WEBAPI_WEBCGI_H
#define WEBAPI_WEBCGI_H

#include <json/value.h>

#include <string>

#include "webapi/Export.h"

// The login parameters and result, the upload progress record and the
// truth type of the CGI platform (merocgi.h, merocore.h).
struct _tag_login_params;
typedef int CGI_LOGIN_RESULT;
struct _tag_cgi_upload_progress_;
#ifndef MERO_BOOL_DEFINED
#define MERO_BOOL_DEFINED
typedef int BOOL;
#endif

namespace MERO {

class WebCGIPrivate;
class PamConf;

// The sharing library's records (merosharing.h, installed with the platform
// headers): include it to call the sharing getters below.
namespace sharing {
enum _tag_SHARING_URL_TYPE : int;
namespace record {
class Entry;
class Session;
class Token;
}  // namespace record
}  // namespace sharing

class WEBAPI_EXPORT WebCGI {
 public:
  // Builds the context: setsid(); reads the session configuration of
  // `sessionName` (null means "zel") from its auth file
  // "<root>/usr/mero/meroman/webapi/<name>.auth" (name folded to lower case),
  // falling back to the platform defaults under the name "zel" when that
  // file is missing or cannot be read (not JSON, or locked by another
  // process for longer than ReadJsonFile waits). With the appliance setting
  // refuse_unreadable_auth="yes" in "<root>/etc/meroinfo.conf", a file that
  // exists but cannot be read makes every CheckAuthorized refuse (-9)
  // instead. Loads the request's cookies; then, when
  // `loadParams` is true and the request is not an upload, the parameters
  // (LoadIn). Reports no error: a refused request simply has no parameters.
  WebCGI(const char* sessionName, bool loadParams);
  ~WebCGI();
  WebCGI(const WebCGI&) = delete;
  WebCGI& operator=(const WebCGI&) = delete;

  // ---- session configuration ----
  // Re-reads the session configuration for `name` on the live context. It
  // resets the login flags and overwrites the session time-out and the
  // source-IP setting, so SetCgiTimeout / SetSkipCheckIP must come after it.
  // With no usable auth file only the session name changes, to "zel" (and
  // checks are refused, as at construction, when the file exists but cannot
  // be read and the appliance says so).
  void SetSessionName(const char* name);
  // Stores the source-IP setting of the session check (no platform call).
  void SetSkipCheckIP(bool skip);
  // Stores the session time-out given to the session check (no platform call).
  void SetCgiTimeout(int timeout);
  // false switches the login layer's error logging off (bit 16 of the login
  // flags); true switches it back on. Other bits are unchanged.
  void SetErrorLog(bool enable);
  // True when the request came through a sharing link: GetSharingID() is
  // not empty.
  bool IsSharing();

  // ---- session ----
  // Whether the request belongs to a logged-in session. The identifier is
  // the `_sid` parameter when present and not empty (it then replaces the
  // request's cookies: HTTP_COOKIE becomes "id=<sid>", cut to 121
  // characters of the id), else the `id` cookie. Results:
  //   positive  authorized; GetLoginUserName() names the user
  //   -5        the request carries no session identifier
  //   -9        the session name's auth file exists but could not be read,
  //             and the appliance refuses sessions then (see the
  //             constructor); logged on every check
  //   other     the platform's refusal (merocgi.h, MERO_SESSION_*): -1
  //             expired, -3 ended by another login or used from another
  //             address, -8 a state-changing request without the CSRF
  //             token or our own Origin (auth file "csrf_protection"), ...
  // A session unknown to the configured registry is looked up once more in
  // the default registry "current.users".
  int CheckAuthorized();
  // The user of the session found by the last check ("" when none was).
  std::string GetLoginUserName() const;
  // The `id` cookie (after a `_sid` parameter: its value), or null.
  const char* GetSessionID();
  // Writes the session store's path into `buf`; the platform's result
  // (MeroCgiGetSessPath).
  int GetSessionFilePath(char* buf, int size);
  // Re-reads the cookies from HTTP_COOKIE; the platform's result.
  int UpdateCookiesHash();
  // The authorized session's CSRF token; "" before a successful check.
  std::string GetMeroToken();
  // The device key; "" (no device keys on this platform).
  std::string GetDevicePkey();
  // Always "".
  std::string GetDeviceId();

  // ---- user access policy ----
  // Whether the logged-in user is in the administrators' group (merocore.h,
  // MLIBGroupIsAdminGroupMem). A failed group test is logged
  // ("MLIBGroupIsAdminGroupMem(<user>) failed. [0x<code> <file>:<line>]")
  // and answers false.
  bool IsAdmin() const;
  // Installs the user categories a login may admit: words "admin", "local",
  // "domain", "admin.domain", "ldap", "admin.ldap". An empty list changes
  // nothing. Otherwise the login flags become the categories' bits (1
  // admin, 2 local, 4 domain, 8 ldap; the words tested ignoring case, and
  // "domain"/"ldap" bring their administrators along: bits 5 and 9, the
  // words "admin.domain"/"admin.ldap" appended). The session configuration
  // calls it with the auth file's "allow_user" array.
  void LoadAllowUsers(Json::Value& list);

  // ---- login and logout ----
  // Login results (CGI_LOGIN_RESULT): 1 logged in (a new session, its "id"
  // cookie recorded; GetLoginUserName() names the user and GetSessionID()
  // the new session); -3 the user's category is not among those allowed
  // (the session the platform created is left alone: end it with Logout(),
  // as the example login API does); any other value is the platform's,
  // passed through (merocgi.h, MERO_LOGIN_*: -1 wrong password, -8
  // throttled, ...). `out` (outSize bytes) receives the platform's output:
  // the session's CSRF token on success, the seconds to wait when throttled.
  // Domain users ("DOM\\user") and directory users ("user@host") have their
  // share write access validated as root after a successful login; a
  // failure there is logged and does not fail the login.

  // Logs in with a password through PAM service "webui" (single sign-on
  // when `sso` is set, which this platform answers as not configured).
  int Login(const char* user, const char* password, char* out, unsigned int outSize,
            bool sso = false, const char* loginArg = nullptr, bool ssoFlag = false);
  // Logs in without a password check, for programs that checked it
  // themselves.
  int LoginNoAuth(const char* user, char* out, unsigned int outSize);
  // Logs in through the PAM service and directory of `conf`; its user is
  // first converted with GetRealUsername (at most 492 characters kept) and
  // written back into `conf`.
  int Login(MERO::PamConf& conf, char* out, unsigned int outSize, bool pamFlag);
  // Ends the request's session: the `_sid` parameter when present (even
  // empty), else the "id" cookie; false without either, or when the
  // platform did not end a session (merocgi.h, MeroCgiLogoutEx). The "id"
  // cookie is cleared in the response either way once an identifier exists.
  bool Logout();
  // Sets the duration flag of `params` from the session time-out: 10080
  // (the default) sets it to 1; -1 or a positive time-out is given to the
  // platform as the new session's lifetime (option 10); anything else sets
  // the flag to 0.
  void SetDuration(_tag_login_params& params);
  // The library's part after a platform login: with `result` 1, records
  // the user, validates a domain or directory user's share write access as
  // root, and turns the result into -3 when the user's category is not
  // allowed. Other results are left alone.
  void CheckLogin(CGI_LOGIN_RESULT& result, _tag_login_params& params, const char* out);
  // A free-form login state text for the rest of the request (option 13);
  // "" until set, or the session's state ("1") after a check or login.
  void SetLoginState(const std::string& state);
  std::string GetLoginState();

  // ---- running as the logged-in user ----
  // Switches the effective ids to those of the session's user (supplementary
  // groups with initgroups, then the group, then the user; an administrator
  // keeps the effective user root, with the administrator's group). Real and
  // saved ids stay, so the process can switch back. 0 on success; -1 with a
  // log line without a session id or when an id cannot be found or set.
  int setEUGID();
  // The same through the platform's permanent switch (real, effective and
  // saved ids; merocgi.h, MeroCgiGidSet/MeroCgiUidSet): there is no way
  // back to root afterwards.
  int setUGID();
  // The effective group (user) id of session `sid`'s user `user`; 0 or -1.
  static int SetEGid(const char* sid, const char* user);
  static int SetEUid(const char* sid, const char* user);
  // The account name a login name stands for (merosdk.h,
  // MEROUserLoginNameConvert, asked as root), or `name` itself when there
  // is none; "" and "guest" are returned as they are.
  std::string GetRealUsername(const std::string& name);

  // ---- preferences ----
  // The logged-in user's preference directory (merosdk.h: under the
  // appliance root, created 0700 for the user on first use), or "/tmp"
  // when there is none (no user, a refused name, a directory that cannot
  // be made). Nothing is logged here.
  std::string GetPreferenceDir();
  // The same for group `group`.
  std::string GetGroupPreferenceDir(const char* group);
  // Reads "usersettings" in the user's preference directory into
  // `settings` (ReadJsonFile). False when it is missing, locked too long,
  // not JSON, or a symbolic link (never followed: the user could have
  // planted it). Files the program writes there should be opened with
  // O_NOFOLLOW too.
  bool loadUserJsonSettings(Json::Value& settings);

  // ---- parameters and cookies ----
  // Loads the request's parameters once.
  //   true   the parameter line was read: a JSON text became In(); anything
  //          else was decoded as a form into the parameter table.
  //   false  already loaded (nothing changes), or the request has no
  //          parameter line, or its line was refused (see the limits above;
  //          also a form line with a %00 escape, and a JSON line with more
  //          values than it may hold, logged): no parameter was stored, and
  //          a later call tries again.
  // A line that looks like JSON ('{' or '[' first) but does not parse is
  // logged and then decoded as a form, as any other non-JSON line.
  bool LoadIn();
  // The JSON parameters when the line was a non-empty JSON object or array;
  // null otherwise (also for a JSON scalar, {} and []). Owned by the context.
  Json::Value* In();
  // Value of parameter `name` (form parameters and those set with SetIn; on a
  // POST also the query string, the body winning), or `def`. Members of JSON
  // parameters are not reachable here.
  const char* In(const char* name, const char* def);
  // Adds or replaces parameter `name`.
  //   true   stored.
  //   false  the parameter table could not be created or stored to (logged).
  bool SetIn(const char* name, const char* value);
  // Value of request cookie `name` (RFC 6265; the first of repeated names),
  // or `def`.
  const char* GetCookie(const char* name, const char* def);
  // The request's UI language (a BCP 47 tag such as "en" or "zh-TW"; see
  // MeroCgiGetLang in merocgi.h for how it is chosen). Static text.
  const char* GetUILanguage();
  // True when the request body is a multipart file upload; its parameters
  // arrive with the upload, not through LoadIn.
  bool IsUploadRequest();

  // ---- sharing links ----
  // Recognises a request made through a sharing link; LoadIn runs it once
  // the parameters are parsed, and a CGI program may run it again (an
  // upload, after it loaded the upload's parameters). The link id is the
  // "_sharing_id" parameter, else the "X-Mero-Sharing" header
  // (SZ_X_SHARING_HEADER); the sharing session id is the "_sharing_sid"
  // parameter, else the cookie MERO::sharing::SZK_SHARING_SID (also for a
  // request without a link id). Earlier values are replaced. With a link id,
  // the link's entry, the session and the token joining them are looked up
  // in the sharing store; records it does not know, and every record when
  // there is no usable store, keep their previous values. Nothing is logged
  // or refused here: WebAPI::CheckSharingPermission decides.
  void LoadSharing();
  std::string GetSharingID();
  std::string GetSharingSID();
  // Copies of the records LoadSharing found (default-constructed until then).
  sharing::record::Entry GetSharingEntry();
  sharing::record::Session GetSharingSession();
  sharing::record::Token GetSharingToken();
  // The base address of this server's links for the request's origin
  // (merosharing.h, MERO::sharing::GetSharingURL, through the application
  // portal in REWRITE_APP), derived once per request; `fallback` when none
  // could be built.
  std::string GetSharingURL(const std::string& fallback);
  // Its kind; SHARING_URL_NONE (4) when none could be built.
  sharing::_tag_SHARING_URL_TYPE GetSharingURLType();
  // ---- file upload ----
  // The CGI platform receives an upload as it arrives, in bounded memory
  // (merocgi.h: the multipart rules, the stored file names, the limits, and
  // why nothing half-received ever carries a final name). These operations
  // choose the directory and forward to it.

  // Writes the upload temporary directory into `buffer`, cut to size - 1
  // bytes: "<root>/tmp" when the appliance has no disks (maxdisks="0" in
  // "<root>/etc.defaults/meroinfo.conf"), else the mount path of the first
  // storage volume that is mounted and writable (merosdk.h) followed by
  // "/@tmp". The directory is neither created nor checked.
  //   true   written.
  //   false  nothing written: `buffer` is null or size < 1; the volumes
  //          could not be listed (MLIBCErrGet() is 0x8300 then); or no
  //          volume is usable (no code recorded).
  bool FindUploadTmpPath(char* buffer, int size);
  // The same on the first volume with room for `bytes` (VolumeAvailGet);
  // "<root>/tmp" without disks, whatever `bytes` says.
  //   true   written.
  //   false  nothing written: `buffer` is null or size < 1; the volumes
  //          could not be examined (logged "VolumeAvailGet() failed!!
  //          meroerr=[0x<code>]"); or no volume has room, MLIBCErrGet()
  //          telling why: 0x2900 no volume is mounted and writable, 0xDD00
  //          the writable ones are too full, 0x8300 otherwise.
  bool FindUploadTmpPath(char* buffer, int size, unsigned long long bytes);
  // Receives the upload (MeroCgiLoadUploadData): its form fields become
  // parameters (In(name, def)) and its files are stored in directory `path`
  // (cut to 127 bytes), or, when `path` is null, in FindUploadTmpPath's
  // directory (128 bytes at most); a file field's parameter holds the
  // stored name(s). All or nothing.
  //   >= 0  the number of files stored.
  //   -9    no directory could be chosen (logged "no path for upload");
  //         nothing was read.
  //   < 0   the platform refused the upload (logged "failed to upload to
  //         path <dir>"; MLIBCErrGet() tells why, merocgi.h).
  // The parameters are not marked loaded, and no sharing context is loaded.
  int LoadIn(const char* path);
  // The upload step by step: each forwards to the platform call of the same
  // role with this context's CGI state, every argument and the result
  // unchanged (merocgi.h documents them): MeroCgiLoadUploadParams,
  // MeroCgiLoadUploadFileBW (path, progress, record, field, fileName, type,
  // bandwidth) and MeroCgiLoadUploadFileNoTruncate (path, progress, record,
  // rate, field, fileName, type, written, cancel).
  int LoadUploadParams(void (*progress)(unsigned long long, unsigned long long),
                       _tag_cgi_upload_progress_* record, char* field, int fieldSize,
                       char* fileName, int fileNameSize, char* type, int typeSize);
  int LoadUploadFile(const char* path, void (*progress)(unsigned long long, unsigned long long),
                     _tag_cgi_upload_progress_* record, char* field, char* fileName, char* type,
                     const char* bandwidth);
  int LoadUploadFileNoTruncate(
      const char* path, void (*progress)(unsigned long long, unsigned long long),
      _tag_cgi_upload_progress_* record,
      long long (*rate)(unsigned long long, unsigned long long, unsigned long long), char* field,
      char* fileName, char* type, unsigned long long* written, BOOL (*cancel)());

 // ---- response out ----
  // Headers and cookies collect in the context until WriteHeader prints the
  // header block, once per request; what is added later is not sent. A name
  // or value that holds a CR, LF, NUL or other control byte (or is otherwise
  // not valid in a header, see merocgi.h) is refused with a log line and
  // never stored, whatever its source.

  // Records response header `name`. Non-zero when stored, 0 when refused.
  int AddHeader(const char* name, const char* value);
  // Records cookie `name` = `value` for `path` (null: "/"): HttpOnly,
  // SameSite=Strict, Secure on https, a session cookie (MeroCgiSetCookies).
  // True when stored; false when refused.
  bool AddCookieToHeader(const char* path, const char* name, const char* value);
  // Sets "Content-type" to `contentType` and prints the header block.
  //   true   printed.
  //   false  the content type was refused (nothing printed), or the block
  //          was printed before or could not be written.
  bool WriteHeader(const char* contentType);
  // Prints `body` as one line of compact JSON ended by a line feed. Always
  // true. Call after WriteHeader.
  bool WriteBody(Json::Value& body);
  // Stores the default content type for the caller (null: ""); the library
  // itself always passes its content type to WriteHeader.
  void SetDefaultContentType(const char* type);
  // Answers with "Status: 302 Found" and "Location: url" (printed now).
  // Non-zero when printed; 0 when the URL is refused (nothing printed).
  int Redirect(const char* url);
  // The headers recorded so far, name to value. Failures are logged and give
  // what was collected (an empty object).
  Json::Value GetHeaders();
  // The same, through the platform's JSON rendering ({} when none).
  Json::Value GetSetHeaders();
  // The cookies recorded so far, name to the Set-Cookie value ({} when none).
  Json::Value GetSetCookies();
  // Adds the security headers that `options` selects (the format is in
  // zel.h; for example "default"). An empty text adds nothing.
  void AddSecurityHeaders(const std::string& options);

  // ---- request origin ----
  // "https" when the browser used https (HTTPS=on, or HTTP_X_FORWARDED_PROTO
  // =https from a proxy; neither can turn https back into http), else
  // "http". Protocol, host and port are derived once per request.
  std::string GetURLProto();
  // Splits an absolute http:// or https:// URL (scheme in lower case) into
  // host and port text. The port is the scheme's default ("80", "443")
  // unless the URL names one (even empty); an IPv6 host keeps its brackets.
  // Nothing after the first "/" counts, and nothing else (user information,
  // "?", "#") is recognised. False, outputs untouched, for another scheme;
  // false for an unclosed "[" (the port output then holds the default).
  bool ParseHostAndPort(const std::string& url, std::string& host, std::string& port);
  // True when the Host header and the Referer name the same host and port,
  // compared byte for byte (case and "080" vs "80" differ). False when either
  // header is missing or longer than 4095 bytes, when the Referer is not
  // http(s), and when either side is not a plain origin: a host of letters,
  // digits, '-', '_' and '.' or an IPv6 literal in brackets, then nothing or
  // ":" and a port from 1 to 65535 (so no user information, no second colon,
  // nothing after the brackets). Never "same" on text that cannot be an
  // origin.
  bool IsSameDomainAndPort();
  // True when the request came through an application portal (REWRITE_APP
  // set, even empty).
  bool IsAppPortal();
  // True unless the request came through a portal that the session
  // configuration's app_portals does not list (names compared ignoring case;
  // no list admits every portal).
  bool IsAppPortalMapping();

 private:
  friend class WebAPI;
  friend class WebCGIPrivate;
  WebCGIPrivate* priv;
};

}  // namespace MERO

#endif  // WEBAPI_WEBCGI_H
