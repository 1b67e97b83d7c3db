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
// After a refusal MLIBCErrGet() tells which (merocore.h, MERO_ERR_REQUEST_*).
#ifndef WEBAPI_WEBCGI_H
#define WEBAPI_WEBCGI_H

#include <json/value.h>

#include "webapi/Export.h"

namespace MERO {

class WebCGIPrivate;

class WEBAPI_EXPORT WebCGI {
 public:
  // Builds the context: setsid(); reads the session configuration of
  // `sessionName` (null means "zel") from its auth file
  // "<root>/usr/mero/meroman/webapi/<name>.auth" (name folded to lower case),
  // falling back to the platform defaults under the name "zel" when that
  // file is missing or not JSON; loads the request's cookies; then, when
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
  // With no usable auth file only the session name changes, to "zel".
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

  // ---- parameters and cookies ----
  // Loads the request's parameters once.
  //   true   the parameter line was read: a JSON text became In(); anything
  //          else was decoded as a form into the parameter table.
  //   false  already loaded (nothing changes), or the request has no
  //          parameter line or was refused (see the limits above); a later
  //          call tries again.
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
  //   false  the table could not be created or stored to (logged); the
  //          value may then be in one table and not the other.
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

 private:
  friend class WebAPI;
  friend struct WebCGITestPeer;  // defined by the unit tests only
  WebCGIPrivate* priv;
};

}  // namespace MERO

#endif  // WEBAPI_WEBCGI_H
