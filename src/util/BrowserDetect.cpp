// Browser family and version from the request's user agent. A first-match
// decision table over fixed tokens: the order of the rows settles agents
// that carry several tokens (every Chromium agent also says "Safari", Edge
// also says "Chrome"). Works in a fixed buffer on the stack: no allocation,
// no state between calls.
#include <string.h>  // strnlen
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "LogSource.h"
#include "LogText.h"
#include "webapi/WebAPIUtil.h"

namespace MERO {
namespace WebAPIUtil {
namespace {

constexpr size_t kUserAgentCopyChars = 4095;  // searched; the rest is ignored
constexpr size_t kVersionChars = sizeof(_tag_mero_browser_info_::version) - 1;
constexpr double kMinEdgeVersion = 12.0;  // below it, "Edge/" is some other agent's

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Where the text after `token` begins in `agent`, or null without it.
const char* After(const char* agent, const char* token) {
  const char* found = std::strstr(agent, token);
  return found ? found + std::strlen(token) : nullptr;
}

// The text after an "Edge/" or "Edg/" token whose version is Edge's own.
const char* EdgeVersionText(const char* agent, const char* token) {
  const char* rest = After(agent, token);
  return rest && std::strtof(rest, nullptr) >= kMinEdgeVersion ? rest : nullptr;
}

// Copies the first run of digits and "." at or after `from` into the
// version (cleared by the caller); the type is already stored.
int ScanVersion(const char* agent, const char* from, _tag_mero_browser_info_* info) {
  while (*from && !IsDigit(*from)) ++from;
  if (!*from) {
    syslog(LOG_ERR, "%s(%d): not supported browser type, USER_AGENT: %s", detail::kWebApiUtilSource,
           __LINE__, detail::LoggedText(agent).c_str());
    return -1;
  }
  size_t length = 0;
  while (IsDigit(from[length]) || from[length] == '.') ++length;
  if (length > kVersionChars) {
    std::memcpy(info->version, from, kVersionChars);
    syslog(LOG_ERR, "%s(%d): version size not enough, USER_AGENT: %s", detail::kWebApiUtilSource,
           __LINE__, detail::LoggedText(agent).c_str());
    return -1;
  }
  std::memcpy(info->version, from, length);
  return 0;
}

}  // namespace

int GetBrowserInfo(_tag_mero_browser_info_* info) {
  if (!info) return -1;
  const char* userAgent = std::getenv("HTTP_USER_AGENT");
  if (!userAgent) {
    info->type = BROWSER_NONE;
    return 0;
  }
  char agent[kUserAgentCopyChars + 1];
  const size_t agentLength = strnlen(userAgent, kUserAgentCopyChars);
  std::memcpy(agent, userAgent, agentLength);
  agent[agentLength] = '\0';
  std::memset(info->version, 0, sizeof info->version);

  const char* from = nullptr;
  if ((from = After(agent, "MSIE"))) {
    info->type = BROWSER_IE;
    return ScanVersion(agent, from, info);
  }
  if (std::strstr(agent, "Trident/7.0")) {  // IE 11 dropped "MSIE"
    info->type = BROWSER_IE;
    std::memcpy(info->version, "11", 2);
    return 0;
  }
  if ((from = EdgeVersionText(agent, "Edge/")) || (from = EdgeVersionText(agent, "Edg/"))) {
    info->type = BROWSER_EDGE;
    std::memcpy(info->version, from, strnlen(from, kVersionChars));
    return 0;
  }
  if ((from = After(agent, "Firefox"))) {
    info->type = BROWSER_FIREFOX;
    return ScanVersion(agent, from, info);
  }
  if ((from = After(agent, "Chrome"))) {
    info->type = BROWSER_CHROME;
    return ScanVersion(agent, from, info);
  }
  if ((from = After(agent, "Safari"))) {
    info->type = BROWSER_SAFARI;
    // Safari's own version is after "Version/"; after "Safari/" is WebKit's.
    const char* version = After(agent, "Version/");
    return ScanVersion(agent, version ? version : from, info);
  }
  if ((from = After(agent, "facebookexternalhit"))) {
    info->type = BROWSER_FACEBOOK;
    return ScanVersion(agent, from, info);
  }
  info->type = BROWSER_UNKNOWN;
  return 0;
}

}  // namespace WebAPIUtil
}  // namespace MERO
