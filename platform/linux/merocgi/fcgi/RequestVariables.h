// The names a web server gives a CGI request: the CGI variables and the
// request's headers (HTTP_*). They are all a request may set in a request
// process's environment; everything else there (the appliance root, the
// loader's and the locale's variables) is the operator's, from the server's
// own environment, whoever reaches its socket.
#ifndef MEROCGI_FCGI_REQUESTVARIABLES_H
#define MEROCGI_FCGI_REQUESTVARIABLES_H

#include <string_view>

namespace merocgi::fcgi {

bool IsRequestVariable(std::string_view name);

}  // namespace merocgi::fcgi

#endif  // MEROCGI_FCGI_REQUESTVARIABLES_H
