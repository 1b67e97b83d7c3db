// The state of one request context. Internal: the public header only
// forward-declares this class. Members in the order the context is built.
#ifndef WEBAPI_CGI_WEBCGIPRIVATE_H
#define WEBAPI_CGI_WEBCGIPRIVATE_H

#include <json/value.h>

#include <cstdint>
#include <string>

#include "../util/JsonParse.h"
#include "merocgi.h"
#include "merosharing.h"
#include "webapi/WebCGI.h"

namespace MERO {

// Bits of WebCGIPrivate::loginFlags.
enum LoginFlag : uint32_t {
  kLoginAdmin = 1,
  kLoginLocal = 2,
  kLoginDomain = 4,
  kLoginLdap = 8,
  kLoginAllCategories = 15,
  kLoginErrorLogOff = 16,
};

// Frees the platform CGI state on every path, including a constructor that
// throws after the state was initialised. MeroCgiFree zeroes the state, so
// the explicit free in ~WebCGIPrivate and this one never free twice.
struct CgiStateHolder {
  MEROCGI_STATE state{};
  CgiStateHolder() = default;
  CgiStateHolder(const CgiStateHolder&) = delete;
  CgiStateHolder& operator=(const CgiStateHolder&) = delete;
  ~CgiStateHolder() { MeroCgiFree(&state); }
};

class WebCGIPrivate {
 public:
  explicit WebCGIPrivate(const char* sessionName);
  ~WebCGIPrivate();
  WebCGIPrivate(const WebCGIPrivate&) = delete;
  WebCGIPrivate& operator=(const WebCGIPrivate&) = delete;

  void SetSessionName(const char* name, bool init);
  void SetErrorLog(bool enable);
  // Parses `line` as JSON into jsonParams, keeping its comments, within
  // the values a line of its length may hold; jsonParams is null unless
  // the result is kParsed.
  detail::JsonParseResult LoadJSONParam(char* line);

  bool IsAdmin() const;
  bool CheckAllowUser() const;
  void LoadAllowUsers(Json::Value& list);

  int IsAuthorized();
  int CheckAuthorized();
  std::string GetMeroToken();
  std::string GetDevicePkey();

  int AddHeader(const char* name, const char* value);
  Json::Value GetHeaders();
  Json::Value GetSetHeaders();
  Json::Value GetSetCookies();
  void AddSecurityHeaders(const std::string& options);

  void ParseProtocol();
  void ParseHostAndPort();
  bool ParseHostAndPort(const std::string& url, std::string& hostOut, std::string& portOut);
  void LoadURL();
  void LoadSharingURL();

  MEROCGI_STATE* State() { return &cgiState.state; }
  // The state behind a context, for code inside the library.
  static WebCGIPrivate& Of(WebCGI& cgi) { return *cgi.priv; }

  Json::Value jsonParams;
  CgiStateHolder cgiState;
  std::string contentType = "text/plain; charset=\"UTF-8\"";
  std::string loginUser;
  std::string privilege;
  Json::Value appPortals;
  std::string sessionName;
  bool paramsLoaded = false;
  uint32_t loginFlags = kLoginAllCategories;
  std::string sharingId;
  std::string sharingSid;
  sharing::record::Entry sharingEntry;
  sharing::record::Session sharingSession;
  sharing::record::Token sharingToken;
  bool sharingURLLoaded = false;
  std::string sharingURL;
  int sharingURLType = 4;
  bool urlLoaded = false;
  std::string host;
  int port = 0;
  std::string protocol;
  Json::Value allowUsers;
  // The auth file that exists but could not be read, when the appliance
  // settings refuse every session check then ("refuse_unreadable_auth");
  // empty otherwise.
  std::string unreadableAuthFile;
};

}  // namespace MERO

#endif  // WEBAPI_CGI_WEBCGIPRIVATE_H
