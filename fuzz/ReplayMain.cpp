// Runs a fuzz target over saved inputs without libFuzzer, so ctest replays
// the corpus (and every crasher once added to it) in every build.
// Arguments are files or directories (read recursively); *.dict files are
// dictionaries, not inputs.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE_OR_DIR...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    const fs::path arg(argv[i]);
    bool readable = true;
    if (fs::is_directory(arg, ec)) {
      for (fs::recursive_directory_iterator it(arg, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file()) inputs.push_back(it->path());
    } else if (fs::is_regular_file(arg, ec)) {
      inputs.push_back(arg);
    } else {
      readable = false;
    }
    if (ec || !readable) {
      std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[i]);
      return 1;
    }
  }
  inputs.erase(std::remove_if(inputs.begin(), inputs.end(),
                              [](const fs::path& p) { return p.extension() == ".dict"; }),
               inputs.end());
  std::sort(inputs.begin(), inputs.end());  // a stable order makes failures repeatable

  for (const fs::path& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    if (in.bad()) {
      std::fprintf(stderr, "%s: cannot read %s\n", argv[0], path.c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("ran %zu inputs\n", inputs.size());
  // An empty corpus would make the replay test pass without checking anything.
  return inputs.empty() ? 1 : 0;
}
