// What a CGI state keeps of the session its last successful check found:
// the options MeroCgiGetOption hands out. Owned by the state, freed by
// MeroCgiFree.
#ifndef MEROCGI_SESSION_SESSIONOPTIONS_H
#define MEROCGI_SESSION_SESSIONOPTIONS_H

#include <string>

struct _tag_MEROCGI_SESSION {
  std::string csrfToken;
  std::string loginState;
};

#endif  // MEROCGI_SESSION_SESSIONOPTIONS_H
