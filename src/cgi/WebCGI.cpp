// Construction and teardown of the request context, and the setters of its
// session settings.
#include "webapi/WebCGI.h"

#include <unistd.h>

#include <memory>


#include "WebCGIPrivate.h"

namespace MERO {

WebCGI::WebCGI(const char* sessionName, bool loadParams) {
  ::setsid();  // the result does not matter: a group leader simply stays one
  // Owned here until construction is complete: should LoadIn throw, no
  // destructor would free it.
  std::unique_ptr<WebCGIPrivate> owner = std::make_unique<WebCGIPrivate>(sessionName);
  priv = owner.get();
  priv->paramsLoaded = false;
  if (loadParams && !IsUploadRequest() && LoadIn()) priv->paramsLoaded = true;
  owner.release();
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
