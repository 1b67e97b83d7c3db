// MERO::WebAPI: the base class of every CGI program's API handler.
//
// A CGI program derives from it, implements HandleRequest, constructs one
// object with the name of its API description file and its session name,
// and calls Run(). The base class reads and validates the request, decides
// whether the caller may make it, calls the handler and prints the answer:
// headers and one JSON envelope,
//   {"success":true}  {"data":{...},"success":true}
//   {"error":{"code":N},"success":false}  {"error":{"code":N,"errors":...},"success":false}
//
// The API description file, "<root>/usr/mero/meroman/webapi/<name>", is one
// JSON object: API name to an entry
//   { "minVersion": 1, "maxVersion": 2,
//     "methods":       { "1": ["list", "get"], "2": ["list", "get", "export"] },
//     "allowDownload": { "2": ["export"] },      optional: no envelope printed
//     "allowSharing": false, "skipSharingAppCheck": false }   optional
// Method names match without regard to letter case; the version keys are
// looked up with the request's `version` text exactly as it was sent.
//
// Error codes of the base class:
//   101  `api`, `method` or `version` missing, or `version` not an integer
//   102  the API is not described (or its entry lacks minVersion/maxVersion)
//   103  the method is not offered in that version
//   104  the version is outside [minVersion, maxVersion]
//   105  no valid session (no session id, unknown session, missing privilege,
//        an auth file that cannot be read where the appliance refuses then, ...)
//   106  the session expired
//   107  the session was ended by another login or is used from another address
// and of a request made through a sharing link (merosharing.h says which
// refusal of the sharing library gives which):
//   101  the sharing store failed
//   122  the link has expired
//   123  the link was disabled by its owner
//   124  the link's accesses are used up
//   125  the link has a password that this visitor's sharing session has
//        not proven: ask for it
//   126  no such link, or the API does not admit sharing links
//   127  the link does not cover this API, method or item (the sharing
//        checker program refused, or could not be run)
#ifndef WEBAPI_WEBAPI_H
#define WEBAPI_WEBAPI_H

#include <json/value.h>

#include "webapi/Export.h"
#include "webapi/WebCGI.h"

namespace MERO {

class WEBAPI_EXPORT WebAPI {
 public:
  // Builds the request context for `sessionName` (null: "zel"), loading the
  // parameters unless the request is an upload, and reads the description
  // file `descriptionName` (null: ""). A missing or malformed file is not
  // reported here: every request then fails validation with 102.
  WebAPI(const char* descriptionName, const char* sessionName);
  virtual ~WebAPI();
  WebAPI(const WebAPI&) = delete;
  WebAPI& operator=(const WebAPI&) = delete;

  // The handler of a validated, permitted request: reads api, method,
  // version and the parameters, does the work and records its result with
  // SetResponse or SetError. Its return value is not used.
  virtual void HandleRequest() = 0;
  // The session check of an ordinary request. Default: CheckAuthorized()
  // above 0 passes; -1 records 106, -3 records 107, anything else 105.
  virtual bool CheckPermission();
  // The check of a request made through a sharing link, run by Run in place
  // of CheckPermission: the API must admit links ("allowSharing"), the
  // sharing library must admit the link and its session now
  // (MeroSharingIsAuthorized, which counts the access of a link with a
  // limit), and, unless the API sets "skipSharingAppCheck",
  // CheckSharingAppPermission must agree. On false one of 101, 122 to 127
  // has been recorded.
  virtual bool CheckSharingPermission();
  // Runs the sharing checker program "<root>/usr/mero/bin/merosharingchecker"
  // in the request's environment (it reads the request's api, method, path
  // and link id there) and answers whether it exited 0. Records no error;
  // a checker that cannot be run is logged ("exec sharing check fail").
  virtual bool CheckSharingAppPermission();
  // Receives an upload before anything is validated. The default only logs
  // "UnHandled Upload File Operation."; the pipeline then goes on with the
  // parameters the context holds.
  virtual void HandleUploadFile();
  // Records a success with `data` (a copy); clears any earlier error.
  virtual void SetResponse(Json::Value& data);

  // The pipeline: upload hook, read and validate api/method/version, the
  // permission check (sharing or session; none with `checkPermission`
  // false), the handler, then the envelope, which a download method does not
  // get: its handler prints the whole output itself.
  void Run();
  void Run(bool checkPermission);

  // The session check of the request context: positive when the session is
  // authorized; -5 no session id in the request; otherwise the platform's
  // code (merocgi.h, MERO_SESSION_*).
  int CheckAuthorized();
  // Validates the request against the description; on true fills api,
  // method, version, uiLanguage, allowSharing and skipSharingAppCheck, on
  // false records 101, 102, 103 or 104 and changes nothing else.
  bool CheckRequestParam(const char* api, const char* method, const char* version);

  // Records a failure with `code` and detail `errors` (a copy; null: none).
  void SetError(int code, Json::Value& errors);
  void SetError(int code);
  int GetError();
  // The envelope of the recorded result.
  Json::Value GetOutput();
  // Prints the header (Content-type text/plain; charset="UTF-8") and the
  // envelope as one line of compact JSON.
  void OutputResponse();

 protected:
  WebCGI cgi;
  const char* api = nullptr;     // owned by cgi
  const char* method = nullptr;  // owned by cgi
  int version = 0;
  const char* uiLanguage = nullptr;
  bool allowSharing = false;
  bool skipSharingAppCheck = false;
  Json::Value description;
  int errorCode = 0;
  Json::Value response;
};

}  // namespace MERO

#endif  // WEBAPI_WEBAPI_H
