// A CGI program that receives an upload and does nothing else: the
// library's whole path for one request (context, upload hook, LoadIn into
// BENCH_UPLOAD_DIR, validation of the body's api/method/version, envelope),
// without a session check. It answers {"data":{"files":N},"success":true}.
#include <cstdlib>

#include "webapi/WebAPI.h"

namespace {

class UploadReceiver : public MERO::WebAPI {
 public:
  UploadReceiver() : WebAPI("bench.api", "bench") {}
  void HandleUploadFile() override { files_ = cgi.LoadIn(std::getenv("BENCH_UPLOAD_DIR")); }
  void HandleRequest() override {
    if (files_ < 0) return SetError(130);
    Json::Value data;
    data["files"] = files_;
    SetResponse(data);
  }

 private:
  int files_ = -1;
};

}  // namespace

int main() {
  UploadReceiver receiver;
  receiver.Run(false);
}
