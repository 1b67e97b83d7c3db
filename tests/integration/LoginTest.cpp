// Login, logout, the session check's CSRF rule and running as the logged-in
// user, through a CGI program run as a child process on the real platform:
// PAM with pam_matrix under the appliance root, accounts from nss_wrapper,
// and real id switching (we are root; those cases skip otherwise).
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"

namespace {

using Env = std::map<std::string, std::string>;
using webapi_test::ReadFileText;
using webapi_test::WriteRootFile;

constexpr char kLocalName[] = "probe";         // admits admin and local, CSRF rule on
constexpr char kDomainName[] = "probedomain";  // admits domain
constexpr char kLdapName[] = "probeldap";      // admits ldap
constexpr char kClient[] = "127.0.0.1";

struct TestAccount {
  const char *name, *password;  // the password for PAM service "webui"
  unsigned int uid, gid;
  const char* home;  // under <root>/home; null: none is made
};
const TestAccount kAccounts[] = {
    {"alice", "alice-pw", 1001, 1001, "alice"},     // in "administrators"
    {"bob", "bob-pw", 1002, 1002, "bob"},           // plain local user
    {"DOM\\dave", "dave-pw", 1003, 1003, nullptr},  // domain user without a home
    {"DOM\\ada", "ada-pw", 1004, 1004, "ada"},      // domain user in "administrators"
    {"erin@example.com", "erin-pw", 1005, 1005, "erin"},
    {"mallory", "mallory-pw", 1006, 1006, "mallory"},  // locked by pam_listfile
};

std::string SessionCookie(const std::string& sid) {
  return "id=" + sid + "; Path=/; HttpOnly; SameSite=Strict";
}

bool Matches(const std::string& text, const char* pattern) {
  return std::regex_search(text, std::regex(pattern));
}

std::vector<unsigned int> Ids(const Json::Value& list) {
  std::vector<unsigned int> values;
  for (const Json::Value& value : list) values.push_back(value.asUInt());
  return values;
}

std::vector<unsigned int> Sorted(const Json::Value& list) {
  std::vector<unsigned int> values = Ids(list);
  std::sort(values.begin(), values.end());
  return values;
}

struct Probe {
  Json::Value report;  // the probe's JSON line
  std::string err;     // its log lines
};

class LoginTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    const std::string root = this->root().string();
    // Readable by the accounts, so that a probe that gave up root still
    // sees them (and only the run-as guard can stop it).
    std::filesystem::permissions(this->root(), std::filesystem::perms::owner_all |
                                                   std::filesystem::perms::group_exec |
                                                   std::filesystem::perms::others_exec);
    std::string passdb, passwd = ReadFileText(LOGIN_DATA_DIR "/passwd.in");
    for (const TestAccount& account : kAccounts)
      passdb += std::string(account.name) + ":" + account.password + ":webui\n";
    for (size_t at; (at = passwd.find("@LOGIN_HOMES@")) != std::string::npos;)
      passwd.replace(at, 13, root + "/home");
    WriteRootFile("nss/passwd", passwd);
    WriteRootFile("nss/group", ReadFileText(LOGIN_DATA_DIR "/group"));

    const std::string matrix = std::string(PAM_MATRIX_MODULE) + " passdb=" + root;
    WriteRootFile("etc/pam.d/passdb", passdb);
    WriteRootFile("etc/pam.d/locked", "mallory\n");
    // libpam reads "other" too, and logs when it is missing.
    for (const char* other : {"etc/pam.d/other", "pam-other/other"})
      WriteRootFile(other, "auth required pam_deny.so\naccount required pam_deny.so\n");
    WriteRootFile("etc/pam.d/webui",
                  "auth required " + matrix + "/etc/pam.d/passdb\n" +
                      "account requisite pam_listfile.so item=user sense=deny file=" + root +
                      "/etc/pam.d/locked onerr=succeed\n" + "account required " + matrix +
                      "/etc/pam.d/passdb\n");
    // A service of its own, with another password for bob than "webui" has.
    WriteRootFile("pam-other/passdb", "bob:other-pw:probepam\n");
    WriteRootFile("pam-other/probepam", "auth required " + matrix + "/pam-other/passdb\n" +
                                            "account required " + matrix + "/pam-other/passdb\n");

    const std::pair<const char*, const char*> allows[] = {
        {kLocalName, R"(["admin", "local"], "timeout": 30, "csrf_protection": true)"},
        {kDomainName, R"(["domain"])"},
        {kLdapName, R"(["ldap"])"}};
    for (const auto& [name, allow] : allows)
      WriteRootFile(std::string("usr/mero/meroman/webapi/") + name + ".auth",
                    std::string(R"({"allow_user": )") + allow + R"(, "ip_checking": true})");

    for (const TestAccount& account : kAccounts) {
      if (!account.home) continue;
      const std::filesystem::path home = this->root() / "home" / account.home;
      std::filesystem::create_directories(home);
      if (IsRoot()) {
        ASSERT_EQ(chown(home.c_str(), account.uid, account.gid), 0);
      }
      std::filesystem::permissions(home, std::filesystem::perms::owner_all);
    }
  }

  static bool IsRoot() { return geteuid() == 0; }

  // Runs the probe with `action`; GET from 127.0.0.1 under kLocalName
  // unless `env` says otherwise.
  Probe Run(const char* action, Env env, const std::string& input = "") {
    const std::string root = this->root().string();
    env["PROBE_ACTION"] = action;
    env.emplace("PROBE_SESSION", kLocalName);
    env.emplace("REQUEST_METHOD", "GET");
    env.emplace("REMOTE_ADDR", kClient);
    env["MERO_APPLIANCE_ROOT"] = root;
    env["LD_PRELOAD"] = LOGIN_PRELOAD;
    env["NSS_WRAPPER_PASSWD"] = root + "/nss/passwd";
    env["NSS_WRAPPER_GROUP"] = root + "/nss/group";
    env["NSS_WRAPPER_DISABLE_DEEPBIND"] = "1";
    const webapi_test::ChildResult child = webapi_test::RunChild(LOGIN_PROBE_PATH, env, input);
    EXPECT_EQ(child.exitStatus, 0) << child.err;
    Probe probe;
    probe.err = child.err;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(child.out.data(), child.out.data() + child.out.size(), &probe.report,
                              &errors))
        << child.out << child.err;
    return probe;
  }

  Probe Login(const std::string& user, const std::string& password, Env env = {}) {
    env["PROBE_USER"] = user;
    env["PROBE_PASSWORD"] = password;
    return Run("login", env);
  }

  // Logs bob in under kLocalName; returns the report of that login.
  Json::Value BobSession() {
    const Probe login = Login("bob", "bob-pw");
    EXPECT_EQ(login.report["result"], 1) << login.err;
    return login.report;
  }

  int Check(const std::string& sid) {
    return Run("check", {{"HTTP_COOKIE", "id=" + sid}}).report["result"].asInt();
  }
};

TEST_F(LoginTest, LoginResultsCookiesAndAuditLines) {
  struct Case {
    const char *action, *session, *user, *password;
    int want;
    bool wantSession;   // a session was made and its cookie recorded
    const char* audit;  // pattern of the audit line
  };
  const Case cases[] = {
      {"login", kLocalName, "bob", "bob-pw", 1, true,
       "login: user=bob client=127.0.0.1 result=success"},
      {"login", kLocalName, "bob", "Wr0ng-Secret", -1, false,
       "login: user=bob client=127.0.0.1 result=failure reason=password"},
      {"login", kLocalName, "mallory", "mallory-pw", -2, false,
       "login: user=mallory client=127.0.0.1 result=failure reason=account"},
      // The platform refuses a category the flags do not admit...
      {"login", kLocalName, "DOM\\dave", "dave-pw", -3, false,
       " client=127.0.0.1 result=failure reason=category"},
      {"login", kDomainName, "bob", "bob-pw", -3, false,
       "login: user=bob client=127.0.0.1 result=failure reason=category"},
      // ...while a local administrator passes the flags of ["domain"] (bits
      // 5) and only the library's own word test refuses it.
      {"login", kDomainName, "alice", "alice-pw", -3, true,
       "login: user=alice client=127.0.0.1 result=success"},
      {"login", kDomainName, "DOM\\dave", "dave-pw", 1, true, " client=127.0.0.1 result=success"},
      {"login", kLdapName, "erin@example.com", "erin-pw", 1, true,
       "login: user=erin@example.com client=127.0.0.1 result=success"},
      {"sso", kLocalName, "bob", "bob-pw", -9, false,
       "login: user=bob client=127.0.0.1 result=failure reason=sso-not-configured"},
      {"noauth", kLocalName, "bob", "", 1, true, "login: user=bob client=127.0.0.1 result=success"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.action) + " " + c.user + " under " + c.session);
    const Probe probe =
        Run(c.action,
            {{"PROBE_SESSION", c.session}, {"PROBE_USER", c.user}, {"PROBE_PASSWORD", c.password}});
    const Json::Value& report = probe.report;
    EXPECT_EQ(report["result"], c.want) << probe.err;
    EXPECT_TRUE(Matches(probe.err, c.audit)) << probe.err;
    if (*c.password) {
      EXPECT_EQ(probe.err.find(c.password), std::string::npos) << probe.err;
      EXPECT_EQ(report.toStyledString().find(c.password), std::string::npos);
    }
    if (c.wantSession) {
      const std::string sid = report["sid"].asString();
      EXPECT_EQ(sid.size(), 43u);
      EXPECT_EQ(report["out"].asString().size(), 32u);
      EXPECT_EQ(report["token"], report["out"]);
      EXPECT_EQ(report["cookies"]["id"], SessionCookie(sid));
      EXPECT_EQ(report["user"], c.user);  // -3 from the library still names the user
      EXPECT_EQ(report["state"], "1");
    } else {
      EXPECT_EQ(report["cookies"], Json::Value(Json::objectValue));
      EXPECT_TRUE(report["sid"].isNull());
      EXPECT_EQ(report["out"], "");
      EXPECT_EQ(report["user"], "");
    }
  }
}

TEST_F(LoginTest, ShareWriteOfDomainAndDirectoryUsersIsValidatedAndNeverFailsTheLogin) {
  if (!IsRoot()) GTEST_SKIP() << "the validation runs as root";
  struct Case {
    const char *session, *user, *password;
    bool removeHome;
    const char* failureLine;  // pattern; null: none of either kind
  };
  const Case cases[] = {
      {kDomainName, "DOM\\dave", "dave-pw", false,
       R"(WebCGI\.cpp \(\d+\) MeroCgiDomValidShareWrite failed\.)"},
      {kDomainName, "DOM\\ada", "ada-pw", false, nullptr},
      {kLdapName, "erin@example.com", "erin-pw", false, nullptr},
      {kLdapName, "erin@example.com", "erin-pw", true,
       R"(WebCGI\.cpp:\d+ MeroCgiLDAPValidShareWrite failed\. \[erin@example\.com\])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.user) + (c.removeHome ? " without a home" : ""));
    if (c.removeHome) std::filesystem::remove_all(root() / "home/erin");
    const Probe probe = Login(c.user, c.password, {{"PROBE_SESSION", c.session}});
    EXPECT_EQ(probe.report["result"], 1) << probe.err;
    if (c.failureLine)
      EXPECT_TRUE(Matches(probe.err, c.failureLine)) << probe.err;
    else
      EXPECT_FALSE(Matches(probe.err, "ValidShareWrite failed")) << probe.err;
    EXPECT_FALSE(Matches(probe.err, "Change permission failed|ERROR: ~?IF_RUN_AS")) << probe.err;
    // The validation ran as root and the guard put the ids back.
    EXPECT_EQ(Sorted(probe.report["uids"]), std::vector<unsigned int>(3, 0));
    EXPECT_EQ(Sorted(probe.report["gids"]), std::vector<unsigned int>(3, 0));
  }
}

TEST_F(LoginTest, FiveWrongPasswordsThrottleEvenTheRightOne) {
  for (int attempt = 1; attempt <= 5; ++attempt)
    EXPECT_EQ(Login("bob", "wrong-" + std::to_string(attempt)).report["result"], -1) << attempt;
  const Probe throttled = Login("bob", "bob-pw");
  EXPECT_EQ(throttled.report["result"], -8) << throttled.err;
  const std::string wait = throttled.report["out"].asString();
  ASSERT_TRUE(Matches(wait, "^[0-9]{1,2}$")) << wait;
  EXPECT_GE(std::stoi(wait), 55);  // the first lock is a minute
  EXPECT_LE(std::stoi(wait), 60);
  EXPECT_NE(
      throttled.err.find("login: user=bob client=127.0.0.1 result=throttled retry_after=" + wait),
      std::string::npos)
      << throttled.err;
  EXPECT_EQ(throttled.report["cookies"], Json::Value(Json::objectValue));
  // The lock is bob's, not the address's.
  EXPECT_EQ(Login("alice", "alice-pw").report["result"], 1);
}

TEST_F(LoginTest, PamConfLoginConvertsTheNameAndUsesItsOwnService) {
  const struct {
    const char *user, *password;
    int want;
    const char *wantConfUser, *wantLoginUser;  // the first is written back into the PamConf
  } cases[] = {
      {"BOB", "other-pw", 1, "bob", "bob"},
      {"bob", "bob-pw", -1, "bob", ""},  // the password of "webui", not of the conf's service
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.user);
    const Probe probe = Run("pam", {{"PROBE_USER", c.user},
                                    {"PROBE_PASSWORD", c.password},
                                    {"PROBE_PAM_SERVICE", "probepam"},
                                    {"PROBE_PAM_DIR", (root() / "pam-other").string()}});
    EXPECT_EQ(probe.report["result"], c.want) << probe.err;
    EXPECT_EQ(probe.report["pamUser"], c.wantConfUser);
    EXPECT_EQ(probe.report["user"], c.wantLoginUser);
  }
}

TEST_F(LoginTest, LoginNeverReusesTheSessionTheRequestCarriedAndLogoutEndsItOnce) {
  const std::string old = BobSession()["sid"].asString();
  const Probe again = Login("bob", "bob-pw", {{"HTTP_COOKIE", "id=" + old}});
  ASSERT_EQ(again.report["result"], 1) << again.err;
  const std::string sid = again.report["sid"].asString();
  EXPECT_EQ(sid.size(), 43u);
  EXPECT_NE(sid, old);
  EXPECT_EQ(again.report["cookies"]["id"], SessionCookie(sid));

  // The second time the session is unknown; the browser should forget it anyway.
  for (const auto& [want, line] :
       {std::pair(true, R"(logout: user=\S+ client=127\.0\.0\.1 result=success)"),
        std::pair(false, R"(logout: user=\S+ client=127\.0\.0\.1 result=unknown)")}) {
    const Probe logout = Run("logout", {{"HTTP_COOKIE", "id=" + sid}});
    EXPECT_EQ(logout.report["result"], want) << logout.err;
    EXPECT_EQ(logout.report["cookies"]["id"], "id=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
    EXPECT_TRUE(Matches(logout.err, line)) << logout.err;
    EXPECT_EQ(Check(sid), -2);
  }
  const Probe none = Run("logout", {});
  EXPECT_EQ(none.report["result"], false);
  EXPECT_EQ(none.report["cookies"], Json::Value(Json::objectValue));
}

TEST_F(LoginTest, LogoutTakesTheSidParameterEvenEmptyBeforeTheCookie) {
  const std::string bogus(43, 'B');
  // _sid=<session> with a bogus cookie; else an empty _sid with the session's cookie.
  for (const bool sidInParameter : {false, true}) {
    SCOPED_TRACE(sidInParameter ? "_sid of the session" : "empty _sid");
    const std::string sid = BobSession()["sid"].asString();
    const Probe logout = Run("logout", {{"QUERY_STRING", "_sid=" + (sidInParameter ? sid : "")},
                                        {"HTTP_COOKIE", "id=" + (sidInParameter ? bogus : sid)}});
    EXPECT_EQ(logout.report["result"], sidInParameter) << logout.err;
    EXPECT_EQ(Check(sid), sidInParameter ? -2 : 1);
  }
}

TEST_F(LoginTest, StateChangingCheckNeedsTheTokenOrTheServersOwnOrigin) {
  const Json::Value session = BobSession();
  const std::string sid = session["sid"].asString();
  std::string token = session["out"].asString();
  ASSERT_EQ(token.size(), 32u);
  std::string otherToken = token;
  otherToken.back() = otherToken.back() == 'A' ? 'B' : 'A';

  struct Case {
    const char *name, *method;
    std::string token;   // X-Mero-Token; empty: none
    const char* origin;  // null: none
    int want;
  };
  const Case cases[] = {
      {"GET needs nothing", "GET", "", nullptr, 1},
      {"HEAD needs nothing", "HEAD", "", nullptr, 1},
      {"bare POST", "POST", "", nullptr, -8},
      {"POST with the token", "POST", token, nullptr, 1},
      {"POST with another token", "POST", otherToken, nullptr, -8},
      {"POST from the own origin", "POST", "", "http://admin.example", 1},
      {"POST from the own origin, port spelled", "POST", "", "http://admin.example:80", 1},
      {"POST from the own origin, other case", "POST", "", "HTTP://Admin.Example", 1},
      {"POST from another origin", "POST", "", "http://evil.example", -8},
      {"POST from the https origin of an http request", "POST", "", "https://admin.example", -8},
      {"POST from a longer host", "POST", "", "http://admin.example.evil", -8},
  };
  const std::string body = "x=1";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Env env = {{"REQUEST_METHOD", c.method},
               {"HTTP_COOKIE", "id=" + sid},
               {"HTTP_HOST", "admin.example"},
               {"QUERY_STRING", ""}};
    const bool post = std::string(c.method) == "POST";
    if (post) env["CONTENT_LENGTH"] = std::to_string(body.size());
    if (!c.token.empty()) env["HTTP_X_MERO_TOKEN"] = c.token;
    if (c.origin) env["HTTP_ORIGIN"] = c.origin;
    const Probe check = Run("check", env, post ? body : "");
    EXPECT_EQ(check.report["result"], c.want) << check.err;
    EXPECT_EQ(check.report["user"], "bob");
  }

  // Without csrf_protection the rule is off.
  const Probe dave = Login("DOM\\dave", "dave-pw", {{"PROBE_SESSION", kDomainName}});
  ASSERT_EQ(dave.report["result"], 1) << dave.err;
  const Probe post = Run("check", {{"PROBE_SESSION", kDomainName}, {"REQUEST_METHOD", "POST"},
                                   {"CONTENT_LENGTH", std::to_string(body.size())},
                                   {"HTTP_COOKIE", "id=" + dave.report["sid"].asString()}},
                         body);
  EXPECT_EQ(post.report["result"], 1) << post.err;
}

TEST_F(LoginTest, SwitchingTakesTheUsersIdsAndOnlySetEugidKeepsRootReachable) {
  if (!IsRoot()) GTEST_SKIP() << "switching ids needs root";
  struct Case {
    const char *action, *user, *password;
    std::vector<unsigned int> uids, gids, groups;  // real, effective, saved
  };
  const Case cases[] = {
      {"switch", "bob", "bob-pw", {0, 1002, 0}, {0, 1002, 0}, {1002}},
      // An administrator stays root, with the administrator's own group.
      {"switch", "alice", "alice-pw", {0, 0, 0}, {0, 1001, 0}, {1001, 2000}},
      {"permanent", "bob", "bob-pw", {1002, 1002, 1002}, {1002, 1002, 1002}, {1002}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.action) + " " + c.user);
    const Probe login = Login(c.user, c.password);
    ASSERT_EQ(login.report["result"], 1) << login.err;
    const Probe probe = Run(c.action, {{"HTTP_COOKIE", "id=" + login.report["sid"].asString()}});
    const Json::Value& report = probe.report;
    EXPECT_EQ(report["check"], 1) << probe.err;
    EXPECT_EQ(report["result"], 0) << probe.err;
    EXPECT_EQ(Ids(report["uids"]), c.uids);
    EXPECT_EQ(Ids(report["gids"]), c.gids);
    EXPECT_EQ(Sorted(report["groups"]), c.groups);
    EXPECT_EQ(report["backToRoot"], std::string(c.action) == "switch");
  }
}

TEST_F(LoginTest, SwitchWithoutSessionFailsWithItsLogLineAndKeepsTheIds) {
  const std::vector<unsigned int> start(3, geteuid());
  for (const auto& [action, line] : {std::pair("switch", R"(WebCGI\.cpp:\d+ Bad parameter)"),
                                     std::pair("permanent", R"(WebCGI\.cpp:\d+ bad parameter)")}) {
    SCOPED_TRACE(action);
    const Probe probe = Run(action, {});
    EXPECT_EQ(probe.report["check"], -5);
    EXPECT_EQ(probe.report["result"], -1);
    EXPECT_TRUE(Matches(probe.err, line)) << probe.err;
    EXPECT_EQ(Sorted(probe.report["uids"]), start);
  }
}

TEST_F(LoginTest, RealUsernameIsTheAccountNameAskedAsRoot) {
  struct Case {
    const char *name, *want;
    bool dropRoot;    // give up root for good first: the guard cannot switch
    const char* log;  // pattern; null: no failure line
  };
  const Case cases[] = {
      {"guest", "guest", false, nullptr},
      {"", "", false, nullptr},
      {"BOB", "bob", false, nullptr},
      {"NOBODY-HERE", "NOBODY-HERE", false, nullptr},
      {"BOB", "BOB", true, R"(WebCGI\.cpp:\d+ Run as failed\.)"},
      {"guest", "guest", true, nullptr},  // never switches, so never fails
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + (c.dropRoot ? " without root" : ""));
    if (c.dropRoot && !IsRoot()) continue;
    Env env = {{"PROBE_USER", c.name}};
    if (c.dropRoot) env["PROBE_DROP_IDS"] = "1002:1002";
    const Probe probe = Run("realname", env);
    EXPECT_EQ(probe.report["result"], c.want) << probe.err;
    if (c.log) {
      EXPECT_TRUE(Matches(probe.err, c.log)) << probe.err;
      EXPECT_TRUE(Matches(probe.err, R"(:\d+ ERROR: IF_RUN_AS\(0, 0\))")) << probe.err;
    } else {
      EXPECT_FALSE(Matches(probe.err, "Run as failed|IF_RUN_AS")) << probe.err;
    }
  }
}

}  // namespace
