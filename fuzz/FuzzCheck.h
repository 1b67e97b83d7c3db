// Property checks of the fuzz targets. A violated property aborts, which
// libFuzzer reports as a crash (and saves the input) and the corpus replay
// under ctest as a failed test; the message names the property that broke.
#ifndef WEBAPI_FUZZ_FUZZCHECK_H
#define WEBAPI_FUZZ_FUZZCHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                 \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      std::fprintf(stderr, "%s:%d: property violated: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)

#endif  // WEBAPI_FUZZ_FUZZCHECK_H
