// The recorded result of a request and the envelope it becomes.
#include <syslog.h>

#include "../util/LogSource.h"
#include "webapi/WebAPI.h"

namespace MERO {

void WebAPI::SetResponse(Json::Value& data) {
  response = data;
  errorCode = 0;
}

void WebAPI::SetError(int code, Json::Value& errors) {
  response = errors;
  errorCode = code;
}

void WebAPI::SetError(int code) {
  Json::Value none;
  SetError(code, none);
}

int WebAPI::GetError() { return errorCode; }

Json::Value WebAPI::GetOutput() {
  Json::Value envelope;
  if (errorCode == 0) {
    envelope["success"] = true;
    if (!response.isNull()) envelope["data"] = response;
  } else {
    envelope["success"] = false;
    envelope["error"]["code"] = errorCode;
    if (!response.isNull()) envelope["error"]["errors"] = response;
  }
  return envelope;
}

void WebAPI::OutputResponse() {
  Json::Value envelope = GetOutput();
  cgi.WriteHeader("text/plain; charset=\"UTF-8\"");  // a failed header still gets its body
  cgi.WriteBody(envelope);
}

void WebAPI::HandleUploadFile() {
  syslog(LOG_ERR, "%s:%d UnHandled Upload File Operation.", detail::kWebApiSource, __LINE__);
}

}  // namespace MERO
