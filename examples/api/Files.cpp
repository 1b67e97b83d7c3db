// Demo.Files: receives uploaded files, of any size, into the demo's files
// directory, and lists them.
//
//   method=upload  a multipart POST (api, method and version in the query
//                  string or as the body's first fields, then the files):
//                  each file is stored under its own name, never over a
//                  file already there, with a progress line in syslog per
//                  tenth of the body received.
//                  -> {"data":{"files":[{"name":"a.txt","size":12}]},"success":true}
//                  A refused upload keeps the files stored before the
//                  refusal and answers
//                  {"error":{"code":130,"errors":{"files":[...],"reason":"exists"}},...}
//                  (reasons: too large, incomplete, malformed, exists, not
//                  stored); a POST that is no upload answers 131.
//   method=list    -> {"data":{"files":[{"name":"a.txt","size":12},...]},...}
//
// The upload hook runs before the request is validated or its session
// checked, so it checks the session itself before reading a byte, and
// reads the body's fields before any file, so that only an upload request
// of this API receives files.
#include <merocgi.h>
#include <merocore.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>

#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int kErrorUploadRefused = 130;
constexpr int kErrorNotAnUpload = 131;
constexpr int kProgressSteps = 10;

std::string FilesDir() { return std::string(MeroApplianceRoot()) + "/var/lib/webapi-demo/files"; }

// One line per tenth of the body: the callback has no context argument, so
// the last tenth logged is kept here (one upload per process).
int loggedTenth = -1;
void LogProgress(unsigned long long received, unsigned long long total) {
  const int tenth = total ? static_cast<int>(received * kProgressSteps / total) : kProgressSteps;
  if (tenth == loggedTenth) return;
  loggedTenth = tenth;
  syslog(LOG_INFO, "Demo.Files: %llu of %llu bytes received (%d%%)", received, total,
         tenth * 100 / kProgressSteps);
}

const char* ReasonOf(int platformError) {
  switch (platformError) {
    case MERO_ERR_REQUEST_TOO_LARGE: return "too large";
    case MERO_ERR_REQUEST_INCOMPLETE: return "incomplete";
    case MERO_ERR_REQUEST_MALFORMED: return "malformed";
    case MERO_ERR_EXISTS: return "exists";
    default: return "not stored";
  }
}

Json::Value FileEntry(const std::string& name, unsigned long long size) {
  Json::Value entry;
  entry["name"] = name;
  entry["size"] = static_cast<Json::UInt64>(size);
  return entry;
}

class FilesApi : public MERO::WebAPI {
 public:
  FilesApi() : WebAPI("files.api", "demo") { cgi.AddSecurityHeaders("default"); }

  void HandleRequest() override {
    if (strcasecmp(method, "upload") == 0) return Upload();
    if (strcasecmp(method, "list") == 0) return List();
    SetError(103);  // described in files.api but not handled here
  }

  void HandleUploadFile() override {
    if (CheckAuthorized() <= 0) return;  // the pipeline answers the refusal
    received_ = true;
    CGI_UPLOAD_PROGRESS record{};
    char field[MERO_CGI_UPLOAD_TEXT_BYTES], name[MERO_CGI_UPLOAD_TEXT_BYTES],
        type[MERO_CGI_UPLOAD_TEXT_BYTES];
    int next = cgi.LoadUploadParams(LogProgress, &record, field, sizeof field, name, sizeof name,
                                    type, sizeof type);
    const char* apiText = cgi.In("api", "");
    const char* methodText = cgi.In("method", "");
    if (next > 0 && (strcasecmp(apiText, "Demo.Files") != 0 || strcasecmp(methodText, "upload") != 0))
      return;  // not ours to store: the files stay unread
    ::mkdir(FilesDir().c_str(), 0700);
    while (next > 0) {
      const std::string stored = name;
      unsigned long long written = 0;
      next = cgi.LoadUploadFileNoTruncate((FilesDir() + "/" + stored).c_str(), LogProgress, &record,
                                          nullptr, field, name, type, &written, nullptr);
      if (next >= 0) files_.append(FileEntry(stored, written));
    }
    if (next < 0) uploadError_ = MLIBCErrGet();
  }

 private:
  void Upload() {
    if (!received_) return SetError(kErrorNotAnUpload);
    Json::Value data;
    data["files"] = files_;
    if (uploadError_ == 0) return SetResponse(data);
    data["reason"] = ReasonOf(uploadError_);
    SetError(kErrorUploadRefused, data);
  }

  void List() {
    std::vector<std::pair<std::string, unsigned long long>> entries;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(FilesDir(), error)) {
      const std::string name = entry.path().filename().string();
      std::error_code sizeError;
      const auto size = entry.file_size(sizeError);
      if (name[0] != '.' && entry.is_regular_file(sizeError) && !sizeError) entries.emplace_back(name, size);
    }
    std::sort(entries.begin(), entries.end());
    Json::Value data;
    data["files"] = Json::Value(Json::arrayValue);
    for (const auto& [name, size] : entries) data["files"].append(FileEntry(name, size));
    SetResponse(data);
  }

  bool received_ = false;
  int uploadError_ = 0;
  Json::Value files_{Json::arrayValue};
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<FilesApi>(argc, argv); }
