// Validation of a request's api, method and version against the API
// description.
#include <syslog.h>

#include <climits>

#include "../util/LogSource.h"
#include "../util/LogText.h"
#include "ErrorCodes.h"
#include "webapi/WebAPI.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace {

using namespace detail;

// A version bound as an int. Bounds of another JSON type are outside the
// format; they read as a range that admits nothing rather than throwing.
int VersionBound(const Json::Value& bound, int unusable) {
  if (bound.isInt()) return bound.asInt();
  if (bound.isNumeric() && bound.isConvertibleTo(Json::intValue)) return bound.asInt();
  return unusable;
}

bool BoolMember(const Json::Value& entry, const char* name) {
  const Json::Value& member = entry[name];
  return member.isBool() && member.asBool();
}

}  // namespace

bool WebAPI::CheckRequestParam(const char* apiText, const char* methodText,
                               const char* versionText) {
  const Json::Value entry = description.get(apiText, Json::Value());
  int requested = 0;
  if (!WebAPIUtil::ParseInt(versionText, &requested)) {
    SetError(kErrorBadRequest);
    return false;
  }
  if (!entry.isObject() || !entry.isMember("minVersion") || !entry.isMember("maxVersion")) {
    syslog(LOG_ERR, "%s:%d Bad API(%s) description.", detail::kWebApiSource, __LINE__,
           detail::LoggedText(apiText).c_str());
    SetError(kErrorUnknownApi);
    return false;
  }
  if (requested < VersionBound(entry["minVersion"], INT_MAX) ||
      requested > VersionBound(entry["maxVersion"], INT_MIN)) {
    SetError(kErrorBadVersion);
    return false;
  }
  const Json::Value& methods = entry["methods"];
  Json::Value offered;
  if (methods.isObject() && methods.isMember(versionText)) offered = methods[versionText];
  if (!offered.isArray() || !WebAPIUtil::JsonArrayHas(offered, Json::Value(methodText), false)) {
    SetError(kErrorUnknownMethod);
    return false;
  }
  version = requested;
  api = apiText;
  method = methodText;
  uiLanguage = cgi.GetUILanguage();
  allowSharing = BoolMember(entry, "allowSharing");
  skipSharingAppCheck = BoolMember(entry, "skipSharingAppCheck");
  return true;
}

}  // namespace MERO
