// A throwaway appliance root for the fuzz targets that run whole requests:
// made once, named in MERO_APPLIANCE_ROOT, removed when the process ends.
#ifndef WEBAPI_FUZZ_FUZZROOT_H
#define WEBAPI_FUZZ_FUZZROOT_H

#include <cstdlib>
#include <filesystem>
#include <string>

// Makes /tmp/webapi-fuzz-NAME-XXXXXX with its description directory and
// answers that directory ("<root>/usr/mero/meroman/webapi").
inline std::string MakeFuzzRoot(const char* name) {
  std::string root = std::string("/tmp/webapi-fuzz-") + name + "-XXXXXX";
  if (!mkdtemp(root.data())) std::abort();
  setenv("MERO_APPLIANCE_ROOT", root.c_str(), 1);
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(getenv("MERO_APPLIANCE_ROOT"), ignored);
  });
  const std::string dir = root + "/usr/mero/meroman/webapi";
  std::filesystem::create_directories(dir);
  return dir;
}

#endif  // WEBAPI_FUZZ_FUZZROOT_H
