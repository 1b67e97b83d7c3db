// Construction and teardown of the request context, and the setters of its
// session settings.
#include "webapi/WebCGI.h"

#include <unistd.h>


#include "WebCGIPrivate.h"

namespace MERO {

WebCGI::WebCGI(const char* sessionName, bool loadParams) {
  ::setsid();  // the result does not matter: a group leader simply stays one
  priv = new WebCGIPrivate(sessionName);  // a throwing constructor frees its memory
  priv->paramsLoaded = false;
  if (loadParams && !IsUploadRequest() && LoadIn()) priv->paramsLoaded = true;
}

WebCGI::~WebCGI() { delete priv; }

void WebCGI::SetSessionName(const char* name) { priv->SetSessionName(name, false); }

void WebCGI::SetSkipCheckIP(bool skip) { priv->State()->skipCheckIP = skip ? 1 : 0; }

void WebCGI::SetCgiTimeout(int timeout) { priv->State()->sessionTimeout = timeout; }

void WebCGI::SetErrorLog(bool enable) { priv->SetErrorLog(enable); }

bool WebCGI::IsSharing() { return !priv->sharingId.empty(); }

WebCGIPrivate::WebCGIPrivate(const char* name) { SetSessionName(name, true); }

WebCGIPrivate::~WebCGIPrivate() { MeroCgiFree(&cgiState.state); }

void WebCGIPrivate::SetErrorLog(bool enable) {
  if (enable)
    loginFlags &= ~static_cast<uint32_t>(kLoginErrorLogOff);
  else
    loginFlags |= kLoginErrorLogOff;
}

}  // namespace MERO
