// One program, two modes. A CGI program's main() hands its API class to
// MERO::Serve:
//
//   int main(int argc, char** argv) { return MERO::Serve<HelloApi>(argc, argv); }
//
// Executed by a web server for a request, it answers that request (the
// API object is constructed and Run() once). Started as a FastCGI server (a
// listening socket on descriptor 0, as web servers spawn FastCGI programs;
// socket activation; or `--listen unix:PATH` / `--listen 127.0.0.1:PORT`),
// it loads once and forks one process per request, in which the API object
// is constructed and Run() exactly as in a CGI process. Each request keeps
// its own process: a crash, a leak or an id switch of one never touches
// another. merocgi_server.h documents the options, signals and limits.
#ifndef WEBAPI_SERVE_H
#define WEBAPI_SERVE_H

#include "webapi/Export.h"

namespace MERO {

// Runs `handleOne` for each request, in the mode the process was started
// in; answers the process's exit status (0 after a CGI request or a clean
// stop, 1 when a server could not start, 2 for a bad command line).
WEBAPI_EXPORT int ServeRequests(int argc, char** argv, void (*handleOne)());

template <class Api>
int Serve(int argc, char** argv) {
  return ServeRequests(argc, argv, [] {
    Api api;
    api.Run();
  });
}

}  // namespace MERO

#endif  // WEBAPI_SERVE_H
