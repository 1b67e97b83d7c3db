// Test access to a context's private state: WebCGI befriends this struct.
#ifndef WEBAPI_TESTS_WEBCGIPEER_H
#define WEBAPI_TESTS_WEBCGIPEER_H

#include "cgi/WebCGIPrivate.h"
#include "webapi/WebCGI.h"

namespace MERO {
struct WebCGITestPeer {
  static WebCGIPrivate& Priv(WebCGI& cgi) { return *cgi.priv; }
};
}  // namespace MERO

#endif  // WEBAPI_TESTS_WEBCGIPEER_H
