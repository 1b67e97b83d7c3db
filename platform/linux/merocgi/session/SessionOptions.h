// What a CGI state keeps of its session: the options of the session its
// last successful check found (or its login created), which
// MeroCgiGetOption hands out, and the options a program set for a later
// login. Owned by the state, freed by MeroCgiFree.
#ifndef MEROCGI_SESSION_SESSIONOPTIONS_H
#define MEROCGI_SESSION_SESSIONOPTIONS_H

#include <string>

#include "merocgi.h"

struct _tag_MEROCGI_SESSION {
  bool found = false;  // a session was authorized or created on this state
  std::string csrfToken;
  std::string loginState;
  bool loginStateSet = false;  // option 13 set by the program: it wins
  int lifetimeMinutes = 0;     // option 10 for the next login; 0: not set
};

namespace merocgi {

// The state's options record, created on first need; null without memory.
_tag_MEROCGI_SESSION* SessionOptionsOf(MEROCGI_STATE* state);
// Records the session a check found or a login created.
bool RememberSession(MEROCGI_STATE* state, const std::string& csrfToken, int loginState);

}  // namespace merocgi

#endif  // MEROCGI_SESSION_SESSIONOPTIONS_H
