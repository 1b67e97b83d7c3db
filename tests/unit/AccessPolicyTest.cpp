// The user categories a session name admits: the login flags and words that
// LoadAllowUsers makes of an "allow_user" list, and the category word of
// the logged-in user. Accounts and the administrators' group come from
// nss_wrapper (tests/data/login).
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>

#include "ApplianceRootEnv.h"
#include "cgi/WebCGIPrivate.h"
#include "merocgi.h"

namespace {

Json::Value ParseJson(const char* text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text, text + std::strlen(text), &value, &errors)) << text;
  return value;
}

class AccessPolicyTest : public webapi_test::ApplianceRootTest {
 protected:
  static void SetUpTestSuite() { openlog("access-policy-test", LOG_PERROR, LOG_USER); }
};

TEST_F(AccessPolicyTest, AllowUserOfTheAuthFileBecomesFlagsAndWords) {
  const struct {
    const char *list, *words;  // words "null": none
    unsigned int flags;
  } cases[] = {
      {"[]", "null", 15},
      {R"("domain")", "null", 15},  // not a list
      {R"(["domain"])", R"(["domain", "admin.domain"])", 5},
      {R"(["admin.domain"])", R"(["admin.domain"])", 5},
      {R"(["ldap"])", R"(["ldap", "admin.ldap"])", 9},
      {R"(["admin.ldap"])", R"(["admin.ldap"])", 9},
      {R"(["admin"])", R"(["admin"])", 1},
      {R"(["Local"])", R"(["Local"])", 2},  // the bit test ignores case; the word keeps it
      {R"(["DOMAIN"])", R"(["DOMAIN", "admin.domain"])", 5},
      {R"(["ldap", "local", "domain"])",
       R"(["ldap", "local", "domain", "admin.domain", "admin.ldap"])", 15},
      {R"(["guest"])", R"(["guest"])", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.list);
    const std::string name = "policy" + std::to_string(&c - cases);
    webapi_test::WriteRootFile("usr/mero/meroman/webapi/" + name + ".auth",
                               std::string(R"({"allow_user": )") + c.list + "}");
    MERO::WebCGI cgi(name.c_str(), false);
    EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).loginFlags, c.flags);
    EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).allowUsers, ParseJson(c.words));
  }
  // A later empty list keeps the earlier one.
  MERO::WebCGI cgi("noauthfile", false);
  Json::Value local = ParseJson(R"(["local"])"), empty(Json::arrayValue);
  cgi.LoadAllowUsers(local);
  cgi.LoadAllowUsers(empty);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).loginFlags, 2u);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).allowUsers, local);
}

TEST_F(AccessPolicyTest, CategoryWordOfTheLoggedInUser) {
  struct Case {
    const char *allowUsers, *user;  // allowUsers installed as it is; null: none loaded
    bool admin, allowed;            // IsAdmin; the category word is in the list
    bool groupUnknown = false;      // the settings file cannot be read
  };
  const Case cases[] = {
      {nullptr, "alice", true, false},  // no allow_user admits nobody
      {R"(["admin"])", "alice", true, true},
      {R"(["admin"])", "bob", false, false},
      {R"(["local"])", "bob", false, true},
      {R"(["local"])", "alice", true, false},
      {R"(["Local"])", "bob", false, false},  // words compare exactly
      {R"(["domain", "admin.domain"])", "DOM\\dave", false, true},
      {R"(["domain"])", "DOM\\ada", true, false},
      {R"(["admin.domain"])", "DOM\\ada", true, true},
      {R"(["ldap"])", "erin@example.com", false, true},
      {R"(["domain"])", "erin@example.com", false, false},
      // A backslash makes a domain name even with an "@" after it.
      {R"(["domain"])", "DOM\\erin@example.com", false, true},
      {R"(["ldap"])", "DOM\\erin@example.com", false, false},
      // No account of that name: not in any group.
      {R"(["admin.domain"])", "DOM\\ghost", false, false},
      {R"(["local"])", "ghost", false, true},
      // A failed group test is logged and counts as no administrator.
      {R"(["domain"])", "DOM\\ada", false, true, true},
      {R"(["admin.domain"])", "DOM\\ada", false, false, true},
      {R"(["local"])", "alice", false, true, true},
      {R"(["admin"])", "alice", false, false, true},
  };
  char code[16];
  std::snprintf(code, sizeof code, "0x%04X", static_cast<unsigned int>(MERO_ERR_IO));
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.user) + " in " + (c.allowUsers ? c.allowUsers : "null") +
                 (c.groupUnknown ? ", group unknown" : ""));
    std::filesystem::remove(root() / "etc/meroinfo.conf");
    if (c.groupUnknown) std::filesystem::create_symlink("meroinfo.conf", root() / "etc/meroinfo.conf");
    MERO::WebCGI cgi("noauthfile", false);
    MERO::WebCGIPrivate& p = MERO::WebCGIPrivate::Of(cgi);
    if (c.allowUsers) p.allowUsers = ParseJson(c.allowUsers);
    // The word test is what turns a platform login's 1 into -3.
    _tag_login_params params{c.user, "", "webui", p.loginFlags, 0};
    CGI_LOGIN_RESULT result = 1;
    testing::internal::CaptureStderr();
    cgi.CheckLogin(result, params, "");
    std::string log = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    EXPECT_EQ(cgi.IsAdmin(), c.admin);
    const std::string adminLog = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, c.allowed ? 1 : -3);
    EXPECT_EQ(cgi.GetLoginUserName(), c.user);
    if (!c.groupUnknown) {
      EXPECT_EQ(adminLog, "");  // a group test that answers logs nothing
      continue;
    }
    log += adminLog;
    EXPECT_NE(log.find(std::string("MLIBGroupIsAdminGroupMem(") + c.user + ") failed. [" + code),
              std::string::npos)
        << log;
    EXPECT_TRUE(std::regex_search(
        log, std::regex(R"(WebCGI\.cpp:\d+ MLIBGroupIsAdminGroupMem\(.*\) failed\. \[0x[0-9A-F]{4} \S+:\d+\])")))
        << log;
  }
}

}  // namespace
