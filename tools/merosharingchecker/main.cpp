// merosharingchecker: decides whether the request in its CGI environment
// stays within what its sharing link covers. The library runs it (through
// MLIBCExecl, with no arguments and nothing on its standard streams) after
// the sharing library admitted the link and its session, for every API that
// does not set "skipSharingAppCheck".
//
// It reads the request as the library does: the form-encoded QUERY_STRING
// (api, method, path, _sharing_id), and the link id from the X-Mero-Sharing
// header (HTTP_X_MERO_SHARING) when there is no _sharing_id parameter. A
// request with a body is refused: the checker cannot see it, and a body's
// parameters win over the query string's in the library.
//
// Exit status:
//   0  admitted: the link admits the API and method, and "path" names the
//      shared item or lies below it (merosharing.h, Entry::Covers)
//   1  the link does not admit this API or method
//   2  no "path" parameter, or a path outside the shared item
//   3  no link id, or no such link
//   4  a request it cannot read: a method other than GET or HEAD, a body,
//      or a query string the platform refuses
//   5  the sharing store could not be read (logged)
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "merocgi.h"
#include "merosharing.h"

namespace {

enum ExitCode {
  kAdmitted = 0,
  kApiNotAdmitted = 1,
  kItemNotShared = 2,
  kNoLink = 3,
  kUnreadable = 4,
  kStoreFailed = 5
};

struct StateOwner {
  MEROCGI_STATE state{};
  StateOwner() { MeroCgiInit("", &state); }
  StateOwner(const StateOwner&) = delete;
  StateOwner& operator=(const StateOwner&) = delete;
  ~StateOwner() { MeroCgiFree(&state); }
};

int Check() {
  const char* method = std::getenv("REQUEST_METHOD");
  const char* length = std::getenv("CONTENT_LENGTH");
  if (!method || (std::strcmp(method, "GET") != 0 && std::strcmp(method, "HEAD") != 0) ||
      (length && *length && std::strcmp(length, "0") != 0))
    return kUnreadable;
  StateOwner cgi;
  const char* query = std::getenv("QUERY_STRING");
  if (query && *query && MeroCgiParseCGIParam(&cgi.state, query) < 0) return kUnreadable;

  std::string linkId = MeroCgiGetCGIParam(&cgi.state, "_sharing_id", "");
  const char* header = std::getenv(SZ_X_SHARING_HEADER);
  if (linkId.empty() && header) linkId = header;
  if (linkId.empty()) return kNoLink;
  MERO::sharing::db::SharingDB& database = MERO::sharing::db::SharingDB::Instance();
  if (!database.IsGood()) {
    char path[4096];
    return MeroSharingGetDbPath(path, sizeof path) && access(path, F_OK) == 0 ? kStoreFailed
                                                                              : kNoLink;
  }
  MERO::sharing::record::Entry entry;
  if (!MERO::sharing::db::EntryDB(database).GetByHash(linkId, entry)) return kNoLink;

  const char* api = MeroCgiGetCGIParam(&cgi.state, "api", nullptr);
  const char* apiMethod = MeroCgiGetCGIParam(&cgi.state, "method", nullptr);
  if (!api || !apiMethod || !entry.Admits(api, apiMethod)) return kApiNotAdmitted;
  const char* path = MeroCgiGetCGIParam(&cgi.state, "path", nullptr);
  if (!path || !entry.Covers(path)) return kItemNotShared;
  return kAdmitted;
}

}  // namespace

int main() {
  try {
    return Check();
  } catch (...) {
    return kStoreFailed;  // out of memory: refuse rather than admit
  }
}
