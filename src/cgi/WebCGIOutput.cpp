// Response out: headers and cookies collect in the platform CGI state until
// the header block is printed; the body is one line of compact JSON.
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "../util/JsonParse.h"
#include "../util/JsonText.h"
#include "../util/LogSource.h"
#include "WebCGIPrivate.h"
#include "mero_owners.h"
#include "webapi/WebCGI.h"
#include "zel.h"

namespace MERO {

using detail::kWebCgiSource;

int WebCGIPrivate::AddHeader(const char* name, const char* value) {
  return MeroCgiSetHTTPHeader(State(), name, value);
}

Json::Value WebCGIPrivate::GetHeaders() {
  Json::Value headers(Json::objectValue);
  MLIBSZLIST* keys = MLIBCSzListAlloc(256);
  if (!keys) {
    syslog(LOG_ERR, "%s:%d %s(%d)MLIBCSzListAlloc failed, reason=%s", kWebCgiSource, __LINE__,
           kWebCgiSource, __LINE__, std::strerror(errno));
    return headers;
  }
  const MLIBSZHASH* table = State()->headerTable;
  // A response without headers has no table yet: nothing to enumerate.
  if (table && MLIBCSzHashEnumKey(table, &keys) < 0) {
    syslog(LOG_ERR, "%s:%d %s(%d)MLIBCSzHashEnumKey failed, reason=%s", kWebCgiSource, __LINE__,
           kWebCgiSource, __LINE__, std::strerror(errno));
    MLIBCSzListFree(keys);
    return headers;
  }
  mero::UniqueSzList owner(keys);
  for (int i = 0; i < keys->count; ++i) {
    const char* name = MLIBCSzListGet(keys, i);
    if (const char* value = MLIBCSzHashGetValue(table, name)) headers[name] = value;
  }
  return headers;
}

namespace {

Json::Value TableAsJson(MLIBSZHASH** table) {
  Json::Value result(Json::objectValue);
  if (!*table) return result;
  mero::UniqueCText text(MeroCgiHashToJsonString(table));
  if (!text) return result;
  detail::ParseJson(text.get(), std::strlen(text.get()), result);
  return result;
}

}  // namespace

Json::Value WebCGIPrivate::GetSetHeaders() { return TableAsJson(&State()->headerTable); }

Json::Value WebCGIPrivate::GetSetCookies() { return TableAsJson(&State()->setCookieTable); }

void WebCGIPrivate::AddSecurityHeaders(const std::string& options) {
  if (options.empty()) return;
  const ZEL::SecurityOptions security(options.c_str());
  const Json::Value headers = security.GetSecurityHeaders();
  for (const std::string& name : headers.getMemberNames())
    AddHeader(name.c_str(), headers[name].asString().c_str());
}

int WebCGI::AddHeader(const char* name, const char* value) { return priv->AddHeader(name, value); }

bool WebCGI::AddCookieToHeader(const char* path, const char* name, const char* value) {
  return MeroCgiSetCookies(priv->State(), name, value, 0, path, 0, nullptr) == 1;
}

bool WebCGI::WriteHeader(const char* contentType) {
  if (MeroCgiSetHTTPHeader(priv->State(), "Content-type", contentType) == 0) return false;
  return MeroCgiPrintHTTPHeader(priv->State()) != 0;
}

bool WebCGI::WriteBody(Json::Value& body) {
  std::printf("%s", detail::FastWrite(body).c_str());
  return true;
}

void WebCGI::SetDefaultContentType(const char* type) { priv->contentType = type ? type : ""; }

int WebCGI::Redirect(const char* url) { return MeroCgiRedirect(priv->State(), url); }

Json::Value WebCGI::GetHeaders() { return priv->GetHeaders(); }
Json::Value WebCGI::GetSetHeaders() { return priv->GetSetHeaders(); }
Json::Value WebCGI::GetSetCookies() { return priv->GetSetCookies(); }
void WebCGI::AddSecurityHeaders(const std::string& options) { priv->AddSecurityHeaders(options); }

}  // namespace MERO
