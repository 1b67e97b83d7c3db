// A CGI program on MERO::WebAPI for the pipeline tests. Its description and
// session name come from the environment:
//   PROBE_DESCRIPTION  description file name (default "probe.api")
//   PROBE_SESSION      session name (unset: null)
//   PROBE_NO_CHECK     set: Run(false)
//   PROBE_MAPS         set: after the request, every file mapped into the
//                      process is listed on stderr ("mapped <path>")
//   PROBE_UPLOAD       set: the upload hook receives the upload with
//                      LoadIn(that directory; "-": null), and the answer
//                      carries its result ("upload") and parameter "file"
// Methods: "get"/"list" answer what the handler saw (with the sharing link
// and session ids when the request carried either); "fail" answers error
// 400 with detail; "export" (a download method) prints its own output.
#include <syslog.h>

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "webapi/WebAPI.h"

namespace {

const char* EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value ? value : fallback;
}

class ProbeApi : public MERO::WebAPI {
 public:
  ProbeApi() : WebAPI(EnvOr("PROBE_DESCRIPTION", "probe.api"), std::getenv("PROBE_SESSION")) {}

  void HandleRequest() override {
    if (strcasecmp(method, "export") == 0) {
      std::fputs("Content-type: application/octet-stream\r\n\r\nexported bytes", stdout);
      return;
    }
    if (strcasecmp(method, "fail") == 0) {
      Json::Value detail;
      detail["name"] = "x";
      SetError(400, detail);
      return;
    }
    Json::Value seen;
    seen["api"] = api;
    seen["method"] = method;
    seen["version"] = version;
    seen["user"] = cgi.GetLoginUserName();
    seen["tokenLength"] = static_cast<int>(cgi.GetMeroToken().size());
    if (cgi.IsSharing() || !cgi.GetSharingSID().empty()) {
      seen["sharingId"] = cgi.GetSharingID();
      seen["sharingSid"] = cgi.GetSharingSID();
    }
    if (std::getenv("PROBE_UPLOAD")) {
      seen["upload"] = uploadResult;
      seen["file"] = cgi.In("file", "");
    }
    SetResponse(seen);
  }

  void HandleUploadFile() override {
    const char* dir = std::getenv("PROBE_UPLOAD");
    if (!dir) return MERO::WebAPI::HandleUploadFile();
    uploadResult = cgi.LoadIn(std::strcmp(dir, "-") == 0 ? nullptr : dir);
  }

 private:
  int uploadResult = 0;
};

}  // namespace

int main() {
  openlog("api_probe", LOG_PERROR, LOG_USER);
  ProbeApi probe;
  probe.Run(std::getenv("PROBE_NO_CHECK") == nullptr);
  if (std::getenv("PROBE_MAPS")) {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> objects;
    for (std::string line; std::getline(maps, line);)
      if (line.find('/') != std::string::npos) objects.insert(line.substr(line.find('/')));
    for (const std::string& object : objects) std::fprintf(stderr, "mapped %s\n", object.c_str());
  }
  return 0;
}
