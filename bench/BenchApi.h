// The API every request benchmark runs: "Bench.Item" get, version 1, of the
// session name "bench", answering the user and a four-item list. One class,
// so that the in-process and the fresh-process figures time the same work.
#ifndef WEBAPI_BENCH_BENCHAPI_H
#define WEBAPI_BENCH_BENCHAPI_H

#include "webapi/WebAPI.h"

namespace webapi_bench {

class BenchApi : public MERO::WebAPI {
 public:
  BenchApi() : WebAPI("bench.api", "bench") {}

  void HandleRequest() override {
    Json::Value data;
    data["user"] = cgi.GetLoginUserName();
    Json::Value& items = data["items"] = Json::Value(Json::arrayValue);
    for (int i = 0; i < 4; ++i) items.append(i);
    SetResponse(data);
  }
};

}  // namespace webapi_bench

#endif  // WEBAPI_BENCH_BENCHAPI_H
