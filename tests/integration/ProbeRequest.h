// The API probe program on a GET under the appliance root, and the answers
// it writes, for the tests that drive whole requests through it.
#ifndef WEBAPI_TESTS_PROBEREQUEST_H
#define WEBAPI_TESTS_PROBEREQUEST_H

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "ApplianceRootEnv.h"
#include "ChildProcess.h"

namespace webapi_test {

using Env = std::map<std::string, std::string>;

inline std::string Envelope(const std::string& json) {
  return "Content-type: text/plain; charset=\"UTF-8\"\r\n\r\n" + json + "\n";
}
inline std::string Error(int code) {
  return Envelope(R"({"error":{"code":)" + std::to_string(code) + R"(},"success":false})");
}
inline bool Succeeded(const ChildResult& child) {
  return child.out.find(R"("success":true)") != std::string::npos;
}

// Defaults to a request from 127.0.0.1 under the session name "probe".
inline ChildResult Get(const std::string& query, Env env = {}) {
  env["REQUEST_METHOD"] = "GET";
  env["QUERY_STRING"] = query;
  env["MERO_APPLIANCE_ROOT"] = ApplianceRoot().string();
  env.emplace("REMOTE_ADDR", "127.0.0.1");
  env.emplace("PROBE_SESSION", "probe");
  ChildResult child = RunChild(API_PROBE_PATH, env, "");
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child;
}

}  // namespace webapi_test

#endif  // WEBAPI_TESTS_PROBEREQUEST_H
