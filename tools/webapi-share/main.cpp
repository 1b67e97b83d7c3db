// webapi-share: the operator's tool for sharing links. A link's id is
// printed once, when it is created, inside the address to hand out; the
// store keeps only its hash, and every other command names a link by its
// ref (the first hex digits of that hash).
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "../common/AdminTool.h"
#include "merosharing.h"

namespace {

using namespace admin_tool;
constexpr int kNoPasswordHash = 4;

constexpr const char kUsageText[] =
    "usage: webapi-share [--root DIR] COMMAND [OPTIONS]\n"
    "\n"
    "  create --item PATH --api API[:METHOD]... --owner NAME [--expires SECONDS]\n"
    "         [--limit N] [--password-stdin] [--disabled]\n"
    "         [--host HOST [--port N] [--https] [--portal NAME]]\n"
    "      Creates a link and prints it, the only time it is shown: with --host\n"
    "      its address (the base address of links, '#', the link id), else the\n"
    "      link id alone. Its ref goes to stderr.\n"
    "      --item      the shared item: an absolute path; a folder shares what\n"
    "                  lies below it. Requests name it in their \"path\" parameter.\n"
    "      --api       an API the link admits, with all its methods, or one\n"
    "                  method of it (API:METHOD); repeat for more\n"
    "      --expires   seconds from now after which the link is refused\n"
    "      --limit     accesses the link admits in all\n"
    "      --password-stdin  a visitor must first prove the password read from\n"
    "                  stdin (one line)\n"
    "  list\n"
    "      One line per link, oldest first, tab-separated: ref, item, APIs,\n"
    "      owner, created, expires, accesses (count/limit), password, state.\n"
    "  show --ref HEX\n"
    "      The link's fields, one per line.\n"
    "  enable --ref HEX | disable --ref HEX\n"
    "      A disabled link is refused until enabled again.\n"
    "  revoke --ref HEX\n"
    "      Removes the link for good; requests through it are refused from now.\n"
    "  purge\n"
    "      Removes expired links, sharing sessions past their lifetime, and\n"
    "      what only they used.\n"
    "  path\n"
    "      Prints the path of the sharing store.\n"
    "\n"
    "--ref takes 8 hex digits or more of a ref. --root DIR sets the appliance\n"
    "root (as MERO_APPLIANCE_ROOT does).\n"
    "Exit status: 0 done, 1 the store failed (see syslog), 2 usage error,\n"
    "3 no link matched, 4 the password could not be hashed (see syslog).\n";

const admin_tool::UsagePrinter Usage{"webapi-share", kUsageText};

struct Options {
  std::string item, owner, ref, host, portal;
  std::vector<std::string> apis;
  long long expiresIn = 0, limit = 0, port = 0;
  bool passwordFromStdin = false, disabled = false, https = false;
};

// Reads the options after the command; "" on success, else the problem.
std::string ParseOptions(int argc, char** argv, int first, Options* options) {
  for (int i = first; i < argc; ++i) {
    const std::string flag = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (flag == "--password-stdin") {
      options->passwordFromStdin = true;
      continue;
    }
    if (flag == "--disabled") {
      options->disabled = true;
      continue;
    }
    if (flag == "--https") {
      options->https = true;
      continue;
    }
    if (!value) return "missing value or unknown option: " + flag;
    ++i;
    if (flag == "--item") {
      options->item = value;
    } else if (flag == "--api") {
      options->apis.push_back(value);
    } else if (flag == "--owner") {
      options->owner = value;
    } else if (flag == "--ref") {
      options->ref = value;
    } else if (flag == "--host") {
      options->host = value;
    } else if (flag == "--portal") {
      options->portal = value;
    } else if (flag == "--expires") {
      if (!ParseNumber(value, 1LL << 40, &options->expiresIn) || options->expiresIn == 0)
        return "--expires takes seconds (1 or more)";
    } else if (flag == "--limit") {
      if (!ParseNumber(value, 1LL << 40, &options->limit) || options->limit == 0)
        return "--limit takes a count (1 or more)";
    } else if (flag == "--port") {
      if (!ParseNumber(value, 65535, &options->port)) return "--port takes 0 to 65535";
    } else {
      return "unknown option: " + flag;
    }
  }
  return "";
}

// A time of the store; 0 is "never".
std::string FormatTime(long long seconds) { return seconds == 0 ? "-" : admin_tool::FormatTime(seconds); }

int Create(const Options& options) {
  if (options.item.empty() || options.apis.empty() || options.owner.empty())
    return Usage("create needs --item, --api and --owner");
  std::string password;
  if (options.passwordFromStdin) {
    if (!ReadStdinLine(MERO_SHARING_MAX_PASSWORD_BYTES, &password)) return Usage("no password on stdin");
    if (password.empty()) return Usage("the password is empty");
  }
  std::string base;
  MERO::sharing::_tag_SHARING_URL_TYPE type;
  if (!options.host.empty() &&
      !MERO::sharing::GetSharingURL(options.host, static_cast<int>(options.port), options.https,
                                    options.portal, base, type))
    return Usage("--host, --port or --portal cannot make an address");
  std::vector<const char*> apis;
  for (const std::string& api : options.apis) apis.push_back(api.c_str());
  MEROSHARING_LINK_INFO link{};
  link.item = options.item.c_str();
  link.apis = apis.data();
  link.apiCount = static_cast<int>(apis.size());
  link.owner = options.owner.c_str();
  link.expires = options.expiresIn ? std::time(nullptr) + options.expiresIn : 0;
  link.accessLimit = options.limit;
  link.enabled = !options.disabled;
  char id[MERO_SHARING_ID_CHARS + 1];
  const int result = MeroSharingLinkCreate(&link, password.c_str(), id, sizeof id);
  if (result == MERO_SHARING_INVALID)
    return Usage("the item must be an absolute path without . or .. parts, each API one word");
  if (result == MERO_SHARING_UNAVAILABLE) {
    std::fprintf(stderr, "webapi-share: the password could not be hashed; see syslog\n");
    return kNoPasswordHash;
  }
  if (result != MERO_SHARING_AUTHORIZED) {
    std::fprintf(stderr, "webapi-share: could not create the link; see syslog\n");
    return kStoreFailed;
  }
  std::printf("%s\n", base.empty() ? id : (base + "#" + id).c_str());
  return kOk;
}

struct Found {
  std::string prefix;
  int matches = 0;
};

std::string Joined(const MEROSHARING_LINK_INFO* link) {
  std::string apis;
  for (int i = 0; i < link->apiCount; ++i) apis += (i ? "," : "") + std::string(link->apis[i]);
  return apis;
}

std::string Accesses(const MEROSHARING_LINK_INFO* link) {
  return link->accessLimit ? std::to_string(link->accessCount) + "/" + std::to_string(link->accessLimit)
                           : "-";
}

void PrintLine(const MEROSHARING_LINK_INFO* link, void*) {
  std::printf("%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", link->ref, link->item, Joined(link).c_str(),
              link->owner, FormatTime(link->created).c_str(), FormatTime(link->expires).c_str(),
              Accesses(link).c_str(), link->hasPassword ? "password" : "-",
              link->enabled ? "enabled" : "disabled");
}

void PrintIfNamed(const MEROSHARING_LINK_INFO* link, void* context) {
  Found* found = static_cast<Found*>(context);
  if (strncasecmp(link->ref, found->prefix.c_str(), found->prefix.size()) != 0) return;
  ++found->matches;
  std::printf("ref: %s\nitem: %s\napis: %s\nowner: %s\ncreated: %s\nexpires: %s\n"
              "accesses: %s\npassword: %s\nstate: %s\n",
              link->ref, link->item, Joined(link).c_str(), link->owner,
              FormatTime(link->created).c_str(), FormatTime(link->expires).c_str(),
              Accesses(link).c_str(), link->hasPassword ? "yes" : "no",
              link->enabled ? "enabled" : "disabled");
}

int StoreFailed(const char* what) {
  std::fprintf(stderr, "webapi-share: could not %s; see syslog\n", what);
  return kStoreFailed;
}

int Changed(int result, const char* what) {
  if (result == MERO_SHARING_INVALID)
    return Usage("--ref needs 8 hex digits or more, naming exactly one link");
  if (result < 0) return StoreFailed(what);
  if (result == 0) {
    std::fprintf(stderr, "webapi-share: no link has that ref\n");
    return kNoMatch;
  }
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
  if (command == "list")
    return MeroSharingLinkList(PrintLine, nullptr) < 0 ? StoreFailed("read the store") : kOk;
  if (command == "show") {
    if (options.ref.size() < 8) return Usage("show needs --ref with 8 hex digits or more");
    Found found{options.ref};
    if (MeroSharingLinkList(PrintIfNamed, &found) < 0) return StoreFailed("read the store");
    return found.matches == 0 ? kNoMatch : kOk;
  }
  if (command == "enable" || command == "disable")
    return Changed(MeroSharingLinkSetEnabled(options.ref.c_str(), command == "enable"),
                   "change the link");
  if (command == "revoke") return Changed(MeroSharingLinkRevoke(options.ref.c_str()), "revoke");
  if (command == "purge") {
    const int removed = MeroSharingPurge(std::time(nullptr));
    if (removed < 0) return StoreFailed("purge");
    std::printf("purged %d link%s\n", removed, removed == 1 ? "" : "s");
    return kOk;
  }
  if (command == "path") {
    char path[4096];
    if (!MeroSharingGetDbPath(path, sizeof path)) return kStoreFailed;
    std::printf("%s\n", path);
    return kOk;
  }
  return Usage(("unknown command: " + command).c_str());
}
