// Session configuration: the auth file of a session name decides source-IP
// checking, the session time-out, the privilege a session must hold, the app
// portals, the user categories allowed and the CSRF rule; from it the
// platform CGI state is initialised.
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "../util/AppliancePath.h"
#include "WebCGIPrivate.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace {

constexpr size_t kPathBufferBytes = 4096;
constexpr int kDefaultTimeout = 10080;  // one week, in minutes
constexpr const char kDefaultSessionName[] = "zel";
constexpr const char kRefuseUnreadableAuthKey[] = "refuse_unreadable_auth";

// The auth file's "timeout", read as an int even when it is a real or out of
// the int range (jsoncpp's asInt would throw there).
int TimeoutAsInt(const Json::Value& timeout) {
  if (timeout.isInt()) return timeout.asInt();
  if (timeout.isUInt64() || timeout.isUInt()) return INT_MAX;
  if (timeout.isInt64()) return INT_MIN;
  const double real = timeout.asDouble();
  if (!(real == real)) return 0;  // NaN cannot come from JSON text, but never trust it
  return real >= INT_MAX ? INT_MAX : real <= INT_MIN ? INT_MIN : static_cast<int>(real);
}

int MapTimeout(const Json::Value& auth) {
  if (!auth.isMember("timeout") || !auth["timeout"].isNumeric()) return kDefaultTimeout;
  const int t = TimeoutAsInt(auth["timeout"]);
  if (t == -1) return 0;
  if (t < -1) return -1;
  if (t == 0) return kDefaultTimeout;
  return t;
}

// Whether the appliance settings ask that an auth file which exists but
// cannot be read refuse every session check, instead of the platform
// defaults (which ask for no privilege) standing in for it.
bool RefusesUnreadableAuthFiles() {
  char value[kPathBufferBytes] = {};
  const std::string conf = detail::AppliancePath(detail::kApplianceConf);
  return MLIBCFileGetKeyValue(conf.c_str(), kRefuseUnreadableAuthKey, value, sizeof value, 0) > 0 &&
         std::strcmp(value, "yes") == 0;
}

int SkipCheckIpOf(const Json::Value& auth) {
  if (auth.isMember("ip_checking") && auth["ip_checking"].isBool())
    return auth["ip_checking"].asBool() ? 0 : 1;
  char value[kPathBufferBytes] = {};
  const std::string conf = detail::AppliancePath(detail::kApplianceConf);
  if (MLIBCFileGetKeyValue(conf.c_str(), "skip_checksrcip", value, sizeof value, 0) <= 0) return 1;
  return std::strcmp(value, "yes") == 0 ? 1 : 0;
}

}  // namespace

void WebCGIPrivate::SetSessionName(const char* requested, bool init) {
  const char* name = requested ? requested : kDefaultSessionName;
  char path[kPathBufferBytes];
  if (std::snprintf(path, sizeof path, "%s/%s.auth", detail::kWebApiDir, name) >=
      static_cast<int>(sizeof path)) {
    name = kDefaultSessionName;
    std::snprintf(path, sizeof path, "%s/%s.auth", detail::kWebApiDir, name);
  }
  MLIBCStrCaseLower(path);
  // Only the appliance part is folded: the root is the operator's, as written.
  const std::string authFile = detail::AppliancePath(path);

  Json::Value auth;
  const bool exists = MLIBCFileExist(authFile.c_str());
  unreadableAuthFile.clear();
  if (!exists || !WebAPIUtil::ReadJsonFile(auth, authFile.c_str())) {
    // Cut short, not JSON, or held under another process's lock past the
    // read's time-out: the file may ask for a privilege the defaults lack.
    if (exists && RefusesUnreadableAuthFiles()) unreadableAuthFile = authFile;
    if (init) MeroCgiInit("", State());
    sessionName = kDefaultSessionName;
  } else {
    if (!auth.isObject()) auth = Json::Value(Json::objectValue);  // JSON, but no keys to read
    const int skipCheckIp = SkipCheckIpOf(auth);
    const int timeout = MapTimeout(auth);

    privilege.clear();
    if (auth.isMember("privilege") && auth["privilege"].isString()) privilege = auth["privilege"].asString();

    appPortals = Json::Value();
    if (auth.isMember("app_portals") && auth["app_portals"].isArray())
      appPortals = auth["app_portals"];
    else if (!privilege.empty())
      appPortals.append(privilege);

    loginFlags = kLoginAllCategories;
    if (auth.isMember("allow_user") && auth["allow_user"].isArray()) LoadAllowUsers(auth["allow_user"]);
    // The platform's CSRF rule (merocgi.h) travels as a word of the extra
    // session text.
    const char* extra =
        auth.isMember("csrf_protection") && auth["csrf_protection"].isBool() && auth["csrf_protection"].asBool()
            ? "csrf"
            : "";

    char registry[kPathBufferBytes];
    std::snprintf(registry, sizeof registry, "%s.current.users", name);
    MLIBCStrCaseLower(registry);
    if (init)
      MeroCgiInitEx(State(), timeout, skipCheckIp, registry, extra);
    else
      MeroCgiSetSessionParam(State(), timeout, skipCheckIp, registry, extra);
    sessionName = name;
  }
  if (init) MeroCgiLoadInCookies(State());
}

}  // namespace MERO
