// User access policy: the categories of users a session name admits, the
// category of the logged-in user, and administrators' group membership.
#include <syslog.h>

#include <string>

#include "../cgi/WebCGIPrivate.h"
#include "../util/LogSource.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"
#include "webapi/WebCGI.h"

namespace MERO {
namespace {

using detail::kWebCgiSource;

// The category word of `user`: the backslash of a domain name is tested
// before the "@" of a directory name, so a name holding both is a domain
// user's.
std::string CategoryOf(const std::string& user, bool administrator) {
  const char* prefix = administrator ? "admin." : "";
  if (user.find('\\') != std::string::npos) return prefix + std::string("domain");
  if (user.find('@') != std::string::npos) return prefix + std::string("ldap");
  return administrator ? "admin" : "local";
}

}  // namespace

bool WebCGIPrivate::IsAdmin() const {
  const int member = MLIBGroupIsAdminGroupMem(loginUser.c_str(), 0);
  if (member < 0) {
    syslog(LOG_ERR, "%s:%d MLIBGroupIsAdminGroupMem(%s) failed. [0x%04X %s:%d]", kWebCgiSource,
           __LINE__, loginUser.c_str(), MLIBCErrGet(), MLIBCErrorGetFile(), MLIBCErrorGetLine());
    return false;
  }
  return member != 0;
}

bool WebCGIPrivate::CheckAllowUser() const {
  const Json::Value word(CategoryOf(loginUser, IsAdmin()));
  if (!allowUsers.isArray()) return false;
  for (const Json::Value& allowed : allowUsers)
    if (allowed == word) return true;
  return false;
}

void WebCGIPrivate::LoadAllowUsers(Json::Value& list) {
  if (list.empty()) return;
  allowUsers = list;
  loginFlags = 0;
  auto has = [&list](const char* word) { return WebAPIUtil::JsonArrayHas(list, Json::Value(word), false); };
  if (has("admin")) loginFlags |= kLoginAdmin;
  if (has("local")) loginFlags |= kLoginLocal;
  if (has("domain")) {
    loginFlags |= kLoginAdmin | kLoginDomain;
    allowUsers.append("admin.domain");
  } else if (has("admin.domain")) {
    loginFlags |= kLoginAdmin | kLoginDomain;
  }
  if (has("ldap")) {
    loginFlags |= kLoginAdmin | kLoginLdap;
    allowUsers.append("admin.ldap");
  } else if (has("admin.ldap")) {
    loginFlags |= kLoginAdmin | kLoginLdap;
  }
}

bool WebCGI::IsAdmin() const { return priv->IsAdmin(); }

void WebCGI::LoadAllowUsers(Json::Value& list) { priv->LoadAllowUsers(list); }

}  // namespace MERO
