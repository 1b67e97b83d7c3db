// Fixed appliance paths, resolved under the appliance root (merocore.h):
// exactly the written path in production (root "/"), a temporary tree in
// tests and the demo.
#ifndef WEBAPI_UTIL_APPLIANCEPATH_H
#define WEBAPI_UTIL_APPLIANCEPATH_H

#include <string>

#include "merocore.h"

namespace MERO {
namespace detail {

constexpr const char kWebApiDir[] = "/usr/mero/meroman/webapi";
constexpr const char kApplianceConf[] = "/etc/meroinfo.conf";

inline std::string AppliancePath(const std::string& absolutePath) {
  return MeroApplianceRoot() + absolutePath;
}

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_APPLIANCEPATH_H
