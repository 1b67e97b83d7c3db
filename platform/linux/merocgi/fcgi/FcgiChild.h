// The whole life of a request's child after the fork: the request's
// parameters become its CGI environment, the connection becomes its request
// I/O, and the handler runs exactly as in a CGI process.
#ifndef MEROCGI_FCGI_FCGICHILD_H
#define MEROCGI_FCGI_FCGICHILD_H

#include "ChildReport.h"

namespace merocgi::fcgi {

// Serves the one request on connection `fd`. Returns when the request was
// answered (or could not be read); a handler that calls exit() still ends
// the request properly.
void ServeConnection(int fd, ChildReport* report, int maxConnections, void (*handle)(void*), void* arg);

}  // namespace merocgi::fcgi

#endif  // MEROCGI_FCGI_FCGICHILD_H
