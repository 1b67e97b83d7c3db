// What the operator's tools share: "[--root DIR] COMMAND [OPTIONS]", their
// exit codes, usage messages, numbers, times and a line from stdin.
#ifndef WEBAPI_TOOLS_ADMINTOOL_H
#define WEBAPI_TOOLS_ADMINTOOL_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace admin_tool {

enum ExitCode { kOk = 0, kStoreFailed = 1, kUsage = 2, kNoMatch = 3 };

struct UsagePrinter {
  const char* tool;
  const char* text;
  // Prints the problem (if any) and the usage text to stderr.
  int operator()(const char* problem) const {
    if (problem) std::fprintf(stderr, "%s: %s\n", tool, problem);
    std::fputs(text, stderr);
    return kUsage;
  }
};

// Applies a leading "--root DIR" and finds the command: true with `*next`
// its index; false with `*exitCode` set (help printed: kOk; else kUsage).
inline bool FindCommand(int argc, char** argv, const UsagePrinter& usage, int* next, int* exitCode) {
  *next = 1;
  if (*next + 1 < argc && std::strcmp(argv[*next], "--root") == 0) {
    if (argv[*next + 1][0] != '/') return *exitCode = usage("--root takes an absolute path"), false;
    setenv("MERO_APPLIANCE_ROOT", argv[*next + 1], 1);
    *next += 2;
  }
  if (*next >= argc) return *exitCode = usage(nullptr), false;
  if (std::strcmp(argv[*next], "-h") == 0 || std::strcmp(argv[*next], "--help") == 0) {
    std::fputs(usage.text, stdout);
    return *exitCode = kOk, false;
  }
  return true;
}

inline bool ParseNumber(const char* text, long long max, long long* out) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (errno || end == text || *end || value < 0 || value > max) return false;
  *out = value;
  return true;
}

inline std::string FormatTime(long long seconds) {
  const time_t when = static_cast<time_t>(seconds);
  struct tm utc;
  char text[32];
  if (!gmtime_r(&when, &utc) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc))
    return std::to_string(seconds);
  return text;
}

// One line of stdin of at most `max` bytes, without its line end.
inline bool ReadStdinLine(size_t max, std::string* line) {
  std::string buffer(max + 2, '\0');
  if (!std::fgets(buffer.data(), static_cast<int>(buffer.size()), stdin)) return false;
  line->assign(buffer.c_str());
  while (!line->empty() && (line->back() == '\n' || line->back() == '\r')) line->pop_back();
  return true;
}

}  // namespace admin_tool

#endif  // WEBAPI_TOOLS_ADMINTOOL_H
