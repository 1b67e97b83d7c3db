// The README's first program, built against the installed library only.
#include <webapi/WebAPI.h>

class Hello : public MERO::WebAPI {
 public:
  // The API description file and the session name; both name files in
  // /usr/mero/meroman/webapi/.
  Hello() : WebAPI("hello.api", "hello") { cgi.AddSecurityHeaders("default"); }

  // Runs only for a valid request of a logged-in session.
  void HandleRequest() override {
    Json::Value data;
    data["greeting"] = "hello, " + cgi.GetLoginUserName();
    SetResponse(data);  // or SetError(code, detail)
  }
};

int main() { Hello().Run(); }
