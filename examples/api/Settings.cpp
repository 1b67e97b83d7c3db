// Demo.Settings: reads and saves a JSON settings file shared by every
// request, and offers it as a download.
//
//   method=get     -> {"data":{"refresh_seconds":30,"theme":"light","title":"My NAS"},...}
//   method=set     theme=dark&refresh_seconds=60 (form), or a JSON body with
//                  the same members (api, method and version then go in the
//                  query string); every field is checked before anything is
//                  saved: {"error":{"code":120,"errors":{"theme":"..."}},...}
//   method=export  (a download method: no envelope) the file itself, as an
//                  attachment
#include <merocore.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>
#include <webapi/WebAPIUtil.h>

#include <strings.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kErrorInvalidSettings = 120;
constexpr int kErrorNotSaved = 121;

std::string SettingsPath() {
  return std::string(MeroApplianceRoot()) + "/var/lib/webapi-demo/settings.json";
}

Json::Value Defaults() {
  Json::Value settings;
  settings["title"] = "My NAS";
  settings["theme"] = "light";
  settings["refresh_seconds"] = 30;
  return settings;
}

class SettingsApi : public MERO::WebAPI {
 public:
  SettingsApi() : WebAPI("settings.api", "demo") { cgi.AddSecurityHeaders("default"); }

  // Method names match without regard to letter case, as validation did.
  void HandleRequest() override {
    if (strcasecmp(method, "get") == 0) return Get();
    if (strcasecmp(method, "set") == 0) return Set();
    if (strcasecmp(method, "export") == 0) return Export();
    SetError(103);  // described in settings.api but not handled here
  }

 private:
  // Run writes nothing at all for a download method, not even a refusal, so
  // that the handler owns the whole output; answer a refused export here,
  // or the browser would get an empty response.
  bool CheckPermission() override {
    if (MERO::WebAPI::CheckPermission()) return true;
    if (strcasecmp(method, "export") == 0) OutputResponse();
    return false;
  }

  // The saved settings over the defaults: a missing file is a fresh device,
  // and a saved value of the wrong type (a hand-edited file) is ignored.
  Json::Value Load() {
    Json::Value settings = Defaults(), saved;
    if (!MERO::WebAPIUtil::ReadJsonFile(saved, SettingsPath().c_str()) || !saved.isObject())
      return settings;
    for (const std::string& key : settings.getMemberNames())
      if (saved.isMember(key) && saved[key].type() == settings[key].type()) settings[key] = saved[key];
    return settings;
  }

  void Get() {
    Json::Value settings = Load();
    SetResponse(settings);
  }

  // A field of the request, from a JSON body when there is one, else from
  // the form parameters (always text there).
  bool Field(const char* key, Json::Value* value) {
    if (Json::Value* json = cgi.In()) {
      if (!json->isMember(key)) return false;
      *value = (*json)[key];
      return true;
    }
    const char* text = cgi.In(key, nullptr);
    if (!text) return false;
    *value = text;
    return true;
  }

  void Set() {
    Json::Value settings = Load(), errors(Json::objectValue), value;
    if (Field("title", &value)) {
      if (!value.isString() || value.asString().empty() || value.asString().size() > 63)
        errors["title"] = "1 to 63 characters";
      else
        settings["title"] = value;
    }
    if (Field("theme", &value)) {
      if (!value.isString() || (value.asString() != "light" && value.asString() != "dark"))
        errors["theme"] = "light or dark";
      else
        settings["theme"] = value;
    }
    if (Field("refresh_seconds", &value)) {
      int seconds = 0;
      const bool number = value.isInt() || (value.isString() && MERO::WebAPIUtil::ParseInt(
                                                                    value.asCString(), &seconds));
      if (value.isInt()) seconds = value.asInt();
      if (!number || seconds < 5 || seconds > 3600)
        errors["refresh_seconds"] = "a whole number from 5 to 3600";
      else
        settings["refresh_seconds"] = seconds;
    }
    if (!errors.empty()) return SetError(kErrorInvalidSettings, errors);
    if (!MERO::WebAPIUtil::SaveJsonFile(settings, SettingsPath().c_str()))
      return SetError(kErrorNotSaved);
    // The theme also travels as a cookie, so pages are served in it before
    // any API call (HttpOnly, SameSite=Strict, Secure on https).
    cgi.AddCookieToHeader("/", "theme", settings["theme"].asCString());
    SetResponse(settings);
  }

  // A download method writes its whole answer itself.
  void Export() {
    Json::Value settings = Load();
    cgi.AddHeader("Content-Disposition", "attachment; filename=\"settings.json\"");
    cgi.WriteHeader("application/json");
    cgi.WriteBody(settings);
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<SettingsApi>(argc, argv); }
