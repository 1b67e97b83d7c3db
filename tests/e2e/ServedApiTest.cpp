// The example API behind a real web server on 127.0.0.1, laid out by the
// same script as the demo, driven with libcurl as a browser would call it.
// E2E_SERVER picks the server and so the configuration of examples/deploy/
// it runs: lighttpd (the default), nginx (in front of fcgiwrap) or apache
// (mod_cgid). Where the servers differ, the cases say how. E2E_MODE=fork
// (lighttpd only) serves every program as a fork server lighttpd starts,
// instead of as CGI programs.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Answer {
  long status = 0;
  std::string headers;
  std::string body;
  std::vector<std::string> cookieJar;  // what the client kept, Netscape format
};

struct Request {
  Request(std::string path_, std::string cookie_ = "", std::string post_ = "",
          std::vector<std::string> headers_ = {})
      : path(std::move(path_)), cookie(std::move(cookie_)), post(std::move(post_)),
        headers(std::move(headers_)) {}
  std::string path;  // after /api/
  std::string cookie;
  std::string post;  // POST body when not empty
  std::vector<std::string> headers;
};

size_t Append(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

// A word for the shell, whatever it holds.
std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string ReadFile(const fs::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  std::string content = text.str();
  while (!content.empty() && content.back() == '\n') content.pop_back();
  return content;
}

// The children of process `parent` named `name`.
std::vector<pid_t> ChildrenOf(pid_t parent, const std::string& name) {
  std::vector<pid_t> found;
  std::ifstream children("/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children");
  for (pid_t child; children >> child;) {
    std::ifstream comm("/proc/" + std::to_string(child) + "/comm");
    std::string command;
    if (std::getline(comm, command) && command == name) found.push_back(child);
  }
  return found;
}

class ServedApiTest : public ::testing::Test {
 protected:
  static std::string Server() {
    const char* name = std::getenv("E2E_SERVER");
    return name && *name ? name : "lighttpd";
  }
  static bool Is(const char* name) { return Server() == name; }
  static bool Forking() {
    const char* mode = std::getenv("E2E_MODE");
    return mode && std::string(mode) == "fork";
  }

  // What differs between the servers, each difference seen on Debian 12.
  struct Traits {
    // The library writes "Content-type"; nginx and Apache rename the
    // header as they parse it, lighttpd passes it on as written.
    const char* contentType;
    const char* serverHeader;  // each names itself
    // A body over the parameter-line limit, which the program does not
    // read: lighttpd answers with the program's envelope; fcgiwrap fails
    // writing the rest into the pipe and nginx passes on its 502; Apache
    // closes the connection without an answer.
    long tooLargeStatus;
    const char* tooLargeBody;
    CURLcode tooLargeResult;
    // A program that exits printing nothing.
    long silentStatus;
  };
  static Traits Expected() {
    if (Is("nginx"))
      return {"Content-Type: text/plain; charset=\"UTF-8\"", "\r\nServer: nginx/", 502,
              "An error occurred while reading the request\n", CURLE_OK, 502};
    if (Is("apache"))
      return {"Content-Type: text/plain; charset=\"UTF-8\"", "\r\nServer: Apache/", 0, "",
              CURLE_GOT_NOTHING, 500};
    return {"Content-type: text/plain; charset=\"UTF-8\"", "\r\nServer: lighttpd/", 200,
            "{\"error\":{\"code\":101},\"success\":false}\n", CURLE_OK, 500};
  }

  static void SetUpTestSuite() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // Apache runs its CGI programs as another user when started as root,
    // and nginx's workers could not reach fcgiwrap's socket: as root, the
    // whole test becomes nobody, in a directory of nobody's so that it can
    // remove its work directory afterwards.
    fs::path parent = E2E_BUILD_DIR;
    if (!Is("lighttpd") && geteuid() == 0) {
      parent /= "e2e-nobody";
      ASSERT_TRUE(BecomeNobody(parent));
    }
    std::string templ = (parent / ("e2e-" + Server() + (Forking() ? "-fork" : "") + "-XXXXXX")).string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    work_ = templ;
    setenv(kServerMark, "inherited", 1);
    for (int attempt = 0; attempt < 3 && servers_.empty(); ++attempt) StartServer();
    ASSERT_FALSE(servers_.empty()) << Server() << " did not start; see " << work_ << "/logs";
    session_ = SessionOf("--user demo --client 127.0.0.1 --registry demo");
    adminSession_ = SessionOf("--user root --client 127.0.0.1 --registry demoadmin --privilege admin");
    password_ = ReadFile(work_ / "demo-password");
  }

  static bool BecomeNobody(const fs::path& home) {
    const passwd* nobody = getpwnam("nobody");
    std::error_code ignored;
    fs::create_directory(home, ignored);
    if (!nobody || chown(home.c_str(), nobody->pw_uid, nobody->pw_gid) != 0) return false;
    return setgroups(0, nullptr) == 0 && setgid(nobody->pw_gid) == 0 &&
           setuid(nobody->pw_uid) == 0;
  }

  // Each server runs in a process group of its own, led by the pid we keep,
  // so that stopping it by that pid also stops the workers it forked.
  static void Stop(pid_t pid) {
    kill(-pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 100 && waitpid(pid, &status, WNOHANG) == 0; ++i) usleep(50000);
    if (waitpid(pid, &status, WNOHANG) == 0) {
      kill(-pid, SIGKILL);
      waitpid(pid, &status, 0);
    }
    kill(-pid, SIGKILL);  // workers that outlived their parent
  }

  static void TearDownTestSuite() {
    for (auto pid = servers_.rbegin(); pid != servers_.rend(); ++pid) Stop(*pid);
    servers_.clear();
    std::error_code ignored;
    if (!work_.empty() && !std::getenv("E2E_KEEP")) fs::remove_all(work_, ignored);
    curl_global_cleanup();
  }

  static int FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      port = ntohs(address.sin_port);
    close(probe);
    return port;
  }

  static bool Answers(int port) {
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool up = connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(client);
    return up;
  }

  // Runs a server program with its output in logs/NAME.log; Debian puts
  // them all in /usr/sbin, which is not on most users' PATH.
  static pid_t Spawn(const std::string& name, std::vector<std::string> arguments) {
    const pid_t pid = fork();
    if (pid == 0) {
      setpgid(0, 0);
      const std::string log = (work_ / "logs" / (name + ".log")).string();
      freopen(log.c_str(), "w", stdout);
      freopen(log.c_str(), "a", stderr);
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      execv(("/usr/sbin/" + arguments[0]).c_str(), argv.data());
      _exit(127);
    }
    if (pid > 0) setpgid(pid, pid);  // either side may run first
    return pid;
  }

  // Waits until `ready` holds while `pid` lives; false (and `pid` stopped)
  // if it exited or took more than five seconds.
  template <typename Ready>
  static bool WaitFor(pid_t pid, Ready ready) {
    for (int i = 0; i < 100; ++i) {
      if (ready()) return true;
      int status = 0;
      if (waitpid(pid, &status, WNOHANG) == pid) return false;  // maybe the port was taken
      usleep(50000);
    }
    Stop(pid);
    return false;
  }

  static void StartServer() {
    port_ = FreePort();
    const std::string layout = "bash " + Quoted(E2E_LAYOUT_SCRIPT) + " " + Quoted(E2E_BUILD_DIR) +
                               " " + Quoted(work_.string()) + " " + std::to_string(port_) + " " +
                               Server() + (Forking() ? " fork" : " cgi");
    setenv("EXTRA_PROGRAMS", E2E_MISBEHAVE, 1);
    setenv("FORK_OPTIONS_misbehave", "--request-timeout 3", 1);
    ASSERT_EQ(std::system(layout.c_str()), 0) << layout;
    const std::string work = work_.string();
    std::vector<pid_t> started;
    pid_t front = 0;
    if (Is("lighttpd")) {
      front = Spawn("lighttpd", {"lighttpd", "-D", "-f", work + "/lighttpd.conf"});
    } else if (Is("nginx")) {
      const std::string socket = work + "/fcgiwrap.socket";
      const pid_t wrapper = Spawn("fcgiwrap", {"fcgiwrap", "-c", "4", "-s", "unix:" + socket});
      if (!WaitFor(wrapper, [&] { return access(socket.c_str(), F_OK) == 0; })) return;
      started.push_back(wrapper);
      front = Spawn("nginx", {"nginx", "-p", work, "-c", work + "/nginx.conf", "-e",
                              work + "/logs/error.log"});
    } else if (Is("apache")) {
      front = Spawn("apache2", {"apache2", "-DFOREGROUND", "-f", work + "/apache.conf"});
    } else {
      FAIL() << "E2E_SERVER is lighttpd, nginx or apache, not " << Server();
    }
    if (front > 0 && WaitFor(front, [] { return Answers(port_); })) {
      started.push_back(front);
      servers_ = started;
      return;
    }
    for (pid_t pid : started) Stop(pid);
  }

  static Answer Fetch(const Request& request) {
    CURLcode result = CURLE_OK;
    Answer answer = FetchWith(request, &result);
    EXPECT_EQ(result, CURLE_OK) << curl_easy_strerror(result) << " for " << request.path;
    return answer;
  }

  // The same, for the cases where a server may answer nothing at all.
  static Answer FetchWith(const Request& request, CURLcode* result) {
    Answer answer;
    CURL* curl = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(port_) + "/api/" + request.path;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer.headers);
    curl_easy_setopt(curl, CURLOPT_COOKIEFILE, "");  // keep cookies as a browser does
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    if (!request.cookie.empty()) curl_easy_setopt(curl, CURLOPT_COOKIE, request.cookie.c_str());
    if (!request.post.empty()) {
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.post.data());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.post.size()));
    }
    curl_slist* headers = nullptr;
    bool origin = false;
    for (const std::string& header : request.headers) {
      headers = curl_slist_append(headers, header.c_str());
      origin = origin || header.rfind("Origin:", 0) == 0;
    }
    // A POST from our own page, as a browser sends it; the CSRF cases name
    // their own Origin (or an empty one, which curl then leaves out).
    if (!request.post.empty() && !origin)
      headers = curl_slist_append(headers, ("Origin: http://127.0.0.1:" + std::to_string(port_)).c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    *result = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_slist* jar = nullptr;
    curl_easy_getinfo(curl, CURLINFO_COOKIELIST, &jar);
    for (curl_slist* entry = jar; entry; entry = entry->next) answer.cookieJar.push_back(entry->data);
    curl_slist_free_all(jar);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return answer;
  }

  static std::string SessionOf(const std::string& arguments) {
    const std::string command = Quoted(E2E_SESSION_TOOL) + " --root " +
                                Quoted((work_ / "root").string()) + " create " + arguments;
    std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), pclose);
    char id[128] = {};
    EXPECT_NE(std::fgets(id, sizeof id, out.get()), nullptr) << command;
    std::string text = id;
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }

  static Answer FetchFromScript(const std::string& script);

  // The fork server lighttpd started for program `name` (0 when CGI).
  static pid_t ForkServerOf(const std::string& name) {
    const std::vector<pid_t> found = Forking() ? ChildrenOf(servers_.back(), name) : std::vector<pid_t>();
    return found.empty() ? 0 : found.front();
  }
  // `count` requests to the program that misbehaves, each sleeping `ms`.
  static std::vector<std::string> Sleepers(size_t count, int ms) {
    return std::vector<std::string>(count, "http://127.0.0.1:" + std::to_string(port_) +
                                               "/api/misbehave?do=sleep&ms=" + std::to_string(ms));
  }
  // lighttpd gives the programs it starts its breakage log as standard error.
  static std::string ForkServerLog() { return ReadFile(work_ / "logs/cgi-stderr.log"); }
  // The processes answering a request of program `name` now.
  static std::vector<pid_t> RequestProcesses(const std::string& name) {
    return ChildrenOf(Forking() ? ForkServerOf(name) : servers_.back(), name);
  }
  static constexpr const char* kServerMark = "WEBAPI_E2E_SERVER_MARK";

  static std::string Error(int code) {
    return R"({"error":{"code":)" + std::to_string(code) + R"(},"success":false})" + "\n";
  }

  static fs::path work_;
  static int port_;
  static std::vector<pid_t> servers_;  // in the order they started
  static std::string session_, adminSession_, password_;
};

fs::path ServedApiTest::work_;
int ServedApiTest::port_ = 0;
std::vector<pid_t> ServedApiTest::servers_;
std::string ServedApiTest::session_, ServedApiTest::adminSession_, ServedApiTest::password_;

const char kSysinfo[] = "sysinfo?api=Demo.SystemInfo&method=get&version=1";

TEST_F(ServedApiTest, SuccessCarriesTheEnvelopeAndSecurityHeaders) {
  const Answer answer = Fetch({kSysinfo, "id=" + session_});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body.rfind(R"({"data":{"hostname":)", 0), 0u) << answer.body;
  EXPECT_NE(answer.body.find(R"("success":true})"), std::string::npos);
  for (const char* header :
       {Expected().contentType, Expected().serverHeader, "X-Frame-Options: SAMEORIGIN",
        "X-Content-Type-Options: nosniff", "Referrer-Policy: same-origin",
        "Content-Security-Policy: default-src 'self'"})
    EXPECT_NE(answer.headers.find(header), std::string::npos) << header << "\n" << answer.headers;
  // HSTS only on https: a plain request does not get it, one through a TLS proxy does.
  EXPECT_EQ(answer.headers.find("Strict-Transport-Security"), std::string::npos);
  const Answer proxied = Fetch({kSysinfo, "id=" + session_, "", {"X-Forwarded-Proto: https"}});
  EXPECT_NE(proxied.headers.find("Strict-Transport-Security: max-age="), std::string::npos);
}

TEST_F(ServedApiTest, EachValidationAndSessionError) {
  const std::string other = SessionOf("--user carol --client 10.9.9.9 --registry demo");
  const std::string replaced = SessionOf("--user dave --client 127.0.0.1 --registry demo");
  SessionOf("--user dave --client 127.0.0.1 --registry demo --end-others");
  const std::string brief = SessionOf("--user erin --client 127.0.0.1 --registry demo --lifetime 1");
  sleep(2);
  const std::string id = "id=" + session_;
  const struct {
    Request request;
    std::string body;
  } cases[] = {
      {{"sysinfo?method=get&version=1", id}, Error(101)},
      {{"sysinfo?api=Demo.SystemInfo&method=get&version=one", id}, Error(101)},
      {{"sysinfo?api=Demo.Nothing&method=get&version=1", id}, Error(102)},
      {{"sysinfo?api=Demo.SystemInfo&method=put&version=1", id}, Error(103)},
      {{"sysinfo?api=Demo.SystemInfo&method=get&version=2", id}, Error(104)},
      {{kSysinfo, ""}, Error(105)},
      {{kSysinfo, "id=" + std::string(43, 'x')}, Error(105)},
      {{kSysinfo, "id=" + brief}, Error(106)},
      {{kSysinfo, "id=" + other}, Error(107)},
      {{kSysinfo, "id=" + replaced}, Error(107)},
      {{"maintenance?api=Demo.Maintenance&method=status&version=1", id}, Error(105)},
      {{"maintenance?api=Demo.Maintenance&method=status&version=1", "id=" + adminSession_},
       R"({"data":{"admin":"root","maintenance":false},"success":true})" "\n"},
      // The session identifier as a parameter instead of the cookie.
      {{std::string(kSysinfo) + "&_sid=" + session_, ""}, ""},
  };
  for (const auto& c : cases) {
    const Answer answer = Fetch(c.request);
    EXPECT_EQ(answer.status, 200) << c.request.path;
    if (c.body.empty())
      EXPECT_NE(answer.body.find(R"("success":true)"), std::string::npos) << c.request.path;
    else
      EXPECT_EQ(answer.body, c.body) << c.request.path;
  }
}

// A session of the default registry is what the platform defaults admit
// when an auth file cannot be read; it must never reach an API that asks
// for a privilege.
TEST_F(ServedApiTest, AuthFilesOnlyTheServerOpensNeverFallBackToNoPrivilege) {
  const fs::path dir = work_ / "root/usr/mero/meroman/webapi";
  const fs::perms others = fs::perms::group_all | fs::perms::others_all;
  EXPECT_EQ(fs::status(dir).permissions() & others, fs::perms::none);
  for (const auto& entry : fs::directory_iterator(dir))
    EXPECT_EQ(entry.status().permissions() & others, fs::perms::none) << entry.path();

  const std::string plain = SessionOf("--user frank --client 127.0.0.1 --registry current.users");
  const std::string status = "maintenance?api=Demo.Maintenance&method=status&version=1";
  const fs::path auth = dir / "demoadmin.auth";
  const std::string kept = ReadFile(auth);
  for (const char* text : {"{\"privilege\":\"admin\"}\n}\n", "{\"privilege\":\"adm"}) {
    std::ofstream(auth, std::ios::trunc) << text;
    EXPECT_EQ(Fetch({status, "id=" + plain}).body, Error(105)) << text;
  }
  std::ofstream(auth, std::ios::trunc) << kept;
  EXPECT_EQ(Fetch({status, "id=" + adminSession_}).body,
            R"({"data":{"admin":"root","maintenance":false},"success":true})" "\n");
}

TEST_F(ServedApiTest, SettingsRoundTripCookieAndDownload) {
  const std::string id = "id=" + session_;
  const Answer refused = Fetch({"settings", id, "api=Demo.Settings&method=set&version=1&theme=blue"});
  EXPECT_EQ(refused.body, R"({"error":{"code":120,"errors":{"theme":"light or dark"}},"success":false})" "\n");
  EXPECT_EQ(refused.headers.find("Set-Cookie"), std::string::npos);

  const Answer saved = Fetch({"settings", id, "api=Demo.Settings&method=set&version=1&theme=dark"});
  EXPECT_NE(saved.headers.find("Set-Cookie: theme=dark; Path=/; HttpOnly; SameSite=Strict\r\n"),
            std::string::npos)
      << saved.headers;
  // What the browser keeps: a host-only, HttpOnly session cookie for "/".
  ASSERT_EQ(saved.cookieJar.size(), 1u);
  EXPECT_EQ(saved.cookieJar[0], "#HttpOnly_127.0.0.1\tFALSE\t/\tFALSE\t0\ttheme\tdark");
  const Answer overHttps =
      Fetch({"settings", id, "api=Demo.Settings&method=set&version=1",
             {"X-Forwarded-Proto: https", "Origin: https://127.0.0.1:" + std::to_string(port_)}});
  EXPECT_NE(overHttps.headers.find("Set-Cookie: theme=dark; Path=/; Secure; HttpOnly"),
            std::string::npos);

  // A JSON body, with api/method/version in the query string.
  const Answer json = Fetch({"settings?api=Demo.Settings&method=set&version=1", id,
                             R"({"title":"Lab NAS","refresh_seconds":60})",
                             {"Content-Type: application/json"}});
  EXPECT_EQ(json.body, R"({"data":{"refresh_seconds":60,"theme":"dark","title":"Lab NAS"},"success":true})" "\n");

  const Answer download = Fetch({"settings?api=Demo.Settings&method=export&version=1", id});
  EXPECT_NE(download.headers.find("Content-Disposition: attachment; filename=\"settings.json\""),
            std::string::npos);
  EXPECT_EQ(download.body, R"({"refresh_seconds":60,"theme":"dark","title":"Lab NAS"})" "\n");
  // The download's handler owns its whole output, a refusal included.
  EXPECT_EQ(Fetch({"settings?api=Demo.Settings&method=export&version=1", ""}).body, Error(105));
}

TEST_F(ServedApiTest, HostileRequestsGetAnOrdinaryAnswer) {
  const std::string id = "id=" + session_;
  // A Host header that is no origin, or none the server could route: the
  // request is refused by the server or answered as usual, never with a
  // crashed program (a 5xx) or a half answer.
  for (const char* host : {"Host: evil.example", "Host: a\"b<script>", "Host: [::1",
                           "Host: 127.0.0.1:99999999999", "Host:"}) {
    const Answer answer = Fetch({kSysinfo, id, "", {host}});
    if (answer.status == 200)
      EXPECT_NE(answer.body.find(R"("success":true})"), std::string::npos) << host;
    else
      EXPECT_EQ(answer.status, 400) << host;
  }
  // A body over the 1 MiB parameter-line limit is refused whole: no
  // parameter at all, so 101 where the server lets the envelope through,
  // and nothing of it is read as parameters (the theme stays unsaved).
  const std::string big =
      "api=Demo.Settings&method=set&version=1&theme=dark&pad=" + std::string(1536 * 1024, 'a');
  CURLcode result = CURLE_OK;
  const Answer tooLarge = FetchWith({"settings", id, big}, &result);
  EXPECT_EQ(result, Expected().tooLargeResult) << curl_easy_strerror(result);
  if (result == CURLE_OK) {
    EXPECT_EQ(tooLarge.status, Expected().tooLargeStatus);
  }
  EXPECT_EQ(tooLarge.body, Expected().tooLargeBody);
  EXPECT_EQ(tooLarge.headers.find("Set-Cookie"), std::string::npos);
}

// Answers one request with a shell script in place of the maintenance
// program, which is put back afterwards.
Answer ServedApiTest::FetchFromScript(const std::string& script) {
  const fs::path program = work_ / "cgi/maintenance";
  fs::remove(program);
  std::ofstream(program) << "#!/bin/sh\n" << script;
  fs::permissions(program, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
  const Answer answer = Fetch({"maintenance", "id=" + adminSession_});
  fs::remove(program);
  fs::create_symlink(fs::path(E2E_BUILD_DIR) / "examples/maintenance", program);
  return answer;
}

TEST_F(ServedApiTest, ProgramThatPrintsNothingIsAServerError) {
  if (Forking()) GTEST_SKIP() << "a script is no fork server";
  const Answer silent = FetchFromScript("exit 0\n");
  EXPECT_EQ(silent.status, Expected().silentStatus) << silent.headers << silent.body;
  EXPECT_EQ(silent.body.find("success"), std::string::npos) << silent.body;
}

// What the server's own environment holds (the test set kServerMark before
// starting it) reaches the programs only through fcgiwrap.
TEST_F(ServedApiTest, ServerEnvironmentReachesProgramsOnlyThroughFcgiwrap) {
  if (Forking()) GTEST_SKIP() << "a script is no fork server";
  const Answer answer = FetchFromScript(std::string("printf 'Content-Type: text/plain\\r\\n\\r\\n%s\\n' \"${") +
                                        kServerMark + ":-unset}\"\n");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, Is("nginx") ? "inherited\n" : "unset\n");
}

namespace {

struct Fetched {
  long status = 0;
  std::string body;
};

// Sends every request at once; `tick` is called about every 20 ms while
// they run, with the milliseconds since the start.
std::vector<Fetched> FetchConcurrently(const std::vector<std::string>& urls, const std::string& cookie,
                                       const std::function<void(long)>& tick = nullptr) {
  CURLM* multi = curl_multi_init();
  std::vector<Fetched> answers(urls.size());
  std::vector<CURL*> handles;
  for (size_t i = 0; i < urls.size(); ++i) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, urls[i].c_str());
    if (!cookie.empty()) curl_easy_setopt(curl, CURLOPT_COOKIE, cookie.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answers[i].body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    curl_multi_add_handle(multi, curl);
    handles.push_back(curl);
  }
  const auto start = std::chrono::steady_clock::now();
  int running = 0;
  do {
    curl_multi_perform(multi, &running);
    curl_multi_poll(multi, nullptr, 0, 20, nullptr);
    if (tick)
      tick(static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count()));
  } while (running > 0);
  for (size_t i = 0; i < urls.size(); ++i) {
    curl_easy_getinfo(handles[i], CURLINFO_RESPONSE_CODE, &answers[i].status);
    curl_multi_remove_handle(multi, handles[i]);
    curl_easy_cleanup(handles[i]);
  }
  curl_multi_cleanup(multi);
  return answers;
}

}  // namespace

TEST_F(ServedApiTest, FiftyConcurrentRequestsAllAnsweredCorrectly) {
  const std::vector<std::string> urls(50, "http://127.0.0.1:" + std::to_string(port_) + "/api/" + kSysinfo);
  int good = 0;
  for (const Fetched& answer : FetchConcurrently(urls, "id=" + session_)) {
    const bool ok = answer.status == 200 && answer.body.rfind(R"({"data":{"hostname":)", 0) == 0 &&
                    answer.body.find(R"("success":true})") != std::string::npos;
    EXPECT_TRUE(ok) << answer.status << " " << answer.body;
    good += ok;
  }
  EXPECT_EQ(good, 50);
}

// The fork server's own cases, on the program that misbehaves on request
// (at most 16 request processes, each stopped after 3 s).

TEST_F(ServedApiTest, ACrashedOrHungRequestIsAnsweredAndTheServerGoesOn) {
  if (!Forking()) GTEST_SKIP() << "a fork server's case";
  const pid_t server = ForkServerOf("misbehave");
  ASSERT_GT(server, 0);
  const Answer crashed = Fetch({"misbehave?do=crash"});
  EXPECT_EQ(crashed.status, 500) << crashed.headers << crashed.body;
  const auto start = std::chrono::steady_clock::now();
  const Answer hung = Fetch({"misbehave?do=hang"});
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(hung.status, 504) << hung.headers << hung.body;
  EXPECT_GE(waited, std::chrono::milliseconds(2900));
  EXPECT_TRUE(ChildrenOf(server, "misbehave").empty()) << "the hung process still runs";
  const Answer next = Fetch({"misbehave?do=sleep&ms=0"});
  EXPECT_EQ(next.status, 200);
  EXPECT_EQ(next.body.rfind("pid ", 0), 0u) << next.body;
  EXPECT_EQ(ForkServerOf("misbehave"), server);
  const std::string log = ForkServerLog();
  EXPECT_NE(log.find("stopped after 3 s"), std::string::npos) << log;
  // (Under the sanitizers the crash is reported and the process exits.)
  EXPECT_TRUE(log.find("ended by signal 11") != std::string::npos ||
              log.find("before finishing its answer") != std::string::npos)
      << log;
}

TEST_F(ServedApiTest, TwoHundredConnectionsWaitForSixteenRequestProcesses) {
  if (!Forking()) GTEST_SKIP() << "a fork server's case";
  const pid_t server = ForkServerOf("misbehave");
  ASSERT_GT(server, 0);
  size_t most = 0;
  const auto answers =
      FetchConcurrently(Sleepers(200, 50), "", [&](long) { most = std::max(most, ChildrenOf(server, "misbehave").size()); });
  std::set<std::string> processes;
  for (const Fetched& answer : answers) {
    EXPECT_EQ(answer.status, 200) << answer.body;
    processes.insert(answer.body);
  }
  EXPECT_EQ(processes.size(), answers.size()) << "a process answered two requests";
  EXPECT_LE(most, 16u);
  EXPECT_GT(most, 1u) << "the requests never ran side by side";
}

TEST_F(ServedApiTest, RestartsUnderLoadFailNoRequest) {
  if (!Forking()) GTEST_SKIP() << "a fork server's case";
  const pid_t server = ForkServerOf("misbehave");
  ASSERT_GT(server, 0);
  int restarts = 0;
  const auto answers = FetchConcurrently(Sleepers(120, 200), "", [&](long ms) {
    if (restarts < 3 && ms >= 200 + 400 * restarts && kill(server, SIGHUP) == 0) ++restarts;
  });
  EXPECT_EQ(restarts, 3);
  for (const Fetched& answer : answers) EXPECT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(ForkServerOf("misbehave"), server) << "the server was replaced, not restarted in place";
  const std::string log = ForkServerLog();
  size_t restarted = 0;
  for (size_t at = log.find("restarted;"); at != std::string::npos; at = log.find("restarted;", at + 1))
    ++restarted;
  EXPECT_EQ(restarted, 3u) << log;
}

}  // namespace

namespace {

// Adds an account to the demo's PAM password file.
void AddAccount(const fs::path& work, const std::string& user, const std::string& password) {
  const std::string command = "printf '%s:%s\\n' " + Quoted(user) + " \"$(printf %s " +
                              Quoted(password) + " | openssl passwd -6 -stdin)\" >> " +
                              Quoted((work / "root/etc/webapi-demo.passwd").string());
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

std::string LoginBody(const std::string& user, const std::string& password) {
  return "api=Demo.Auth&method=login&version=1&user=" + user + "&password=" + password;
}

std::string CookieValue(const Answer& answer, const std::string& name) {
  for (const std::string& line : answer.cookieJar) {
    const size_t tab = line.rfind('\t');
    const size_t nameTab = line.rfind('\t', tab - 1);
    if (line.compare(nameTab + 1, tab - nameTab - 1, name) == 0) return line.substr(tab + 1);
  }
  return "";
}

}  // namespace

TEST_F(ServedApiTest, LoginCallThenLogoutRefusesTheOldCookie) {
  const Answer login = Fetch({"auth", "", LoginBody("demo", password_)});
  ASSERT_NE(login.body.find(R"("success":true)"), std::string::npos) << login.body;
  EXPECT_NE(login.headers.find("; Path=/; HttpOnly; SameSite=Strict\r\n"), std::string::npos)
      << login.headers;
  const std::string id = CookieValue(login, "id");
  ASSERT_EQ(id.size(), 43u);
  const size_t tokenAt = login.body.find(R"("token":")");
  ASSERT_NE(tokenAt, std::string::npos);
  const std::string token = login.body.substr(tokenAt + 9, 32);
  EXPECT_EQ(login.body, R"({"data":{"admin":false,"token":")" + token + R"(","user":"demo"},"success":true})" "\n");

  const std::string cookie = "id=" + id;
  EXPECT_NE(Fetch({kSysinfo, cookie}).body.find(R"("success":true)"), std::string::npos);
  // A state-changing request needs the token or our own Origin.
  const std::string set = "api=Demo.Settings&method=set&version=1&refresh_seconds=45";
  const struct {
    std::vector<std::string> headers;
    bool passes;
  } csrf[] = {
      {{"Origin:"}, false},
      {{"Origin: http://evil.example"}, false},
      {{"Origin:", "X-Mero-Token: " + std::string(32, 'A')}, false},
      {{"Origin:", "X-Mero-Token: " + token}, true},
      {{}, true},  // our own Origin
  };
  for (const auto& c : csrf) {
    const Answer answer = Fetch({"settings", cookie, set, c.headers});
    if (c.passes)
      EXPECT_NE(answer.body.find(R"("success":true)"), std::string::npos) << answer.body;
    else
      EXPECT_EQ(answer.body, Error(105)) << (c.headers.empty() ? "" : c.headers.back());
  }

  const Answer logout =
      Fetch({"auth", cookie, "api=Demo.Auth&method=logout&version=1", {"X-Mero-Token: " + token}});
  EXPECT_EQ(logout.body, R"({"success":true})" "\n");
  EXPECT_NE(logout.headers.find("Set-Cookie: id=; Max-Age=0; Path=/"), std::string::npos)
      << logout.headers;
  EXPECT_EQ(Fetch({kSysinfo, cookie}).body, Error(105));
  EXPECT_EQ(Fetch({"auth?api=Demo.Auth&method=whoami&version=1", cookie}).body, Error(105));
}

TEST_F(ServedApiTest, WrongPasswordsAreThrottledEvenForTheRightOne) {
  AddAccount(work_, "frank", "right-horse");
  EXPECT_EQ(Fetch({"auth", "", LoginBody("frank", "wrong")}).body, Error(401));
  for (int attempt = 2; attempt <= 5; ++attempt)
    EXPECT_EQ(Fetch({"auth", "", LoginBody("frank", "wrong")}).body, Error(401)) << attempt;
  // Locked for a minute: the right password is not even checked.
  const Answer locked = Fetch({"auth", "", LoginBody("FRANK", "right-horse")});
  EXPECT_EQ(locked.body.rfind(R"({"error":{"code":429,"errors":{"retry_after":)", 0), 0u) << locked.body;
  const int retryAfter = std::atoi(locked.body.c_str() + locked.body.find("retry_after") + 13);
  EXPECT_GE(retryAfter, 58);
  EXPECT_LE(retryAfter, 60);
  EXPECT_EQ(CookieValue(locked, "id"), "");
  // Another user from the same address is not locked out.
  EXPECT_NE(Fetch({"auth", "", LoginBody("demo", password_)}).body.find(R"("success":true)"),
            std::string::npos);
}

TEST_F(ServedApiTest, LoginOfAUserCategoryNotAllowedLeavesNoSession) {
  AddAccount(work_, "DOM\\eve", "domain-pass");
  const Answer refused = Fetch({"auth", "", LoginBody("DOM%5Ceve", "domain-pass")});
  EXPECT_EQ(refused.body, Error(403));
  EXPECT_EQ(CookieValue(refused, "id"), "");
  EXPECT_EQ(Fetch({"auth", "", LoginBody("demo", "")}).body, Error(401));
  EXPECT_EQ(Fetch({"auth", "", "api=Demo.Auth&method=login&version=1&user=demo"}).body, Error(400));
}

namespace {

// Runs the link tool under the demo's root; its output without the last
// line feed.
std::string ShareTool(const fs::path& work, const std::string& arguments,
                      const std::string& input = "") {
  const std::string command = (input.empty() ? "" : "printf '%s\\n' " + Quoted(input) + " | ") +
                              Quoted(E2E_SHARE_TOOL) + " --root " +
                              Quoted((work / "root").string()) + " " + arguments;
  std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), pclose);
  std::string text;
  for (char line[512]; std::fgets(line, sizeof line, out.get());) text += line;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// Uploads through the server as curl sends them, to Demo.Files.

constexpr unsigned long long kMiB = 1024 * 1024;

// A file of `size` bytes that takes almost no disk: holes, with 64 KiB of
// varied bytes every 32 MiB and at the end, so a lost, repeated or
// misplaced piece changes the file's hash.
void SparseSource(const fs::path& file, unsigned long long size) {
  std::ofstream(file, std::ios::binary);
  fs::resize_file(file, size);
  std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
  std::string island(64 * 1024, '\0');
  unsigned long long state = size;
  for (unsigned long long at = 0; at < size; at = std::min(at + 32 * kMiB, size - island.size())) {
    for (char& c : island) c = static_cast<char>((state = state * 6364136223846793005ULL + 1) >> 56);
    out.seekp(static_cast<std::streamoff>(at));
    out.write(island.data(), static_cast<std::streamsize>(island.size()));
    if (at == size - island.size()) break;
  }
}

std::string Sha256Of(const fs::path& file) {
  std::unique_ptr<FILE, int (*)(FILE*)> out(popen(("sha256sum " + Quoted(file.string())).c_str(), "r"), pclose);
  char hash[65] = {};
  EXPECT_EQ(std::fread(hash, 1, 64, out.get()), 64u) << file;
  return hash;
}


// The peak resident memory of process `pid` so far, in KiB (0 when gone).
long PeakKib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

// Starts curl uploading `source` as file "file" named `name`; its answer
// goes to `answer`.
pid_t StartUpload(int port, const std::string& session, const fs::path& source,
                  const std::string& name, const fs::path& answer, const char* limitRate) {
  const std::string url = "http://127.0.0.1:" + std::to_string(port) +
                          "/api/files?api=Demo.Files&method=upload&version=1";
  const std::string form = "file=@" + source.string() + ";filename=" + name;
  const std::string cookie = "id=" + session;
  const std::string origin = "Origin: http://127.0.0.1:" + std::to_string(port);
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<const char*> args = {"curl", "-s", "--max-time", "600", "-o", answer.c_str(), "-b",
                                     cookie.c_str(), "-H", origin.c_str(), "-F", form.c_str()};
    if (limitRate) args.insert(args.end(), {"--limit-rate", limitRate});
    args.push_back(url.c_str());
    args.push_back(nullptr);
    execvp("curl", const_cast<char* const*>(args.data()));
    _exit(127);
  }
  return pid;
}

}  // namespace

TEST_F(ServedApiTest, SharingLinksWithAndWithoutTheirPassword) {
  const std::string address = ShareTool(
      work_, "create --item /docs --api Demo.Share --owner demo --host 127.0.0.1 --port " +
                 std::to_string(port_));
  const std::string prefix = "http://127.0.0.1:" + std::to_string(port_) + "/sharing/#";
  ASSERT_EQ(address.rfind(prefix, 0), 0u) << address;
  const std::string open = address.substr(prefix.size());
  // The address leads to the page that opens links; the page starts at the link's item.
  // (Only the lighttpd configuration serves the pages; the others serve the API.)
  if (Is("lighttpd")) {
    EXPECT_NE(Fetch({"../sharing/"}).body.find("<script src=\"sharing.js\""), std::string::npos);
  }
  EXPECT_EQ(Fetch({"share?api=Demo.ShareLink&method=get&version=1", "", "", {"X-Mero-Sharing: " + open}}).body,
            R"({"data":{"item":"/docs"},"success":true})" "\n");
  const std::string list = "share?api=Demo.Share&method=list&version=1&path=";
  const Answer listed = Fetch({list + "/docs&_sharing_id=" + open});
  EXPECT_EQ(listed.body,
            R"({"data":{"items":[{"name":"readme.txt","size":30,"type":"file"},)"
            R"({"name":"reports","type":"folder"}],"path":"/docs"},"success":true})" "\n");
  const Answer download = Fetch(
      {"share?api=Demo.Share&method=download&version=1&path=/docs/readme.txt&_sharing_id=" + open});
  EXPECT_EQ(download.body, "Welcome to the shared folder.\n");
  EXPECT_NE(download.headers.find("Content-Disposition: attachment; filename=\"readme.txt\""),
            std::string::npos);
  EXPECT_EQ(Fetch({list + "/&_sharing_id=" + open}).body, Error(127));
  EXPECT_EQ(Fetch({"share?api=Demo.Share&method=download&version=1&path=/private.txt&_sharing_id=" +
                   open}).body,
            Error(127));
  EXPECT_EQ(Fetch({list + "/docs"}).body, Error(105));  // no link, no session

  const std::string locked =
      ShareTool(work_, "create --item /docs --api Demo.Share:list --owner demo --password-stdin",
                "link-horse");
  const std::vector<std::string> header = {"X-Mero-Sharing: " + locked};
  EXPECT_EQ(Fetch({list + "/docs", "", "", header}).body, Error(125));
  const std::string unlock = "api=Demo.ShareAuth&method=unlock&version=1&password=";
  const Answer wrong = Fetch({"share", "", unlock + "wrong", header});
  EXPECT_EQ(wrong.body, Error(401));
  EXPECT_EQ(CookieValue(wrong, "sharing_sid"), "");
  const Answer proven = Fetch({"share", "", unlock + "link-horse", header});
  EXPECT_EQ(proven.body, R"({"success":true})" "\n");
  EXPECT_NE(proven.headers.find("; Path=/; HttpOnly; SameSite=Strict\r\n"), std::string::npos)
      << proven.headers;
  const std::string sid = CookieValue(proven, "sharing_sid");
  ASSERT_EQ(sid.size(), 43u);
  EXPECT_NE(Fetch({list + "/docs/reports", "sharing_sid=" + sid, "", header})
                .body.find(R"("name":"q2.csv")"),
            std::string::npos);
  // Download is not among what this link admits.
  EXPECT_EQ(Fetch({"share?api=Demo.Share&method=download&version=1&path=/docs/readme.txt",
                   "sharing_sid=" + sid, "", header})
                .body,
            Error(127));

  // Revoked: refused from the next request on. The open link is the one
  // listed without a password (both were made within one second, so their
  // order is not fixed).
  std::istringstream links(ShareTool(work_, "list"));
  std::string ref;
  for (std::string line; std::getline(links, line);)
    if (line.find("\tpassword\t") == std::string::npos) ref = line.substr(0, 16);
  ASSERT_EQ(ref.size(), 16u);
  ShareTool(work_, "revoke --ref " + ref);
  EXPECT_EQ(Fetch({list + "/docs&_sharing_id=" + open}).body, Error(126));
}

TEST_F(ServedApiTest, UploadOfOneGibibyteArrivesWholeInBoundedMemory) {
  const unsigned long long size = 1024 * kMiB;
  const fs::path source = work_ / "upload-source", answer = work_ / "upload-answer";
  const fs::path stored = work_ / "root/var/lib/webapi-demo/files/gib.bin";
  struct Cleanup {
    std::vector<fs::path> files;
    ~Cleanup() {
      std::error_code ignored;
      for (const fs::path& file : files) fs::remove(file, ignored);
    }
  } cleanup{{source, answer, stored}};
  SparseSource(source, size);

  const pid_t curl = StartUpload(port_, session_, source, "gib.bin", answer, nullptr);
  long peakKib = 0;
  int status = 0;
  while (waitpid(curl, &status, WNOHANG) == 0) {
    for (pid_t program : RequestProcesses("files")) peakKib = std::max(peakKib, PeakKib(program));
    usleep(10000);
  }
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(ReadFile(answer),
            R"({"data":{"files":[{"name":"gib.bin","size":1073741824}]},"success":true})");
  ASSERT_EQ(fs::file_size(stored), size);
  EXPECT_EQ(Sha256Of(stored), Sha256Of(source));
  ASSERT_GT(peakKib, 0) << "the CGI program was never seen";
  std::printf("peak resident memory of the CGI program: %ld KiB\n", peakKib);
#ifndef E2E_SANITIZED  // the sanitizers' shadow memory is no upload's
  EXPECT_LE(peakKib, 8 * 1024);
#endif
}

TEST_F(ServedApiTest, UploadCutShortLeavesNoFile) {
  const fs::path source = work_ / "cut-source", answer = work_ / "cut-answer";
  const fs::path files = work_ / "root/var/lib/webapi-demo/files";
  SparseSource(source, 64 * kMiB);
  std::set<std::string> before;  // the demo's own files (what links share) stay
  for (const auto& entry : fs::directory_iterator(files)) before.insert(entry.path().filename());
  const pid_t curl = StartUpload(port_, session_, source, "cut.bin", answer, "8M");
  // Killed once the program is receiving (about a second into 8 s).
  std::vector<pid_t> receiving;
  for (int i = 0; i < 500 && receiving.empty(); ++i) {
    receiving = RequestProcesses("files");
    usleep(10000);
  }
  ASSERT_FALSE(receiving.empty()) << "the upload never reached the program";
  usleep(800000);
  // lighttpd ends the program with SIGTERM as its client goes, racing the
  // program's own refusal of the short body: either way nothing may stay.
  kill(curl, SIGKILL);
  waitpid(curl, nullptr, 0);
  for (int i = 0; i < 1000 && !RequestProcesses("files").empty(); ++i) usleep(10000);
  EXPECT_TRUE(RequestProcesses("files").empty()) << "the program did not end";
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(files))
    if (!before.count(entry.path().filename())) left.push_back(entry.path().filename());
  EXPECT_TRUE(left.empty()) << left.front();
  fs::remove(source);
}
