// webapi-session: the administrator's view of the login session store.
// Sessions are created here until a login page exists, and for scripts and
// tests; identifiers are printed once, at creation, and never listed.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "merocgi.h"
#include "merocore.h"

namespace {

enum ExitCode { kOk = 0, kStoreFailed = 1, kUsage = 2, kNoMatch = 3 };

constexpr const char kUsageText[] =
    "usage: webapi-session [--root DIR] COMMAND [OPTIONS]\n"
    "\n"
    "  create --user NAME --client ADDRESS [--registry NAME] [--lifetime SECONDS]\n"
    "         [--privilege WORD]... [--end-others]\n"
    "      Creates a session and prints its identifier (the only time it is shown).\n"
    "      --registry   session name or registry (default: zel)\n"
    "      --lifetime   seconds from now after which the session ends (default: none)\n"
    "      --end-others ends the user's other sessions in that registry\n"
    "  list\n"
    "      One line per session, oldest first, tab-separated: ref, registry, user,\n"
    "      client, created, last seen, lifetime, state, privileges.\n"
    "  revoke (--ref HEX | --user NAME | --id-stdin)\n"
    "      Removes the session whose ref starts with HEX (8 digits at least), all\n"
    "      of a user's sessions, or the session whose identifier is on stdin.\n"
    "  purge [--idle MINUTES]\n"
    "      Removes sessions past their lifetime or idle longer than MINUTES.\n"
    "  path\n"
    "      Prints the path of the session database.\n"
    "\n"
    "--root DIR sets the appliance root (as MERO_APPLIANCE_ROOT does).\n"
    "-h, --help prints this text.\n"
    "Exit status: 0 done, 1 the store failed (see syslog), 2 usage error,\n"
    "3 revoke matched no session.\n";

int Usage(const char* problem) {
  if (problem) std::fprintf(stderr, "webapi-session: %s\n", problem);
  std::fputs(kUsageText, stderr);
  return kUsage;
}

struct Options {
  std::string user, client, registry = "zel", ref;
  std::vector<std::string> privileges;
  long long lifetime = 0;
  int idleMinutes = 0;
  bool endOthers = false, idFromStdin = false;
};

bool ParseNumber(const char* text, long long max, long long* out) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (errno || end == text || *end || value < 0 || value > max) return false;
  *out = value;
  return true;
}

// Reads the options after the command; "" on success, else the problem.
std::string ParseOptions(int argc, char** argv, int first, Options* options) {
  for (int i = first; i < argc; ++i) {
    const std::string flag = argv[i];
    const bool hasValue = i + 1 < argc;
    auto value = [&]() { return std::string(argv[++i]); };
    long long number = 0;
    if (flag == "--end-others") {
      options->endOthers = true;
    } else if (flag == "--id-stdin") {
      options->idFromStdin = true;
    } else if (!hasValue) {
      return "missing value or unknown option: " + flag;
    } else if (flag == "--user") {
      options->user = value();
    } else if (flag == "--client") {
      options->client = value();
    } else if (flag == "--registry") {
      options->registry = value();
    } else if (flag == "--privilege") {
      options->privileges.push_back(value());
    } else if (flag == "--ref") {
      options->ref = value();
    } else if (flag == "--lifetime") {
      if (!ParseNumber(argv[++i], 1LL << 40, &number)) return "--lifetime takes seconds";
      options->lifetime = number;
    } else if (flag == "--idle") {
      if (!ParseNumber(argv[++i], 1 << 30, &number)) return "--idle takes minutes";
      options->idleMinutes = static_cast<int>(number);
    } else {
      return "unknown option: " + flag;
    }
  }
  return "";
}

std::string FormatTime(long long seconds) {
  const time_t when = static_cast<time_t>(seconds);
  struct tm utc;
  char text[32];
  if (!gmtime_r(&when, &utc) || !std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc))
    return std::to_string(seconds);
  return text;
}

int Create(const Options& options) {
  if (options.user.empty() || options.client.empty())
    return Usage("create needs --user and --client");
  std::string privileges;
  for (const std::string& word : options.privileges) {
    if (word.empty() || word.find(' ') != std::string::npos)
      return Usage("a privilege is one word");
    privileges += (privileges.empty() ? "" : " ") + word;
  }
  char id[MERO_CGI_SESSION_ID_CHARS + 1];
  const int result =
      MeroCgiSessionCreate(options.registry.c_str(), options.user.c_str(), options.client.c_str(),
                           options.lifetime, privileges.c_str(), options.endOthers, id, sizeof id);
  if (result != MERO_SESSION_AUTHORIZED) {
    std::fprintf(stderr, "webapi-session: could not create the session (%d); see syslog\n", result);
    return result == MERO_SESSION_INVALID ? kUsage : kStoreFailed;
  }
  std::printf("%s\n", id);
  return kOk;
}

void PrintSession(const MEROCGI_SESSION_INFO* info, void*) {
  std::printf("%s\t%s\t%s\t%s\t%s\t%s\t%lld\t%s\t%s\n", info->ref, info->registry, info->user,
              info->client, FormatTime(info->created).c_str(), FormatTime(info->lastSeen).c_str(),
              info->lifetime, info->state == 1 ? "active" : "ended", info->privileges);
}

int List() {
  const int count = MeroCgiSessionList(PrintSession, nullptr);
  if (count < 0) {
    std::fprintf(stderr, "webapi-session: could not read the session store; see syslog\n");
    return kStoreFailed;
  }
  return kOk;
}

int Revoke(const Options& options) {
  const int ways = !options.ref.empty() + !options.user.empty() + options.idFromStdin;
  if (ways != 1) return Usage("revoke needs exactly one of --ref, --user, --id-stdin");
  std::string id;
  if (options.idFromStdin) {
    char line[256];
    if (!std::fgets(line, sizeof line, stdin)) return Usage("no identifier on stdin");
    id = line;
    while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
  }
  const int removed = MeroCgiSessionRevoke(options.idFromStdin ? id.c_str() : nullptr,
                                           options.ref.empty() ? nullptr : options.ref.c_str(),
                                           options.user.empty() ? nullptr : options.user.c_str());
  if (removed == MERO_SESSION_INVALID)
    return Usage("--ref needs 8 hex digits or more, naming exactly one session");
  if (removed < 0) {
    std::fprintf(stderr, "webapi-session: could not revoke; see syslog\n");
    return kStoreFailed;
  }
  std::printf("revoked %d session%s\n", removed, removed == 1 ? "" : "s");
  return removed == 0 ? kNoMatch : kOk;
}

int Purge(const Options& options) {
  const int removed = MeroCgiSessionPurge(options.idleMinutes);
  if (removed < 0) {
    std::fprintf(stderr, "webapi-session: could not purge; see syslog\n");
    return kStoreFailed;
  }
  std::printf("purged %d session%s\n", removed, removed == 1 ? "" : "s");
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  int next = 1;
  if (next + 1 < argc && std::strcmp(argv[next], "--root") == 0) {
    if (argv[next + 1][0] != '/') return Usage("--root takes an absolute path");
    setenv("MERO_APPLIANCE_ROOT", argv[next + 1], 1);
    next += 2;
  }
  if (next >= argc) return Usage(nullptr);
  const std::string command = argv[next];
  if (command == "-h" || command == "--help") {
    std::fputs(kUsageText, stdout);
    return kOk;
  }
  Options options;
  const std::string problem = ParseOptions(argc, argv, next + 1, &options);
  if (!problem.empty()) return Usage(problem.c_str());
  if (command == "create") return Create(options);
  if (command == "list") return List();
  if (command == "revoke") return Revoke(options);
  if (command == "purge") return Purge(options);
  if (command == "path") {
    char path[4096];
    if (!MeroCgiGetSessPath(nullptr, path, sizeof path)) return kStoreFailed;
    std::printf("%s\n", path);
    return kOk;
  }
  return Usage(("unknown command: " + command).c_str());
}
