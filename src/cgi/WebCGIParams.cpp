// Parameters and cookies in: the raw parameter line becomes either the JSON
// parameters or the platform's form parameter table.
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "../util/JsonParse.h"
#include "../util/LogSource.h"
#include "WebCGIPrivate.h"
#include "mero_owners.h"
#include "webapi/JsonValue.h"
#include "webapi/WebCGI.h"

namespace MERO {

using detail::kWebCgiSource;

detail::JsonParseResult WebCGIPrivate::LoadJSONParam(char* line) {
  const size_t length = std::strlen(line);
  return detail::ParseJson(line, length, jsonParams, JsonValue::MaxJsonParamValues(length), true);
}

bool WebCGI::LoadIn() {
  if (priv->paramsLoaded) return false;
  mero::UniqueCText line(MeroCgiGetParamLine());
  if (!line) return false;
  const detail::JsonParseResult json = priv->LoadJSONParam(line.get());
  if (json == detail::JsonParseResult::kTooManyValues) {
    // Each value costs jsoncpp some 100 bytes: beyond the limit a body would
    // cost the process far more than its own size.
    syslog(LOG_ERR, "%s:%d refused JSON parameter line: more than %zu values", kWebCgiSource,
           __LINE__, JsonValue::MaxJsonParamValues(std::strlen(line.get())));
    MERO_ERR_SET(MERO_ERR_REQUEST_TOO_LARGE);
    return false;
  }
  if (json != detail::JsonParseResult::kParsed) {
    const char first = line.get()[strspn(line.get(), " \t\r\n")];
    if (first == '{' || first == '[')
      syslog(LOG_ERR, "%s:%d parameter line starts like JSON but is not JSON; read as a form",
             kWebCgiSource, __LINE__);
    // A refused line (NUL escape, too many pairs) was logged by the platform
    // and stored nothing: the request has no parameters.
    if (MeroCgiParseCGIParam(priv->State(), line.get()) < 0) return false;
  }
  LoadSharing();
  priv->paramsLoaded = true;
  return true;
}

Json::Value* WebCGI::In() { return priv->jsonParams.size() != 0 ? &priv->jsonParams : nullptr; }

const char* WebCGI::In(const char* name, const char* def) {
  return MeroCgiGetCGIParam(priv->State(), name, def);
}

bool WebCGI::SetIn(const char* name, const char* value) {
  MEROCGI_STATE* state = priv->State();
  if (!state->paramTable && !(state->paramTable = MLIBCSzHashAlloc(256))) {
    syslog(LOG_ERR, "%s:%d MLIBCSzHashAlloc failed", kWebCgiSource, __LINE__);
    return false;
  }
  if (MLIBCSzHashSetValue(&state->paramTable, name, value) < 0) {
    syslog(LOG_ERR, "%s:%d MLIBCSzHashSetValue failed, reason=%s", kWebCgiSource, __LINE__,
           std::strerror(errno));
    return false;
  }
  if (MeroCgiSetCGIParam(state, name, value) == 0) {
    syslog(LOG_ERR, "%s:%d MeroCgiSetCGIParam failed, reason=%s", kWebCgiSource, __LINE__,
           std::strerror(errno));
    return false;
  }
  return true;
}

const char* WebCGI::GetCookie(const char* name, const char* def) {
  return MeroCgiGetInCookies(priv->State(), name, def);
}

const char* WebCGI::GetUILanguage() { return MeroCgiGetLang(priv->State()); }

bool WebCGI::IsUploadRequest() { return MeroCgiIsUploadRequest() == 1; }

}  // namespace MERO
