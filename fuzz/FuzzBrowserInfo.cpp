// Fuzz target: browser detection over any user agent (the input up to its
// first NUL, as the environment carries it). Properties: the version is
// NUL-terminated inside its 32 bytes with every byte after it cleared; the
// type and version are those of the first row of the decision table whose
// token is in the first 4095 characters, worked out here with std::string
// searches; the result is -1 exactly when a scanned row finds no digit or a
// run longer than 31.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "webapi/WebAPIUtil.h"

namespace {

struct Expected {
  int type;
  std::string version;
  int result;
};

// The version scanned from `from` on: the first run of digits and ".".
Expected Scanned(int type, const std::string& agent, size_t from) {
  const size_t digit = agent.find_first_of("0123456789", from);
  if (digit == std::string::npos) return {type, "", -1};
  const size_t end = agent.find_first_not_of("0123456789.", digit);
  const std::string run =
      agent.substr(digit, end == std::string::npos ? std::string::npos : end - digit);
  return {type, run.substr(0, 31), run.size() > 31 ? -1 : 0};
}

Expected Classify(const std::string& agent) {
  const auto after = [&agent](const std::string& token) {
    const size_t at = agent.find(token);
    return at == std::string::npos ? at : at + token.size();
  };
  const size_t npos = std::string::npos;
  if (after("MSIE") != npos) return Scanned(MERO::BROWSER_IE, agent, after("MSIE"));
  if (after("Trident/7.0") != npos) return {MERO::BROWSER_IE, "11", 0};
  for (const char* edge : {"Edge/", "Edg/"}) {
    const size_t at = after(edge);
    if (at != npos && std::strtof(agent.c_str() + at, nullptr) >= 12.0f)
      return {MERO::BROWSER_EDGE, agent.substr(at, 31), 0};
  }
  const std::pair<const char*, int> scannedRows[] = {
      {"Firefox", MERO::BROWSER_FIREFOX},
      {"Chrome", MERO::BROWSER_CHROME},
      {"Safari", MERO::BROWSER_SAFARI},
      {"facebookexternalhit", MERO::BROWSER_FACEBOOK}};
  for (const auto& [token, type] : scannedRows) {
    if (after(token) == npos) continue;
    const bool safariVersion = type == MERO::BROWSER_SAFARI && after("Version/") != npos;
    return Scanned(type, agent, safariVersion ? after("Version/") : after(token));
  }
  return {MERO::BROWSER_UNKNOWN, "", 0};
}

// Puts "HTTP_USER_AGENT=<agent>" into the environment without setenv, which
// keeps every value it was ever given.
void SetUserAgent(const std::string& agent) {
  static std::vector<char> entry;
  const std::string text = "HTTP_USER_AGENT=" + agent;
  std::vector<char> next(text.c_str(), text.c_str() + text.size() + 1);
  FUZZ_CHECK(putenv(next.data()) == 0);
  entry.swap(next);  // the environment now points into `entry`; the old text goes
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using MERO::_tag_mero_browser_info_;
  std::string agent(reinterpret_cast<const char*>(data), size);  // data may be null when size is 0
  agent.resize(std::min(agent.find('\0'), agent.size()));
  SetUserAgent(agent);

  _tag_mero_browser_info_ info;
  info.type = 0;
  std::memset(info.version, 0x7F, sizeof info.version);
  const int result = MERO::WebAPIUtil::GetBrowserInfo(&info);

  const Expected want = Classify(agent.substr(0, 4095));
  FUZZ_CHECK(result == want.result);
  FUZZ_CHECK(info.type == want.type);
  std::string version = want.version;
  version.resize(sizeof info.version, '\0');
  FUZZ_CHECK(std::memcmp(info.version, version.data(), sizeof info.version) == 0);
  return 0;
}
