// Calls through a sharing link: whether the API admits links, whether the
// sharing library accepts the link and its session, and whether the
// sharing checker program agrees that the link covers this call.
#include <syslog.h>

#include <string>

#include "../dispatch/ErrorCodes.h"
#include "../util/AppliancePath.h"
#include "../util/LogSource.h"
#include "merocore.h"
#include "merosharing.h"
#include "webapi/WebAPI.h"

namespace MERO {
namespace {

using namespace detail;

// The option word the checker has always been run with; this platform's
// MLIBCExecl runs every program the same way.
constexpr int kCheckerOptions = 0x33;

// The envelope code of each refusal of the sharing library (merosharing.h
// explains what a page does with each).
int ErrorOfRefusal(int answer) {
  switch (answer) {
    case MERO_SHARING_PASSWORD_NEEDED: return kErrorSharingPasswordNeeded;
    case MERO_SHARING_UNKNOWN_LINK: return kErrorSharingRefused;
    case MERO_SHARING_EXPIRED: return kErrorSharingExpired;
    case MERO_SHARING_USED_UP: return kErrorSharingUsedUp;
    case MERO_SHARING_DISABLED: return kErrorSharingDisabled;
    default: return kErrorBadRequest;  // store failures, and answers no library should give
  }
}

}  // namespace

bool WebAPI::CheckSharingPermission() {
  if (!cgi.IsSharing() || !allowSharing) {
    SetError(kErrorSharingRefused);
    return false;
  }
  // The texts outlive the call: the request only points at them.
  const std::string id = cgi.GetSharingID();
  const std::string sid = cgi.GetSharingSID();
  SharingAuthRequest request{id.empty() ? nullptr : id.c_str(), nullptr, nullptr, nullptr,
                             sid.empty() ? nullptr : sid.c_str()};
  const int answer = MeroSharingIsAuthorized(&request);
  if (answer != MERO_SHARING_AUTHORIZED) {
    SetError(ErrorOfRefusal(answer));
    return false;
  }
  if (skipSharingAppCheck || CheckSharingAppPermission()) return true;
  SetError(kErrorSharingNotCovered);
  return false;
}

bool WebAPI::CheckSharingAppPermission() {
  const std::string checker = AppliancePath(MERO_SHARING_CHECKER);
  const int status = MLIBCExecl(checker.c_str(), kCheckerOptions, checker.c_str(), nullptr);
  if (status < 0) {
    syslog(LOG_ERR, "%s:%d exec sharing check fail", kWebApiSource, __LINE__);
    return false;
  }
  return status == 0;
}

}  // namespace MERO
