// Demo.Maintenance: an API for administrators only. Its session name,
// "demoadmin", has an auth file that requires the privilege "admin": a
// session without it is refused with 105 before this handler runs.
#include <webapi/Serve.h>
#include <webapi/WebAPI.h>

namespace {

class MaintenanceApi : public MERO::WebAPI {
 public:
  MaintenanceApi() : WebAPI("maintenance.api", "demoadmin") { cgi.AddSecurityHeaders("default"); }

  void HandleRequest() override {
    Json::Value data;
    data["maintenance"] = false;
    data["admin"] = cgi.GetLoginUserName();
    SetResponse(data);
  }
};

}  // namespace

int main(int argc, char** argv) { return MERO::Serve<MaintenanceApi>(argc, argv); }
