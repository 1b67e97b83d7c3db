// Construction of the API handler and the request pipeline.
#include "webapi/WebAPI.h"

#include <string>

#include "../util/AppliancePath.h"
#include "ErrorCodes.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace {

using namespace detail;

// The session layer's answers the pipeline tells apart (merocgi.h).
constexpr int kSessionExpired = -1;
constexpr int kSessionReplaced = -3;

// Whether `methodName` is one of the download methods that the API's entry
// lists under the version text exactly as the request gave it.
bool IsDownloadMethod(const Json::Value& entry, const char* versionText, const char* methodName) {
  if (!entry.isObject() || !entry.isMember("allowDownload")) return false;
  const Json::Value& byVersion = entry["allowDownload"];
  if (!byVersion.isObject() || !byVersion.isMember(versionText)) return false;
  Json::Value methods = byVersion[versionText];
  return WebAPIUtil::JsonArrayHas(methods, Json::Value(methodName), false);
}

}  // namespace

WebAPI::WebAPI(const char* descriptionName, const char* sessionName)
    : cgi(sessionName, true), description(Json::objectValue) {
  const std::string path = detail::AppliancePath(std::string(detail::kWebApiDir) + "/" +
                                                 (descriptionName ? descriptionName : ""));
  // A failed read leaves an empty object behind: every request then fails
  // validation with 102, which is where the problem shows.
  if (!WebAPIUtil::ReadJsonFile(description, path.c_str()) || !description.isObject())
    description = Json::Value(Json::objectValue);
}

WebAPI::~WebAPI() = default;

void WebAPI::Run() { Run(true); }

void WebAPI::Run(bool checkPermission) {
  if (cgi.IsUploadRequest()) HandleUploadFile();

  const char* apiText = cgi.In("api", nullptr);
  const char* methodText = cgi.In("method", nullptr);
  const char* versionText = cgi.In("version", nullptr);
  if (!apiText || !methodText || !versionText) {
    SetError(kErrorBadRequest);
    OutputResponse();
    return;
  }
  const Json::Value entry = description.get(apiText, Json::Value());
  if (!CheckRequestParam(apiText, methodText, versionText)) {
    OutputResponse();
    return;
  }
  const bool download = IsDownloadMethod(entry, versionText, methodText);

  bool permitted = true;
  if (checkPermission) permitted = cgi.IsSharing() ? CheckSharingPermission() : CheckPermission();
  if (permitted) HandleRequest();
  if (!download) OutputResponse();
}

int WebAPI::CheckAuthorized() { return cgi.CheckAuthorized(); }

bool WebAPI::CheckPermission() {
  const int result = CheckAuthorized();
  if (result > 0) return true;
  if (result == kSessionReplaced)
    SetError(kErrorSessionReplaced);
  else if (result == kSessionExpired)
    SetError(kErrorSessionExpired);
  else
    SetError(kErrorNoSession);
  return false;
}

}  // namespace MERO
