// A whole request through MERO::WebAPI, in process: construction, parameter
// loading, validation, the session check against a real store, the handler
// and the envelope. Input: a flag byte (bit 0: Run(false)), then the query
// string, the Cookie header and the client address, separated by '\n'.
// "@SID@" anywhere stands for the identifier of a live session of alice.
// Properties: the envelope always has a boolean "success"; the handler runs
// exactly when the answer is a success; a checked request succeeds only
// when it presented the live session; a request that cannot name api,
// method or version always answers 101.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "FuzzCheck.h"
#include "FuzzRoot.h"
#include "merocgi.h"
#include "webapi/WebAPI.h"

namespace {

constexpr char kDescription[] = R"({
  "Fuzz.Item": {"minVersion": 1, "maxVersion": 2,
                "methods": {"1": ["get"], "2": ["get", "set", "export"]},
                "allowDownload": {"2": ["export"]}}})";

struct Setup {
  std::string liveSession;
};

const Setup& OnceSetUp() {
  static const Setup setup = [] {
    const std::string dir = MakeFuzzRoot("request");
    std::ofstream(dir + "/fuzz.api") << kDescription;
    std::ofstream(dir + "/fuzz.auth") << R"({"timeout": 30, "ip_checking": true})";
    char id[MERO_CGI_SESSION_ID_CHARS + 1];
    if (MeroCgiSessionCreate("fuzz", "alice", "127.0.0.1", 0, "", 0, id, sizeof id) !=
        MERO_SESSION_AUTHORIZED)
      std::abort();
    // The answers are checked through GetOutput; the printed copies go nowhere.
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    close(devNull);
    return Setup{id};
  }();
  return setup;
}

class FuzzApi : public MERO::WebAPI {
 public:
  FuzzApi() : WebAPI("fuzz.api", "fuzz") {}
  void HandleRequest() override {
    handled = true;
    Json::Value data;
    data["user"] = cgi.GetLoginUserName();
    SetResponse(data);
  }
  bool handled = false;
};

std::string Field(const std::string& text, size_t* start) {
  if (*start > text.size()) return std::string();
  const size_t end = std::min(text.find('\n', *start), text.size());
  std::string field = text.substr(*start, end - *start);
  *start = end + 1;
  return field;
}

void ReplaceAll(std::string* text, const std::string& from, const std::string& to) {
  for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size()))
    text->replace(at, from.size(), to);
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
  if (size < 1) return 0;
  const bool checked = (data[0] & 1) == 0;
  std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  ReplaceAll(&rest, "@SID@", setup.liveSession);
  size_t start = 0;
  const std::string query = Field(rest, &start);
  const bool hasCookie = start <= rest.size();
  const std::string cookie = Field(rest, &start);
  const bool hasAddress = start <= rest.size();
  const std::string address = Field(rest, &start);

  setenv("REQUEST_METHOD", "GET", 1);
  SetOrUnset("QUERY_STRING", query, true);
  SetOrUnset("HTTP_COOKIE", cookie, hasCookie);
  SetOrUnset("REMOTE_ADDR", address, hasAddress);

  FuzzApi request;
  request.Run(checked);
  const Json::Value envelope = request.GetOutput();
  FUZZ_CHECK(envelope.isObject() && envelope["success"].isBool());
  const bool success = envelope["success"].asBool();
  FUZZ_CHECK(success == request.handled);
  FUZZ_CHECK(success == (request.GetError() == 0));
  if (success && checked) FUZZ_CHECK(rest.find(setup.liveSession) != std::string::npos);
  // A name the query cannot spell (not even through an escape) is missing.
  const bool escapes = query.find('%') != std::string::npos;
  auto canName = [&](const char* name) { return escapes || query.find(name) != std::string::npos; };
  if (!canName("api") || !canName("method") || !canName("version"))
    FUZZ_CHECK(request.GetError() == 101);
  return 0;
}
