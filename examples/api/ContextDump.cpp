// An example CGI program on libwebapi: builds the request context and answers
// with what it parsed, as one JSON object. It is the demo's request and the
// integration tests' probe.
//
// The names it reports come from the operator's environment, never from the
// request: DUMP_PARAMS and DUMP_COOKIES, comma-separated (defaults
// "api,method,version" and "id"). DUMP_SESSION names the session
// (default "zel"). Log lines are copied to standard error.
#include <json/writer.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "merocore.h"
#include "webapi/Serve.h"
#include "webapi/WebCGI.h"

namespace {

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value ? value : fallback;
}

template <typename Getter>
Json::Value Lookup(const std::string& names, const Getter& get) {
  Json::Value found(Json::objectValue);
  size_t start = 0;
  while (start <= names.size()) {
    size_t comma = names.find(',', start);
    if (comma == std::string::npos) comma = names.size();
    const std::string name = names.substr(start, comma - start);
    if (!name.empty()) {
      const char* value = get(name.c_str());
      found[name] = value ? Json::Value(value) : Json::Value();
    }
    start = comma + 1;
  }
  return found;
}

}  // namespace

static void DumpContext() {
  const std::string session = EnvOr("DUMP_SESSION", "zel");
  MERO::WebCGI cgi(session.c_str(), true);

  Json::Value out(Json::objectValue);
  out["params"] = Lookup(EnvOr("DUMP_PARAMS", "api,method,version"),
                         [&](const char* n) { return cgi.In(n, nullptr); });
  out["cookies"] =
      Lookup(EnvOr("DUMP_COOKIES", "id"), [&](const char* n) { return cgi.GetCookie(n, nullptr); });
  const Json::Value* json = cgi.In();
  out["json"] = json ? *json : Json::Value();
  out["language"] = cgi.GetUILanguage();
  out["upload"] = cgi.IsUploadRequest();
  out["error"] = MLIBCErrGet();

  std::fputs("Content-type: application/json; charset=\"UTF-8\"\r\n\r\n", stdout);
  std::fputs(Json::FastWriter().write(out).c_str(), stdout);
}

int main(int argc, char** argv) {
  openlog("context-dump", LOG_PERROR | LOG_PID, LOG_USER);
  return MERO::ServeRequests(argc, argv, DumpContext);
}
