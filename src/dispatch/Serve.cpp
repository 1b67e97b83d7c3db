#include "webapi/Serve.h"

#include "merocgi_server.h"

namespace MERO {

int ServeRequests(int argc, char** argv, void (*handleOne)()) {
  // The pointer lives in this frame, which a request's child inherits.
  return MeroCgiServe(
      argc, argv, [](void* handle) { (*static_cast<void (**)()>(handle))(); }, &handleOne);
}

}  // namespace MERO
