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
// After a refusal MLIBCErrGet() tells which (merocore.h, MERO_ERR_REQUEST_*).
#ifndef WEBAPI_WEBCGI_H
#define WEBAPI_WEBCGI_H

#include <json/value.h>

#include <string>

#include "webapi/Export.h"

namespace MERO {

class WebCGIPrivate;

class WEBAPI_EXPORT WebCGI {
 public:
  // Builds the context: setsid(); reads the session configuration of
  // `sessionName` (null means "zel") from its auth file
  // "<root>/usr/mero/meroman/webapi/<name>.auth" (name folded to lower case),
  // falling back to the platform defaults under the name "zel" when that
  // file is missing or cannot be read (not JSON, or locked by another
  // process for longer than ReadJsonFile waits). With the appliance setting
  // refuse_unreadable_auth="yes" in "<root>/etc/meroinfo.conf", a file that
  // exists but cannot be read makes every CheckAuthorized refuse (-8)
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
  // True when the request came through a sharing link.
  bool IsSharing();

  // ---- session ----
  // Whether the request belongs to a logged-in session. The identifier is
  // the `_sid` parameter when present and not empty (it then replaces the
  // request's cookies: HTTP_COOKIE becomes "id=<sid>", cut to 121
  // characters of the id), else the `id` cookie. Results:
  //   positive  authorized; GetLoginUserName() names the user
  //   -5        the request carries no session identifier
  //   -8        the session name's auth file exists but could not be read,
  //             and the appliance refuses sessions then (see the
  //             constructor); logged on every check
  //   other     the platform's refusal (merocgi.h, MERO_SESSION_*): -1
  //             expired, -3 ended by another login or used from another
  //             address, ...
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
