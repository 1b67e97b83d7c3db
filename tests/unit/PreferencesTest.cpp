// Preference directories and the user's settings document, on the real
// platform under a temporary appliance root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "ApplianceRootEnv.h"
#include "cgi/WebCGIPrivate.h"
#include "merosdk.h"

namespace {

namespace fs = std::filesystem;

class PreferencesTest : public webapi_test::ApplianceRootTest {
 protected:
  std::string UserDir(const std::string& user) {
    return (root() / "var/lib/merosdk/preferences/users" / user).string();
  }
};

TEST_F(PreferencesTest, DirectoriesAreMadeOnFirstUseOrTheAnswerIsTmp) {
  MERO::WebCGI cgi("nosuchname", false);
  struct Case {
    const char* user;
    std::string want;
  };
  const Case cases[] = {
      {"alice", UserDir("alice")},  {"DOM\\dave", UserDir("DOM\\dave")},
      {"", "/tmp"},                 {"..", "/tmp"},
      {"a/b", "/tmp"},              {"bad\nname", "/tmp"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.user);
    MERO::WebCGIPrivate::Of(cgi).loginUser = c.user;
    EXPECT_EQ(cgi.GetPreferenceDir(), c.want);
  }
  struct stat st;
  ASSERT_EQ(::lstat(UserDir("alice").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(cgi.GetGroupPreferenceDir("staff"),
            (root() / "var/lib/merosdk/preferences/groups/staff").string());
  EXPECT_EQ(cgi.GetGroupPreferenceDir(".."), "/tmp");
  EXPECT_EQ(cgi.GetGroupPreferenceDir(nullptr), "/tmp");
  // A path too long for the caller's buffer is refused whole.
  char small[8];
  EXPECT_EQ(MEROUserPreferenceDirGet("alice", small, sizeof small), -1);
  EXPECT_STREQ(small, "");
}

TEST_F(PreferencesTest, SettingsAreReadButNeverThroughALink) {
  MERO::WebCGI cgi("nosuchname", false);
  MERO::WebCGIPrivate::Of(cgi).loginUser = "bob";
  const std::string dir = cgi.GetPreferenceDir();
  Json::Value settings;
  EXPECT_FALSE(cgi.loadUserJsonSettings(settings));  // the directory holds no file yet

  webapi_test::WriteRootFile("elsewhere.json", R"({"theme":"planted"})");
  fs::create_symlink(root() / "elsewhere.json", dir + "/usersettings");
  EXPECT_FALSE(cgi.loadUserJsonSettings(settings));

  fs::remove(dir + "/usersettings");
  webapi_test::WriteRootFile(
      fs::relative(dir + "/usersettings", root()).string(), R"({"theme":"dark"})");
  ASSERT_TRUE(cgi.loadUserJsonSettings(settings));
  EXPECT_EQ(settings["theme"].asString(), "dark");

  // A directory that was replaced by a link is not used either.
  fs::remove_all(UserDir("carol"));
  fs::create_directories(root() / "target");
  fs::create_symlink(root() / "target", UserDir("carol"));
  MERO::WebCGIPrivate::Of(cgi).loginUser = "carol";
  EXPECT_EQ(cgi.GetPreferenceDir(), "/tmp");
}

}  // namespace
