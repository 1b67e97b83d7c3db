#include "ApplianceRootEnv.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <system_error>

namespace webapi_test {
namespace {

const char* const kCgiVariables[] = {
    "REQUEST_METHOD", "QUERY_STRING",           "CONTENT_LENGTH", "CONTENT_TYPE",
    "HTTP_COOKIE",    "HTTP_ACCEPT_LANGUAGE",   "HTTP_HOST",      "HTTP_REFERER",
    "HTTPS",          "HTTP_X_FORWARDED_PROTO", "REWRITE_APP",    "REMOTE_ADDR"};

class RootRemover : public ::testing::Environment {
 public:
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(ApplianceRoot(), ignored);
  }
};

}  // namespace

const std::filesystem::path& ApplianceRoot() {
  static const std::filesystem::path root = [] {
    std::string templ = (std::filesystem::temp_directory_path() / "webapi-root-XXXXXX").string();
    if (!mkdtemp(templ.data())) std::abort();
    setenv("MERO_APPLIANCE_ROOT", templ.c_str(), 1);
    ::testing::AddGlobalTestEnvironment(new RootRemover);
    return std::filesystem::path(templ);
  }();
  return root;
}

void WriteRootFile(const std::string& relativePath, const std::string& text) {
  const std::filesystem::path file = ApplianceRoot() / relativePath;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

std::string ReadFileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void SetEnvOrUnset(const char* name, const char* value) {
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
}

void ApplianceRootTest::SetUp() {
  for (const auto& entry : std::filesystem::directory_iterator(ApplianceRoot()))
    std::filesystem::remove_all(entry.path());
  std::filesystem::create_directories(ApplianceRoot() / "usr/mero/meroman/webapi");
  std::filesystem::create_directories(ApplianceRoot() / "etc");
  for (const char* name : kCgiVariables) unsetenv(name);
}

void ApplianceRootTest::TearDown() {
  for (const char* name : kCgiVariables) unsetenv(name);
}

}  // namespace webapi_test
