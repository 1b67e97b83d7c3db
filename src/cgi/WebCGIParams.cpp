// Parameters and cookies in: the raw parameter line becomes either the JSON
// parameters or the platform's form parameter table.
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "../util/JsonText.h"
#include "../util/LogSource.h"
#include "WebCGIPrivate.h"
#include "mero_owners.h"
#include "webapi/WebCGI.h"

namespace MERO {

using detail::kWebCgiSource;

bool WebCGIPrivate::LoadJSONParam(char* line) {
  return detail::ReaderParse(line, std::strlen(line), jsonParams, true);
}

bool WebCGI::LoadIn() {
  if (priv->paramsLoaded) return false;
  mero::UniqueCText line(MeroCgiGetParamLine());
  if (!line) return false;
  if (!priv->LoadJSONParam(line.get())) {
    const char first = line.get()[strspn(line.get(), " \t\r\n")];
    if (first == '{' || first == '[')
      syslog(LOG_ERR, "%s:%d parameter line starts like JSON but is not JSON; read as a form",
             kWebCgiSource, __LINE__);
    priv->jsonParams = Json::Value();  // what a failed parse left is not the request's
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
