// bench_api: one whole authorized request on MERO::WebAPI, as a CGI program
// built like any other: construct (request context, description file), read
// the auth file and check the session in the store, run the handler, print
// the header and the envelope. request_cost.sh and wrk_cost.sh time it
// against floor_cgi, which prints the same bytes.
//
// It answers "bench.api" requests with the session "bench"; the scripts lay
// out both files and the session under a temporary appliance root. The exit
// status is 1 when the request was refused, so a bench run that lost its
// session fails instead of timing an error answer.
#include <cstdlib>

#include "webapi/Serve.h"

#include "../BenchApi.h"

int main(int argc, char** argv) {
  return MERO::ServeRequests(argc, argv, [] {
    webapi_bench::BenchApi request;
    request.Run(true);
    if (request.GetError() != 0) std::exit(1);  // a failed request fails the bench run
  });
}
