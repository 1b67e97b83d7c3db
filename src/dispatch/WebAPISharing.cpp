// Calls through a sharing link.
//
// Sharing links are not served yet: no request is a sharing request
// (WebCGI::IsSharing() is false until the sharing context is loaded), so
// Run never reaches these. A subclass that calls them directly is refused.
#include "ErrorCodes.h"
#include "webapi/WebAPI.h"

namespace MERO {

bool WebAPI::CheckSharingPermission() {
  // TODO: ask the sharing library and the checker program once they exist.
  SetError(detail::kErrorSharingRefused);
  return false;
}

bool WebAPI::CheckSharingAppPermission() { return false; }

}  // namespace MERO
