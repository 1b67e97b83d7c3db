#include <gtest/gtest.h>
#include <syslog.h>

#include <cctype>
#include <cstring>
#include <string>

#include "ApplianceRootEnv.h"
#include "webapi/WebAPIUtil.h"

namespace {

using MERO::_tag_mero_browser_info_;
using MERO::WebAPIUtil::GetBrowserInfo;

const char kNoDigit[] = "not supported browser type";
const char kTooLong[] = "version size not enough";

// True when `log` is exactly one line "WebAPIUtil.cpp(<line>): <what>,
// USER_AGENT: <agent>" after the ident that LOG_PERROR puts first.
bool LoggedOnce(const std::string& log, const std::string& what, const std::string& agent) {
  const std::string source = "WebAPIUtil.cpp(";
  const size_t at = log.find(source);
  if (at == std::string::npos) return false;
  size_t i = at + source.size();
  const size_t digits = i;
  while (i < log.size() && std::isdigit(static_cast<unsigned char>(log[i]))) ++i;
  return i > digits && log.compare(i, std::string::npos, "): " + what + ", USER_AGENT: " + agent + "\n") == 0;
}

class BrowserDetectTest : public ::testing::Test {
 protected:
  // Only LOG_ERR lines reach the echo on stderr: a line logged at another
  // priority fails the test that expects it.
  void SetUp() override {
    openlog("BrowserDetectTest", LOG_PERROR, LOG_USER);
    setlogmask(LOG_MASK(LOG_ERR));
  }
  void TearDown() override {
    webapi_test::SetEnvOrUnset("HTTP_USER_AGENT", nullptr);
    openlog(nullptr, 0, LOG_USER);  // glibc's closelog would keep LOG_PERROR
    closelog();
    setlogmask(LOG_UPTO(LOG_DEBUG));
  }
};

TEST_F(BrowserDetectTest, FirstMatchingTokenDecidesTypeAndVersion) {
  const std::string chromeBase =
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 "
      "Safari/537.36";
  const std::string iphone = "Mozilla/5.0 (iPhone; CPU iPhone OS 17_1 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) ";
  struct Case { std::string agent; int type; std::string version; int rc; const char* log; };
  const Case cases[] = {
      {chromeBase, 4, "120.0.0.0", 0, nullptr},
      {chromeBase + " Edg/120.0.0.0", 6, "120.0.0.0", 0, nullptr},
      {chromeBase + " OPR/106.0.0.0", 4, "120.0.0.0", 0, nullptr},
      {"Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/70.0.3538.102 "
       "Safari/537.36 Edge/18.17763", 6, "18.17763", 0, nullptr},
      {"Edge/18.17763 (Windows NT 10.0; like Gecko) more", 6, "18.17763 (Windows NT 10.0; like", 0, nullptr},
      {"Edg/11.0 Chrome/11.0", 4, "11.0", 0, nullptr},           // too old for Edge's own
      {"Edge/beta Edg/nine Firefox/3.6", 2, "3.6", 0, nullptr},  // no number after either
      {"Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/115.0", 2, "115.0", 0, nullptr},
      {"Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.1 "
       "Safari/605.1.15", 3, "17.1", 0, nullptr},
      {iphone + "CriOS/120.0.6099.119 Mobile/15E148 Safari/604.1", 3, "604.1", 0, nullptr},  // no Version/
      {"Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) SamsungBrowser/23.0 "
       "Chrome/115.0.0.0 Mobile Safari/537.36", 4, "115.0.0.0", 0, nullptr},
      {"Mozilla/4.0 (compatible; MSIE 8.0; Windows NT 6.1; Trident/4.0)", 1, "8.0", 0, nullptr},
      {"Mozilla/5.0 (compatible; MSIE 10.0; Windows NT 6.2; Trident/7.0)", 1, "10.0", 0, nullptr},  // MSIE first
      {"Mozilla/5.0 (Windows NT 10.0; WOW64; Trident/7.0; rv:11.0) like Gecko", 1, "11", 0, nullptr},
      {"facebookexternalhit/1.1 (+http://www.facebook.com/externalhit_uatext.php)", 5, "1.1", 0, nullptr},
      {"Mozilla/5.0 (compatible; Googlebot/2.1; +http://www.google.com/bot.html)", 7, "", 0, nullptr},
      {"", 7, "", 0, nullptr},
      {"\x01\xff garbage chrome/1 SAFARI", 7, "", 0, nullptr},   // tokens are case-sensitive
      {"Mozilla/5.0 Firefox/beta", 2, "", -1, kNoDigit},
      {"Chrome/" + std::string(31, '7') + ")", 4, std::string(31, '7'), 0, nullptr},
      {"Chrome/" + std::string(40, '9'), 4, std::string(31, '9'), -1, kTooLong},
      {std::string(4087, 'x') + "Chrome/1", 4, "1", 0, nullptr},           // ends at the 4095th character
      {std::string(4088, 'x') + "Chrome/1", 4, "", -1, kNoDigit},          // its digit is beyond
      {"Firefox/beta\r\nhost sshd: Accepted password for root", 2, "", -1, kNoDigit},  // a forged line
      {std::string(4090, 'x') + "Chrome/1", 7, "", 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.agent.size() > 100 ? c.agent.substr(c.agent.size() - 100) : c.agent);
    webapi_test::SetEnvOrUnset("HTTP_USER_AGENT", c.agent.c_str());
    _tag_mero_browser_info_ info;
    info.type = 0;
    std::memset(info.version, 'x', sizeof info.version);
    testing::internal::CaptureStderr();
    EXPECT_EQ(GetBrowserInfo(&info), c.rc);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(info.type, c.type);
    std::string want = c.version;
    want.resize(sizeof info.version, '\0');  // every byte after the text cleared
    EXPECT_EQ(std::string(info.version, sizeof info.version), want);
    if (c.log) {
      // Cut to 256 bytes, control bytes escaped: one line, the fixed text kept.
      std::string agent = c.agent.size() > 256 ? c.agent.substr(0, 256) + "..." : c.agent;
      if (agent.find('\r') != std::string::npos)
        agent = "Firefox/beta\\x0d\\x0ahost sshd: Accepted password for root";
      EXPECT_TRUE(LoggedOnce(log, c.log, agent)) << log;
    } else {
      EXPECT_EQ(log, "");
    }
  }
}

TEST_F(BrowserDetectTest, UnsetAgentGivesNoneAndNullRecordFails) {
  webapi_test::SetEnvOrUnset("HTTP_USER_AGENT", nullptr);
  _tag_mero_browser_info_ info;
  info.type = 0;
  std::memcpy(info.version, "kept", 5);
  EXPECT_EQ(GetBrowserInfo(&info), 0);
  EXPECT_EQ(info.type, MERO::BROWSER_NONE);
  EXPECT_STREQ(info.version, "kept");
  webapi_test::SetEnvOrUnset("HTTP_USER_AGENT", "Chrome/1");
  EXPECT_EQ(GetBrowserInfo(nullptr), -1);
}

}  // namespace
