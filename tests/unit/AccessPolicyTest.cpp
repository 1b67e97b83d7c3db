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

TEST_F(AccessPolicyTest, EmptyListChangesNothing) {
  MERO::WebCGI cgi("noauthfile", false);
  MERO::WebCGIPrivate& p = MERO::WebCGIPrivate::Of(cgi);
  Json::Value empty(Json::arrayValue);
  cgi.LoadAllowUsers(empty);
  EXPECT_EQ(p.loginFlags, 15u);
  EXPECT_TRUE(p.allowUsers.isNull());

  Json::Value local = ParseJson(R"(["local"])");
  cgi.LoadAllowUsers(local);
  cgi.LoadAllowUsers(empty);
  EXPECT_EQ(p.loginFlags, 2u);
  EXPECT_EQ(p.allowUsers, local);
}

TEST_F(AccessPolicyTest, ListBecomesFlagsAndWords) {
  struct Case {
    const char* list;
    unsigned int flags;
    const char* words;
  };
  const Case cases[] = {
      {R"(["domain"])", 5, R"(["domain", "admin.domain"])"},
      {R"(["admin.domain"])", 5, R"(["admin.domain"])"},
      {R"(["ldap"])", 9, R"(["ldap", "admin.ldap"])"},
      {R"(["admin.ldap"])", 9, R"(["admin.ldap"])"},
      {R"(["admin"])", 1, R"(["admin"])"},
      {R"(["Local"])", 2, R"(["Local"])"},  // the bit test ignores case; the word keeps it
      {R"(["DOMAIN"])", 5, R"(["DOMAIN", "admin.domain"])"},
      {R"(["ldap", "local", "domain"])", 15,
       R"(["ldap", "local", "domain", "admin.domain", "admin.ldap"])"},
      {R"(["guest"])", 0, R"(["guest"])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.list);
    MERO::WebCGI cgi("noauthfile", false);
    Json::Value list = ParseJson(c.list);
    cgi.LoadAllowUsers(list);
    EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).loginFlags, c.flags);
    EXPECT_EQ(MERO::WebCGIPrivate::Of(cgi).allowUsers, ParseJson(c.words));
  }
}

TEST_F(AccessPolicyTest, AllowUserOfTheAuthFileIsLoaded) {
  webapi_test::WriteRootFile("usr/mero/meroman/webapi/policy.auth",
                             R"({"allow_user": ["domain"]})");
  webapi_test::WriteRootFile("usr/mero/meroman/webapi/notalist.auth",
                             R"({"allow_user": "domain"})");
  MERO::WebCGI listed("policy", false);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(listed).loginFlags, 5u);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(listed).allowUsers, ParseJson(R"(["domain", "admin.domain"])"));
  MERO::WebCGI text("notalist", false);
  EXPECT_EQ(MERO::WebCGIPrivate::Of(text).loginFlags, 15u);
  EXPECT_TRUE(MERO::WebCGIPrivate::Of(text).allowUsers.isNull());
}

TEST_F(AccessPolicyTest, CategoryWordOfTheLoggedInUser) {
  struct Case {
    const char* allowUsers;  // installed as it is; null: none loaded
    const char* user;
    bool admin;    // IsAdmin
    bool allowed;  // the category word is in the list
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
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.user) + " in " + (c.allowUsers ? c.allowUsers : "null"));
    MERO::WebCGI cgi("noauthfile", false);
    MERO::WebCGIPrivate& p = MERO::WebCGIPrivate::Of(cgi);
    if (c.allowUsers) p.allowUsers = ParseJson(c.allowUsers);
    // The word test is what turns a platform login's 1 into -3.
    _tag_login_params params{c.user, "", "webui", p.loginFlags, 0};
    CGI_LOGIN_RESULT result = 1;
    cgi.CheckLogin(result, params, "");
    EXPECT_EQ(result, c.allowed ? 1 : -3);
    EXPECT_EQ(cgi.GetLoginUserName(), c.user);
    EXPECT_EQ(cgi.IsAdmin(), c.admin);
  }
}

TEST_F(AccessPolicyTest, FailedGroupTestIsLoggedAndCountsAsNoAdministrator) {
  // A settings file that exists but cannot be read leaves the
  // administrators' group unknown.
  std::filesystem::create_symlink("meroinfo.conf", root() / "etc/meroinfo.conf");
  struct Case {
    const char* allowUsers;
    const char* user;
    bool allowed;
  };
  const Case cases[] = {
      {R"(["domain"])", "DOM\\ada", true},
      {R"(["admin.domain"])", "DOM\\ada", false},
      {R"(["local"])", "alice", true},
      {R"(["admin"])", "alice", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.user) + " in " + c.allowUsers);
    MERO::WebCGI cgi("noauthfile", false);
    MERO::WebCGIPrivate::Of(cgi).allowUsers = ParseJson(c.allowUsers);
    _tag_login_params params{c.user, "", "webui", 15, 0};
    CGI_LOGIN_RESULT result = 1;
    testing::internal::CaptureStderr();
    cgi.CheckLogin(result, params, "");
    const bool admin = cgi.IsAdmin();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, c.allowed ? 1 : -3);
    EXPECT_FALSE(admin);
    char code[16];
    std::snprintf(code, sizeof code, "0x%04X", static_cast<unsigned int>(MERO_ERR_IO));
    const std::string line =
        std::string("MLIBGroupIsAdminGroupMem(") + c.user + ") failed. [" + code;
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_TRUE(std::regex_search(
        log,
        std::regex(
            R"(WebCGI\.cpp:\d+ MLIBGroupIsAdminGroupMem\(.*\) failed\. \[0x[0-9A-F]{4} \S+:\d+\])")))
        << log;
  }
}

TEST_F(AccessPolicyTest, GroupTestThatAnswersLogsNothing) {
  for (const char* user : {"alice", "bob", "DOM\\ghost"}) {
    SCOPED_TRACE(user);
    MERO::WebCGI cgi("noauthfile", false);
    MERO::WebCGIPrivate::Of(cgi).loginUser = user;
    testing::internal::CaptureStderr();
    EXPECT_EQ(cgi.IsAdmin(), std::string(user) == "alice");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
}

}  // namespace
