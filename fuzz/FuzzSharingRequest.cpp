// A whole request through a sharing link, in process: parameters, the
// X-Mero-Sharing header, the sharing cookie and the client address reach
// the sharing context and the sharing check against a real store. Input:
// the query string, the Cookie header, the X-Mero-Sharing header and the
// client address, separated by '\n' (a missing field is an unset
// variable). "@OPEN@" stands for the id of a link without a password,
// "@LOCKED@" for one with a password, "@SID@" for the sharing session that
// proved it from 127.0.0.1.
// Properties: the handler runs exactly when the answer is a success; it
// runs only for the open link, or for the locked link with its session
// from its address; a refused sharing request carries a sharing code.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "FuzzCheck.h"
#include "FuzzRoot.h"
#include "merosharing.h"
#include "webapi/WebAPI.h"

namespace {

constexpr char kDescription[] = R"({
  "Fuzz.Shared": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]},
                  "allowSharing": true, "skipSharingAppCheck": true}})";

struct Setup {
  std::string open, locked, sid;
};

std::string NewLink(const char* password) {
  const char* apis[] = {"Fuzz.Shared"};
  MEROSHARING_LINK_INFO link{};
  link.item = "/";
  link.apis = apis;
  link.apiCount = 1;
  link.owner = "fuzz";
  link.enabled = 1;
  char id[MERO_SHARING_ID_CHARS + 1];
  if (MeroSharingLinkCreate(&link, password, id, sizeof id) != MERO_SHARING_AUTHORIZED) std::abort();
  return id;
}

const Setup& OnceSetUp() {
  static const Setup setup = [] {
    const std::string dir = MakeFuzzRoot("sharing");
    std::ofstream(dir + "/fuzzshare.api") << kDescription;
    std::ofstream(dir + "/fuzz.auth") << R"({"timeout": 30, "ip_checking": true})";
    Setup made{NewLink(nullptr), NewLink("fuzz-pass"), ""};
    char sid[MERO_SHARING_ID_CHARS + 1];
    if (MeroSharingSessionOpen(made.locked.c_str(), "fuzz-pass", "127.0.0.1", nullptr, sid,
                               sizeof sid, nullptr) != MERO_SHARING_OPENED)
      std::abort();
    made.sid = sid;
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    close(devNull);
    return made;
  }();
  return setup;
}

class FuzzApi : public MERO::WebAPI {
 public:
  FuzzApi() : WebAPI("fuzzshare.api", "fuzz") {}
  void HandleRequest() override {
    handled = true;
    Json::Value none;
    SetResponse(none);
  }
  std::string LinkId() { return cgi.GetSharingID(); }
  std::string SessionId() { return cgi.GetSharingSID(); }
  bool handled = false;
};

void ReplaceAll(std::string* text, const std::string& from, const std::string& to) {
  for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size()))
    text->replace(at, from.size(), to);
}

// The next '\n'-separated field; false when there is none left.
bool Field(const std::string& text, size_t* start, std::string* field) {
  if (*start > text.size()) return false;
  const size_t end = std::min(text.find('\n', *start), text.size());
  *field = text.substr(*start, end - *start);
  *start = end + 1;
  return true;
}

void SetOrUnset(const char* name, const std::string& value, bool present) {
  if (present && value.find('\0') == std::string::npos)
    setenv(name, value.c_str(), 1);
  else
    unsetenv(name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Setup& setup = OnceSetUp();
  std::string input(reinterpret_cast<const char*>(data), size);
  ReplaceAll(&input, "@OPEN@", setup.open);
  ReplaceAll(&input, "@LOCKED@", setup.locked);
  ReplaceAll(&input, "@SID@", setup.sid);
  size_t start = 0;
  std::string query, cookie, header, address;
  Field(input, &start, &query);
  SetOrUnset("HTTP_COOKIE", cookie, Field(input, &start, &cookie));
  SetOrUnset(SZ_X_SHARING_HEADER, header, Field(input, &start, &header));
  SetOrUnset("REMOTE_ADDR", address, Field(input, &start, &address));
  setenv("REQUEST_METHOD", "GET", 1);
  SetOrUnset("QUERY_STRING", query, true);

  FuzzApi request;
  request.Run(true);
  const Json::Value envelope = request.GetOutput();
  FUZZ_CHECK(envelope.isObject() && envelope["success"].isBool());
  FUZZ_CHECK(envelope["success"].asBool() == request.handled);
  if (request.handled) {
    const std::string link = request.LinkId();
    FUZZ_CHECK(link == setup.open || link == setup.locked);
    if (link == setup.locked) {
      FUZZ_CHECK(request.SessionId() == setup.sid);
      const char* client = std::getenv("REMOTE_ADDR");
      FUZZ_CHECK(client && std::string(client).find("127.0.0.1") != std::string::npos);
    }
  } else if (!request.LinkId().empty()) {
    const int code = request.GetError();  // validation comes first, then the sharing check
    FUZZ_CHECK(code <= 104 || (code >= 122 && code <= 127));
  }
  return 0;
}
