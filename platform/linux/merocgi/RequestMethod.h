// What the CGI environment says about the request's method.
#ifndef MEROCGI_REQUESTMETHOD_H
#define MEROCGI_REQUESTMETHOD_H

#include <strings.h>

#include <cstdlib>

namespace merocgi {

// POST, PUT and PATCH carry their parameters in the body; every other method
// (and a program run without REQUEST_METHOD) in the query string.
inline bool HasBodyParameters() {
  const char* method = std::getenv("REQUEST_METHOD");
  return method && (strcasecmp(method, "POST") == 0 || strcasecmp(method, "PUT") == 0 ||
                    strcasecmp(method, "PATCH") == 0);
}

}  // namespace merocgi

#endif  // MEROCGI_REQUESTMETHOD_H
