// Accounts, groups and the identity of a session's user on the Linux
// platform. The accounts are nss_wrapper's (tests/data/identity/); their
// home directories are made here under IDENTITY_HOMES, in the build
// directory, and removed again. Owners and id switches need root: those
// cases are skipped otherwise.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"
#include "merocgi.h"
#include "merocore.h"
#include "merosdk.h"

namespace {

namespace fs = std::filesystem;

class IdentityTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    fs::remove_all(IDENTITY_HOMES);
    fs::create_directories(IDENTITY_HOMES);
  }
  void TearDown() override {
    fs::remove_all(IDENTITY_HOMES);
    ApplianceRootTest::TearDown();
  }

  // A fresh home directory `name` with the owner and mode given.
  static void MakeHome(const std::string& name, uid_t uid, gid_t gid, mode_t mode) {
    const std::string path = std::string(IDENTITY_HOMES) + "/" + name;
    fs::remove_all(path);
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0) << path;
    ASSERT_EQ(::chown(path.c_str(), uid, gid), 0) << path << ": " << std::strerror(errno);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
  }

  static std::string CreateSession(const char* registry, const char* user) {
    char id[MERO_CGI_SESSION_ID_CHARS + 1] = {};
    EXPECT_EQ(MeroCgiSessionCreate(registry, user, "192.0.2.1", 3600, nullptr, 0, id, sizeof id),
              MERO_SESSION_AUTHORIZED);
    return id;
  }
};

bool HasIds(uid_t uid, gid_t gid) {
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  return ::getresuid(&ruid, &euid, &suid) == 0 && ::getresgid(&rgid, &egid, &sgid) == 0 &&
         ruid == uid && euid == uid && suid == uid && rgid == gid && egid == gid && sgid == gid;
}

TEST_F(IdentityTest, AdminGroupMembershipFollowsTheConfiguredGroup) {
  struct Case {
    const char *settings, *user;  // settings null: no settings file
    int want, wantError;
  };
  const Case cases[] = {
      {nullptr, "alice", 1, MERO_ERR_NONE},      // supplementary
      {nullptr, "DOM\\dave", 1, MERO_ERR_NONE},  // primary
      {nullptr, "bob", 0, MERO_ERR_NONE},
      {"admin_group=\"operators\"\n", "erin@example.com", 1, MERO_ERR_NONE},  // its 42nd group
      {"admin_group=\"operators\"\n", "alice", 0, MERO_ERR_NONE},
      {"admin_group=\"\"\n", "alice", 1, MERO_ERR_NONE},
      {"admin_group=\"nosuchgroup\"\n", "alice", 0, MERO_ERR_NONE},
      {nullptr, "nosuchuser", 0, MERO_ERR_NONE},
      {nullptr, "", -1, MERO_ERR_INVALID_ARGUMENT},
      {nullptr, nullptr, -1, MERO_ERR_INVALID_ARGUMENT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.settings ? c.settings : "(default) ") + (c.user ? c.user : "null"));
    fs::remove(root() / "etc/meroinfo.conf");
    if (c.settings) webapi_test::WriteRootFile("etc/meroinfo.conf", c.settings);
    MLIBCErrSetEx(MERO_ERR_NONE, "", 0);
    EXPECT_EQ(MLIBGroupIsAdminGroupMem(c.user, 0), c.want);
    if (c.want < 0) {
      EXPECT_EQ(MLIBCErrGet(), c.wantError);
    }
  }
}

TEST_F(IdentityTest, LoginNamesConvertToAccountNames) {
  struct Case {
    const char* name;
    int size, want;
    const char* wantName;
  };
  const Case cases[] = {
      {"bob", 64, 3, "bob"},
      {"BoB", 64, 3, "bob"},
      {"Carol", 64, 5, "Carol"},  // the name as given wins over lower case
      {"DOM\\dave", 64, 8, "DOM\\dave"},
      {"Erin@Example.COM", 64, 16, "erin@example.com"},
      {"nosuchuser", 64, 0, ""},
      {"bob", 4, 3, "bob"},
      {"bob", 3, -1, ""},  // no room for the terminating NUL
      {"", 64, -1, ""},
      {"a/b", 64, -1, ""},
      {".", 64, -1, ""},
      {"..", 64, -1, ""},
      {"bo\tb", 64, -1, ""},
      {"bob\x7f", 64, -1, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " in " + std::to_string(c.size));
    char buf[64];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(MEROUserLoginNameConvert(c.name, buf, c.size), c.want);
    EXPECT_STREQ(buf, c.wantName);
  }
  char buf[8] = "x";
  EXPECT_EQ(MEROUserLoginNameConvert(nullptr, buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(MEROUserLoginNameConvert("bob", nullptr, 8), -1);
  EXPECT_EQ(MEROUserLoginNameConvert("bob", buf, 0), -1);
}

TEST_F(IdentityTest, IdsAreGivenForALiveSessionOfThatUserOnly) {
  const std::string unknown(MERO_CGI_SESSION_ID_CHARS, 'A');
  EXPECT_EQ(MeroCgiUIDGet(unknown.c_str(), "alice"), -1);  // no store yet

  const std::string alice = CreateSession("test", "alice");
  const std::string dave = CreateSession("other", "DOM\\dave");
  const std::string bob = CreateSession("test", "bob");
  const std::string ghost = CreateSession("test", "ghost");  // no such account
  struct Case {
    const char *label, *sid, *user;
    int wantUid, wantGid;
  };
  const Case cases[] = {
      {"own session", alice.c_str(), "alice", 1001, 1001},
      {"another registry", dave.c_str(), "DOM\\dave", 1003, 2000},
      {"another user's session", bob.c_str(), "alice", -1, -1},
      {"user in another case", alice.c_str(), "Alice", -1, -1},
      {"unknown session", unknown.c_str(), "alice", -1, -1},
      {"not an id", "abc", "alice", -1, -1},
      {"no such account", ghost.c_str(), "ghost", -1, -1},
      {"null sid", nullptr, "alice", -1, -1},
      {"null user", alice.c_str(), nullptr, -1, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(MeroCgiUIDGet(c.sid, c.user), c.wantUid);
    EXPECT_EQ(MeroCgiGIDGet(c.sid, c.user), c.wantGid);
  }
}

TEST_F(IdentityTest, SwitchingSetsAllThreeIdsForGood) {
  if (::geteuid() != 0) GTEST_SKIP() << "switching ids needs root";
  const std::string dave = CreateSession("test", "DOM\\dave");
  const std::string bob = CreateSession("test", "bob");
  // Each child tells the first step that went wrong.
  EXPECT_EQ(webapi_test::InChild([&] {
              if (MeroCgiGidSet(dave.c_str(), "DOM\\dave") != 0) return "gid set";
              if (MeroCgiUidSet(dave.c_str(), "DOM\\dave") != 0) return "uid set";
              if (!HasIds(1003, 2000)) return "ids";
              if (::setresuid(0, 0, 0) == 0) return "back to root";
              return "";
            }),
            "");
  EXPECT_EQ(webapi_test::InChild([&] {
              if (MeroCgiGidSet(bob.c_str(), "DOM\\dave") != -1 || errno != ENOENT) return "gid set";
              if (MeroCgiUidSet(bob.c_str(), "DOM\\dave") != -1 || errno != ENOENT) return "uid set";
              if (!HasIds(0, ::getgid())) return "ids";
              return "";
            }),
            "");
}

TEST_F(IdentityTest, ShareWriteNeedsAHomeTheAccountMayWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "giving homes to test accounts needs root";
  MakeHome("alice", 1001, 1001, 0700);
  MakeHome("dave", 1003, 0, 0577);  // group and others may write, its owner may not
  MakeHome("erin", 0, 3000, 0770);  // operators, its 42nd group
  MakeHome("root", 1002, 1002, 0500);
  std::ofstream(std::string(IDENTITY_HOMES) + "/carol") << "a file, not a directory";
  const std::pair<const char*, int> users[] = {
      {"alice", 0},  {"bob", -2}, {"DOM\\dave", -3},  {"erin@example.com", 0},
      {"Carol", -2}, {"root", 0}, {"nosuchuser", -1}, {nullptr, -1},
  };
  for (const auto& [user, want] : users) {
    SCOPED_TRACE(user ? user : "null");
    EXPECT_EQ(MeroCgiDomValidShareWrite(user, "login output"), want);
    EXPECT_EQ(MeroCgiLDAPValidShareWrite(user, nullptr), want);
  }

  const struct {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    int want;
  } modes[] = {
      {1006, 1006, 0300, 0}, {1006, 1006, 0600, -3},  // the owner needs search too
      {0, 1006, 0070, 0},    {0, 1006, 0060, -3},    {0, 2000, 0070, -3},  // not its group
      {0, 0, 0007, 0},       {0, 0, 0776, -3},
  };
  for (const auto& m : modes) {
    SCOPED_TRACE(::testing::Message() << m.uid << ":" << m.gid << " mode " << std::oct << m.mode);
    MakeHome("frank", m.uid, m.gid, m.mode);
    EXPECT_EQ(MeroCgiDomValidShareWrite("frank", nullptr), m.want);
  }
}

}  // namespace
