// The source names that begin every log line of the library ("%s:%d ..."),
// fixed per subsystem so that moving code between files never changes a line.
#ifndef WEBAPI_UTIL_LOGSOURCE_H
#define WEBAPI_UTIL_LOGSOURCE_H

namespace MERO {
namespace detail {

constexpr const char kWebCgiSource[] = "WebCGI.cpp";
constexpr const char kWebApiSource[] = "WebAPI.cpp";
constexpr const char kWebApiUtilSource[] = "WebAPIUtil.cpp";

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_LOGSOURCE_H
