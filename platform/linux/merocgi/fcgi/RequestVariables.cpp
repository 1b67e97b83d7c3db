#include "RequestVariables.h"

#include "merosharing.h"

namespace merocgi::fcgi {

bool IsRequestVariable(std::string_view name) {
  static constexpr std::string_view kNames[] = {
      "AUTH_TYPE",       "CONTENT_LENGTH",  "CONTENT_TYPE",    "DOCUMENT_ROOT",   "DOCUMENT_URI",
      "GATEWAY_INTERFACE", "HTTPS",         "PATH_INFO",       "PATH_TRANSLATED", "QUERY_STRING",
      "REDIRECT_STATUS", "REMOTE_ADDR",     "REMOTE_HOST",     "REMOTE_IDENT",    "REMOTE_PORT",
      "REMOTE_USER",     "REQUEST_METHOD",  "REQUEST_SCHEME",  "REQUEST_URI",     "REWRITE_APP",
      "SCRIPT_FILENAME", "SCRIPT_NAME",     "SERVER_ADDR",     "SERVER_NAME",     "SERVER_PORT",
      "SERVER_PROTOCOL", "SERVER_SOFTWARE"};
  static_assert(std::string_view(SZ_X_SHARING_HEADER).substr(0, 5) == "HTTP_", "a header");
  if (name.substr(0, 5) == "HTTP_") return true;
  for (std::string_view known : kNames)
    if (name == known) return true;
  return false;
}

}  // namespace merocgi::fcgi
