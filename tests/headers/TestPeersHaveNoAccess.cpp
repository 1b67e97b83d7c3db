// Never built: ctest compiles it and expects the compiler to refuse it.
// Code that names itself after a friend of the public classes must gain no
// access to their private state from the installed headers.
#include "webapi/WebAPI.h"

namespace MERO {

struct WebCGITestPeer {
  static WebCGIPrivate* Priv(WebCGI& cgi) { return cgi.priv; }
};

struct WebAPITestPeer {
  static int Version(WebAPI& web) { return web.version; }
};

}  // namespace MERO
