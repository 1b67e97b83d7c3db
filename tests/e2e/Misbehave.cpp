// A program that misbehaves on request, served like the examples, so the
// end-to-end cases can see what the server does about it:
//   ?do=crash          dies of SIGSEGV before printing anything
//   ?do=hang           never answers
//   ?do=sleep&ms=N     answers after N milliseconds with its process id
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "webapi/Serve.h"

namespace {

void Misbehave() {
  const char* query = std::getenv("QUERY_STRING");
  if (query && std::strcmp(query, "do=crash") == 0) raise(SIGSEGV);
  if (query && std::strcmp(query, "do=hang") == 0)
    for (;;) pause();
  int ms = 0;
  if (query && std::sscanf(query, "do=sleep&ms=%d", &ms) == 1 && ms > 0) usleep(static_cast<useconds_t>(ms) * 1000);
  std::printf("Content-type: text/plain\r\n\r\npid %d\n", static_cast<int>(getpid()));
}

}  // namespace

int main(int argc, char** argv) { return MERO::ServeRequests(argc, argv, Misbehave); }
