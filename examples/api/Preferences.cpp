// Demo.Preferences: the logged-in user's own preferences, kept in the
// file "usersettings" of their preference directory.
//
//   method=get  -> {"data":{"language":"en","theme":"light"},"success":true}
//   method=set  theme=dark&language=de -> the saved preferences; invalid
//               values: {"error":{"code":120,"errors":{"theme":"light or dark"}},...}
#include <fcntl.h>
#include <unistd.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>
#include <webapi/WebAPIUtil.h>

#include <strings.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

constexpr int kErrorInvalid = 120;
constexpr int kErrorNotSaved = 121;

const std::set<std::string> kLanguages = {"en", "de", "fr", "it", "es", "nl", "pl",
                                          "pt", "ru", "ja", "ko", "zh-CN", "zh-TW"};

class PreferencesApi : public MERO::WebAPI {
 public:
  PreferencesApi() : WebAPI("preferences.api", "demo") { cgi.AddSecurityHeaders("default"); }

  void HandleRequest() override {
    if (strcasecmp(method, "get") == 0) return Get();
    if (strcasecmp(method, "set") == 0) return Set();
    SetError(103);
  }

 private:
  // The saved preferences over the defaults; a value of the wrong kind
  // (a hand-edited file) is ignored.
  Json::Value Load() {
    Json::Value preferences, saved;
    preferences["theme"] = "light";
    preferences["language"] = cgi.GetUILanguage();
    if (!cgi.loadUserJsonSettings(saved) || !saved.isObject()) return preferences;
    for (const char* key : {"theme", "language"})
      if (saved[key].isString()) preferences[key] = saved[key];
    return preferences;
  }

  void Get() {
    Json::Value preferences = Load();
    SetResponse(preferences);
  }

  void Set() {
    Json::Value preferences = Load(), errors(Json::objectValue);
    if (const char* theme = cgi.In("theme", nullptr)) {
      if (std::string(theme) == "light" || std::string(theme) == "dark")
        preferences["theme"] = theme;
      else
        errors["theme"] = "light or dark";
    }
    if (const char* language = cgi.In("language", nullptr)) {
      if (kLanguages.count(language))
        preferences["language"] = language;
      else
        errors["language"] = "one of the offered languages";
    }
    if (!errors.empty()) return SetError(kErrorInvalid, errors);
    if (!Save(preferences)) return SetError(kErrorNotSaved);
    SetResponse(preferences);
  }

  // Written through a descriptor that refuses a link the user may have put
  // in place of the file.
  bool Save(Json::Value& preferences) {
    const std::string dir = cgi.GetPreferenceDir();
    if (dir == "/tmp") return false;  // no directory of the user's own
    const std::string path = dir + "/usersettings";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    char throughDescriptor[64];
    std::snprintf(throughDescriptor, sizeof throughDescriptor, "/proc/self/fd/%d", fd);
    const bool saved = MERO::WebAPIUtil::SaveJsonFile(preferences, throughDescriptor);
    ::close(fd);
    return saved;
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<PreferencesApi>(argc, argv); }
