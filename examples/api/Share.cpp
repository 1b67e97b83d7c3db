// Demo.Share: the demo's files, read-only, for a logged-in user or through
// a sharing link (made with webapi-share; the link's item is a path under
// the demo's files, <root>/var/lib/webapi-demo/files). Every call names the
// folder or file in "path"; a link admits only its item and what lies
// below it (the sharing checker sees to that).
//
//   Demo.Share      method=list      path=/docs
//                   -> {"data":{"path":"/docs","items":[{"name":"a.txt",
//                       "type":"file","size":12},...]},...}
//                   method=download  path=/docs/a.txt (a download method:
//                   the file itself, as an attachment)
//   Demo.ShareLink  method=get (through a link; no checker, it names no
//                   item) -> {"data":{"item":"/docs"},...}: where the
//                   visitor's page starts
//   Demo.ShareAuth  method=unlock    password=... (POST, with the link id in
//                   _sharing_id or X-Mero-Sharing; no session needed)
//                   proves a link's password: sets the sharing session
//                   cookie (HttpOnly, SameSite=Strict, Secure on https)
//                   -> {"success":true}
//
// Through a link, refusals answer the sharing codes (WebAPI.h: 122 expired,
// 123 disabled, 124 used up, 125 password needed, 126 no such link, 127
// not covered by the link); unlock answers 401 for a wrong password, 429
// with "retry_after" when throttled, and the link's own refusal codes.
// Other errors: 400 a path that is not absolute or holds "." or "..",
// 404 no such file or folder.
#include <dirent.h>
#include <fcntl.h>
#include <merocore.h>
#include <merosharing.h>
#include <sys/stat.h>
#include <unistd.h>
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kErrorBadPath = 400;
constexpr int kErrorWrongPassword = 401;
constexpr int kErrorNotFound = 404;
constexpr int kErrorThrottled = 429;
constexpr int kErrorUnavailable = 503;

std::string FilesRoot() { return std::string(MeroApplianceRoot()) + "/var/lib/webapi-demo/files"; }

// An absolute path with no empty, "." or ".." component ("/" itself too).
bool IsCleanPath(const std::string& path) {
  MERO::sharing::record::Entry everything;
  everything.item = "/";
  return everything.Covers(path);
}

class ShareApi : public MERO::WebAPI {
 public:
  ShareApi() : WebAPI("share.api", "demo") { cgi.AddSecurityHeaders("default"); }

  void HandleRequest() override {
    if (std::strcmp(api, "Demo.ShareAuth") == 0) return Unlock();
    if (std::strcmp(api, "Demo.ShareLink") == 0) {
      Json::Value data;
      data["item"] = cgi.GetSharingEntry().item;
      return SetResponse(data);
    }
    const char* path = cgi.In("path", nullptr);
    if (!path || !IsCleanPath(path)) return Fail(kErrorBadPath);
    if (strcasecmp(method, "list") == 0) return List(path);
    Download(path);
  }

 private:
  bool IsUnlock() const { return std::strcmp(api, "Demo.ShareAuth") == 0; }
  bool IsDownload() const { return strcasecmp(method, "download") == 0; }

  // Proving a password needs neither a session nor a proven link.
  bool CheckPermission() override {
    if (IsUnlock() || MERO::WebAPI::CheckPermission()) return true;
    if (IsDownload()) OutputResponse();  // the pipeline prints nothing for a download
    return false;
  }
  bool CheckSharingPermission() override {
    if (IsUnlock() || MERO::WebAPI::CheckSharingPermission()) return true;
    if (IsDownload()) OutputResponse();
    return false;
  }

  void Fail(int code) {
    SetError(code);
    if (IsDownload()) OutputResponse();
  }

  void List(const std::string& path) {
    const std::string folder = FilesRoot() + path;
    DIR* directory = opendir(folder.c_str());
    if (!directory) return Fail(kErrorNotFound);
    std::vector<std::pair<std::string, struct stat>> found;
    for (dirent* entry; (entry = readdir(directory));) {
      struct stat info;
      if (entry->d_name[0] == '.' ||
          fstatat(dirfd(directory), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        continue;
      if (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)) found.emplace_back(entry->d_name, info);
    }
    closedir(directory);
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    Json::Value data;
    data["path"] = path;
    data["items"] = Json::Value(Json::arrayValue);
    for (const auto& [name, info] : found) {
      Json::Value item;
      item["name"] = name;
      item["type"] = S_ISDIR(info.st_mode) ? "folder" : "file";
      if (S_ISREG(info.st_mode)) item["size"] = static_cast<Json::Int64>(info.st_size);
      data["items"].append(item);
    }
    SetResponse(data);
  }

  void Download(const std::string& path) {
    // Never through a link planted in the files: O_NOFOLLOW on the last
    // component, and only regular files.
    const int fd = open((FilesRoot() + path).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      if (fd >= 0) close(fd);
      return Fail(kErrorNotFound);
    }
    const std::string name = path.substr(path.rfind('/') + 1);
    std::string safeName;
    for (char c : name) safeName += (c == '"' || c == '\\') ? '_' : c;
    cgi.AddHeader("Content-Disposition", ("attachment; filename=\"" + safeName + "\"").c_str());
    cgi.WriteHeader("application/octet-stream");
    std::fflush(stdout);
    char buffer[65536];
    for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
      if (std::fwrite(buffer, 1, static_cast<size_t>(got), stdout) != static_cast<size_t>(got)) break;
    close(fd);
  }

  void Unlock() {
    const char* password = cgi.In("password", "");
    const char* client = std::getenv("REMOTE_ADDR");
    const std::string link = cgi.GetSharingID(), current = cgi.GetSharingSID();
    char sid[MERO_SHARING_ID_CHARS + 1];
    int retryAfter = 0;
    const int result = MeroSharingSessionOpen(link.c_str(), password, client ? client : "",
                                              current.c_str(), sid, sizeof sid, &retryAfter);
    if (result == MERO_SHARING_OPENED) {
      cgi.AddCookieToHeader("/", MERO::sharing::SZK_SHARING_SID, sid);
      Json::Value none;
      return SetResponse(none);
    }
    if (result == MERO_SHARING_THROTTLED) {
      Json::Value detail;
      detail["retry_after"] = retryAfter;
      return SetError(kErrorThrottled, detail);
    }
    switch (result) {
      case MERO_SHARING_WRONG_PASSWORD: return SetError(kErrorWrongPassword);
      case MERO_SHARING_EXPIRED: return SetError(122);
      case MERO_SHARING_DISABLED: return SetError(123);
      case MERO_SHARING_USED_UP: return SetError(124);
      case MERO_SHARING_UNKNOWN_LINK:
      case MERO_SHARING_INVALID: return SetError(126);
      default: return SetError(kErrorUnavailable);
    }
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<ShareApi>(argc, argv); }
