// A temporary appliance root for a whole test binary: the platform reads
// MERO_APPLIANCE_ROOT once per process, so one root is made before the first
// test and each fixture empties and rebuilds it.
#ifndef WEBAPI_TESTS_APPLIANCEROOTENV_H
#define WEBAPI_TESTS_APPLIANCEROOTENV_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace webapi_test {

// The root of this test binary (created on first call, removed at exit).
const std::filesystem::path& ApplianceRoot();

// Writes `text` to `relativePath` under the root, creating directories.
void WriteRootFile(const std::string& relativePath, const std::string& text);

// The whole of the file at `path` ("" when it cannot be read).
std::string ReadFileText(const std::filesystem::path& path);

// Sets environment variable `name` to `value`, or unsets it for null.
void SetEnvOrUnset(const char* name, const char* value);

// Base fixture: a fresh, empty appliance tree for every test, with the
// directories the library reads from. Also clears the CGI variables tests set.
class ApplianceRootTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  const std::filesystem::path& root() const { return ApplianceRoot(); }
};

}  // namespace webapi_test

#endif  // WEBAPI_TESTS_APPLIANCEROOTENV_H
