// The error codes the base class records (listed for callers in WebAPI.h).
#ifndef WEBAPI_DISPATCH_ERRORCODES_H
#define WEBAPI_DISPATCH_ERRORCODES_H

namespace MERO {
namespace detail {

constexpr int kErrorBadRequest = 101;
constexpr int kErrorUnknownApi = 102;
constexpr int kErrorUnknownMethod = 103;
constexpr int kErrorBadVersion = 104;
constexpr int kErrorNoSession = 105;
constexpr int kErrorSessionExpired = 106;
constexpr int kErrorSessionReplaced = 107;
constexpr int kErrorSharingExpired = 122;
constexpr int kErrorSharingDisabled = 123;
constexpr int kErrorSharingUsedUp = 124;
constexpr int kErrorSharingPasswordNeeded = 125;
constexpr int kErrorSharingRefused = 126;
constexpr int kErrorSharingNotCovered = 127;

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_DISPATCH_ERRORCODES_H
