// Lifecycle and session settings of the CGI state.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "merocgi.h"
#include "session/SessionOptions.h"
#include "upload/UploadSession.h"

// Field order is the appliance's record layout; on its 32-bit target every
// field is one word and these are the byte offsets the library was built for.
static_assert(offsetof(MEROCGI_STATE, inCookieTable) < offsetof(MEROCGI_STATE, queryTable) &&
                  offsetof(MEROCGI_STATE, queryTable) < offsetof(MEROCGI_STATE, uiLanguage) &&
                  offsetof(MEROCGI_STATE, uiLanguage) < offsetof(MEROCGI_STATE, initialized) &&
                  offsetof(MEROCGI_STATE, initialized) < offsetof(MEROCGI_STATE, setCookieTable) &&
                  offsetof(MEROCGI_STATE, setCookieTable) < offsetof(MEROCGI_STATE, paramTable) &&
                  offsetof(MEROCGI_STATE, paramTable) < offsetof(MEROCGI_STATE, headerTable) &&
                  offsetof(MEROCGI_STATE, headerTable) < offsetof(MEROCGI_STATE, registry) &&
                  offsetof(MEROCGI_STATE, registry) < offsetof(MEROCGI_STATE, extra) &&
                  offsetof(MEROCGI_STATE, extra) < offsetof(MEROCGI_STATE, headerPrinted) &&
                  offsetof(MEROCGI_STATE, headerPrinted) < offsetof(MEROCGI_STATE, session) &&
                  offsetof(MEROCGI_STATE, session) < offsetof(MEROCGI_STATE, upload) &&
                  offsetof(MEROCGI_STATE, upload) < offsetof(MEROCGI_STATE, reserved) &&
                  offsetof(MEROCGI_STATE, reserved) < offsetof(MEROCGI_STATE, sessionTimeout) &&
                  offsetof(MEROCGI_STATE, sessionTimeout) < offsetof(MEROCGI_STATE, skipCheckIP),
              "CGI state fields keep the appliance's order");
#if UINTPTR_MAX == 0xffffffffu
static_assert(offsetof(MEROCGI_STATE, setCookieTable) == 16 &&
                  offsetof(MEROCGI_STATE, paramTable) == 20 &&
                  offsetof(MEROCGI_STATE, headerTable) == 24 &&
                  offsetof(MEROCGI_STATE, sessionTimeout) == 52 &&
                  offsetof(MEROCGI_STATE, skipCheckIP) == 56 && sizeof(MEROCGI_STATE) == 60,
              "32-bit layout of the CGI state");
#endif

namespace {

// Replaces the two owned session texts; false (old texts kept) without memory.
bool StoreSessionTexts(MEROCGI_STATE* state, const char* registry, const char* extra) {
  char* registryCopy = strdup(registry ? registry : "");
  char* extraCopy = strdup(extra ? extra : "");
  if (!registryCopy || !extraCopy) {
    std::free(registryCopy);
    std::free(extraCopy);
    return false;
  }
  std::free(state->registry);
  std::free(state->extra);
  state->registry = registryCopy;
  state->extra = extraCopy;
  return true;
}

}  // namespace

extern "C" {

int MeroCgiInitEx(MEROCGI_STATE* state, int timeout, int skipCheckIP, const char* registry,
                  const char* extra) {
  if (!state) return 0;
  std::memset(state, 0, sizeof *state);
  state->initialized = 1;
  state->sessionTimeout = timeout;
  state->skipCheckIP = skipCheckIP ? 1 : 0;
  return StoreSessionTexts(state, registry, extra) ? 1 : 0;
}

int MeroCgiInit(const char* /*text: reserved*/, MEROCGI_STATE* state) {
  return MeroCgiInitEx(state, MERO_CGI_DEFAULT_SESSION_TIMEOUT, MERO_CGI_DEFAULT_SKIP_CHECK_IP,
                       MERO_CGI_DEFAULT_REGISTRY, "");
}

int MeroCgiSetSessionParam(MEROCGI_STATE* state, int timeout, int skipCheckIP,
                           const char* registry, const char* extra) {
  if (!state) return 0;
  state->sessionTimeout = timeout;
  state->skipCheckIP = skipCheckIP ? 1 : 0;
  return StoreSessionTexts(state, registry, extra) ? 1 : 0;
}

void MeroCgiFree(MEROCGI_STATE* state) {
  if (!state) return;
  MLIBCSzHashFree(state->inCookieTable);
  MLIBCSzHashFree(state->queryTable);
  MLIBCSzHashFree(state->setCookieTable);
  MLIBCSzHashFree(state->paramTable);
  MLIBCSzHashFree(state->headerTable);
  std::free(state->registry);
  std::free(state->extra);
  delete state->session;
  merocgi::FreeUpload(state->upload);
  std::memset(state, 0, sizeof *state);
}

}  // extern "C"
