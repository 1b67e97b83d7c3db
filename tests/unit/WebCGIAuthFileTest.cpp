// Session configuration from the auth file of a session name, under a
// temporary appliance root.
#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "ApplianceRootEnv.h"
#include "cgi/WebCGIPrivate.h"

namespace {

using webapi_test::WriteRootFile;

class WebCGIAuthFileTest : public webapi_test::ApplianceRootTest {
 protected:
  static void WriteAuth(const std::string& name, const std::string& json) {
    WriteRootFile("usr/mero/meroman/webapi/" + name + ".auth", json);
  }
  static void WriteApplianceConf(const std::string& text) { WriteRootFile("etc/meroinfo.conf", text); }
};

MERO::WebCGIPrivate& Of(MERO::WebCGI& cgi) { return MERO::WebCGIPrivate::Of(cgi); }

TEST_F(WebCGIAuthFileTest, MissingAuthFileFallsBackToZelWithPlatformDefaults) {
  MERO::WebCGI cgi("NoSuchApp", false);
  MERO::WebCGIPrivate& p = Of(cgi);
  EXPECT_EQ(p.sessionName, "zel");
  EXPECT_TRUE(p.privilege.empty());
  EXPECT_TRUE(p.appPortals.isNull());
  EXPECT_EQ(p.loginFlags, 15u);
  EXPECT_EQ(p.State()->sessionTimeout, MERO_CGI_DEFAULT_SESSION_TIMEOUT);
  EXPECT_STREQ(p.State()->registry, MERO_CGI_DEFAULT_REGISTRY);
}

TEST_F(WebCGIAuthFileTest, NamesAreFoldedForFilesButKeptAsGiven) {
  WriteAuth("myapp", R"({"timeout": 45, "privilege": "portal_admin"})");
  MERO::WebCGI cgi("MyApp", false);
  MERO::WebCGIPrivate& p = Of(cgi);
  EXPECT_EQ(p.sessionName, "MyApp");
  EXPECT_STREQ(p.State()->registry, "myapp.current.users");
  EXPECT_EQ(p.State()->sessionTimeout, 45);
  EXPECT_EQ(p.privilege, "portal_admin");
  Json::Value portals(Json::arrayValue);
  portals.append("portal_admin");
  EXPECT_EQ(p.appPortals, portals);

  WriteAuth("zel", "{}");
  MERO::WebCGI nullName(nullptr, false);
  EXPECT_EQ(Of(nullName).sessionName, "zel");
  EXPECT_STREQ(Of(nullName).State()->registry, "zel.current.users");
}

TEST_F(WebCGIAuthFileTest, TimeoutIsMappedFromTheAuthFile) {
  const std::pair<const char*, int> cases[] = {
      {"-1", 0},  {"-7", -1},  {"0", 10080},   {"45", 45},                {"\"30\"", 10080},
      {"12.9", 12}, {"1e30", 2147483647}, {"99999999999", 2147483647}};
  for (const auto& [timeout, want] : cases) {
    WriteAuth("app", std::string(R"({"timeout":)") + timeout + "}");
    MERO::WebCGI cgi("app", false);
    EXPECT_EQ(Of(cgi).State()->sessionTimeout, want) << timeout;
  }
}

TEST_F(WebCGIAuthFileTest, SourceIpCheckComesFromTheAuthFileElseTheApplianceSetting) {
  struct Case { const char* json; const char* conf; int wantSkip; };  // conf null: no file
  const Case cases[] = {
      {R"({"ip_checking":true})", "skip_checksrcip=\"yes\"\n", 0},
      {R"({"ip_checking":false})", nullptr, 1},
      {R"({"ip_checking":"true"})", "skip_checksrcip=\"yes\"\n", 1},
      {R"({"ip_checking":"true"})", "skip_checksrcip=\"no\"\n", 0},
      {R"({})", "# comment\nother=\"x\"\nskip_checksrcip=no\n", 0},
      {R"({})", "skip_checksrcip=\"YES\"\n", 0},  // exactly "yes"
      {R"({})", "other=\"1\"\n", 1},              // key missing: no check
      {R"({})", nullptr, 1},                      // file missing: no check
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.json) + " / " + (c.conf ? c.conf : "no file"));
    std::filesystem::remove(root() / "etc/meroinfo.conf");
    if (c.conf) WriteApplianceConf(c.conf);
    WriteAuth("app", c.json);
    MERO::WebCGI cgi("app", false);
    EXPECT_EQ(Of(cgi).State()->skipCheckIP, c.wantSkip);
  }
}

TEST_F(WebCGIAuthFileTest, AppPortalsAndWrongTypesCountAsAbsent) {
  WriteAuth("app", R"({"privilege":"portal_admin","app_portals":[]})");
  MERO::WebCGI withEmpty("app", false);
  EXPECT_EQ(Of(withEmpty).appPortals, Json::Value(Json::arrayValue));

  WriteAuth("app", R"({"privilege":7,"app_portals":"x","ip_checking":1})");
  MERO::WebCGI wrongTypes("app", false);
  EXPECT_TRUE(Of(wrongTypes).privilege.empty());
  EXPECT_TRUE(Of(wrongTypes).appPortals.isNull());
  EXPECT_EQ(Of(wrongTypes).sessionName, "app");

  WriteAuth("app", R"([1,2])");  // JSON, but not an object: every key absent
  MERO::WebCGI notObject("app", false);
  EXPECT_EQ(Of(notObject).sessionName, "app");
  EXPECT_EQ(Of(notObject).State()->sessionTimeout, 10080);

  WriteAuth("app", "{\"privilege\":\"admin\"}\n}\n");  // a stray line after a valid file
  MERO::WebCGI stray("app", false);
  EXPECT_EQ(Of(stray).sessionName, "app");
  EXPECT_EQ(Of(stray).privilege, "admin");

  WriteAuth("app", R"({"timeout": )");  // not JSON: the platform defaults under "zel"
  MERO::WebCGI broken("app", false);
  EXPECT_EQ(Of(broken).sessionName, "zel");

  WriteAuth("zel", R"({"timeout": 77})");  // an overlong name: "zel" as well
  MERO::WebCGI overlong(std::string(4066, 'a').c_str(), false);
  EXPECT_EQ(Of(overlong).sessionName, "zel");
  EXPECT_EQ(Of(overlong).State()->sessionTimeout, 77);
}

// -5 means the check ran (and found no session identifier); -9 that it was
// refused before looking.
TEST_F(WebCGIAuthFileTest, AnAuthFileThatCannotBeReadRefusesChecksWhereTheApplianceSaysSo) {
  // conf null: no settings file; auth null: no auth file, "/": a directory in its place.
  struct Case { const char* conf; const char* auth; int want; };
  const Case cases[] = {
      {nullptr, R"({"privilege":"adm)", -5},  // the documented fallback
      {"refuse_unreadable_auth=\"yes\"\n", R"({"privilege":"adm)", -9},
      {"refuse_unreadable_auth=yes\n", "/", -9},
      {"refuse_unreadable_auth=\"yes\"\n", nullptr, -5},  // a missing file still falls back
      {"refuse_unreadable_auth=\"yes\"\n", R"({"privilege":"admin"})", -5},
      {"refuse_unreadable_auth=\"no\"\n", R"({"privilege":"adm)", -5},
  };
  openlog("WebCGIAuthFileTest", LOG_PERROR, LOG_USER);  // a copy of each log line on stderr
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.conf ? c.conf : "no settings") + " / " + (c.auth ? c.auth : "no file"));
    std::filesystem::remove(root() / "etc/meroinfo.conf");
    std::filesystem::remove_all(root() / "usr/mero/meroman/webapi/app.auth");
    if (c.conf) WriteApplianceConf(c.conf);
    if (c.auth && std::string(c.auth) == "/")
      std::filesystem::create_directory(root() / "usr/mero/meroman/webapi/app.auth");
    else if (c.auth)
      WriteAuth("app", c.auth);
    MERO::WebCGI cgi("app", false);
    testing::internal::CaptureStderr();
    EXPECT_EQ(cgi.CheckAuthorized(), c.want);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.find("app.auth exists but could not be read; session refused\n") != std::string::npos,
              c.want == -9)
        << log;
  }
  openlog(nullptr, 0, LOG_USER);  // glibc's closelog would keep LOG_PERROR
  closelog();

  WriteApplianceConf("refuse_unreadable_auth=\"yes\"\n");
  WriteAuth("app", "{");
  WriteAuth("good", "{}");
  MERO::WebCGI cgi("app", false);
  cgi.SetSessionName("good");  // a readable file lifts the refusal
  EXPECT_EQ(cgi.CheckAuthorized(), -5);
}

TEST_F(WebCGIAuthFileTest, LaterSettersAndRenamesInteractAsDocumented) {
  WriteAuth("zel", R"({"timeout": 60, "privilege": "p"})");
  MERO::WebCGI cgi("zel", false);
  MERO::WebCGIPrivate& p = Of(cgi);

  cgi.SetErrorLog(false);
  EXPECT_EQ(p.loginFlags, 15u | 16u);
  cgi.SetErrorLog(true);
  EXPECT_EQ(p.loginFlags, 15u);

  cgi.SetCgiTimeout(30);
  cgi.SetSkipCheckIP(true);
  EXPECT_EQ(p.State()->sessionTimeout, 30);
  cgi.SetErrorLog(false);
  cgi.SetSessionName("zel");  // re-reads the file: its time-out wins again
  EXPECT_EQ(p.State()->sessionTimeout, 60);
  EXPECT_EQ(p.loginFlags, 15u);

  cgi.SetCgiTimeout(30);
  cgi.SetSessionName("Missing");  // no file: only the name changes
  EXPECT_EQ(p.sessionName, "zel");
  EXPECT_EQ(p.State()->sessionTimeout, 30);
  EXPECT_EQ(p.privilege, "p");
}

}  // namespace
