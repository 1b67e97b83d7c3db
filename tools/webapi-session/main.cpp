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

#include "../common/AdminTool.h"
#include "merocgi.h"
#include "merocore.h"

namespace {

using namespace admin_tool;

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

const admin_tool::UsagePrinter Usage{"webapi-session", kUsageText};

struct Options {
  std::string user, client, registry = "zel", ref;
  std::vector<std::string> privileges;
  long long lifetime = 0;
  int idleMinutes = 0;
  bool endOthers = false, idFromStdin = false;
};

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
  if (options.idFromStdin && !ReadStdinLine(254, &id)) return Usage("no identifier on stdin");
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
  int next = 0, exitCode = kOk;
  if (!admin_tool::FindCommand(argc, argv, Usage, &next, &exitCode)) return exitCode;
  const std::string command = argv[next];
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
