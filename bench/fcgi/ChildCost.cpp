// child_cost: what one request costs in a fork server's child, part by
// part. One process, loaded like a fork server's parent (every library
// mapped, every symbol bound before the first fork, no request ever run in
// it), forks a child per run; each step adds one part of the request to the
// previous one, so the difference of two steps is that part's cost:
//
//   fork              the child exits at once
//   + context         it sets the request's CGI environment and constructs
//                     the bench API object (request context, description
//                     and auth files)
//   + session store   it also opens the session store and checks the session
//   + pipeline        the whole request instead, answered on standard output
//                     (/dev/null), as a CGI process answers
//   + FastCGI output  the whole request as a fork server's child serves it:
//                     the parameters read from a connection the parent
//                     filled, the answer written back as records and read
//                     by the parent to its END_REQUEST
//
// and, for reference, floor_cgi (fork + exec + wait of a dynamic C program
// printing the same bytes). Every run is timed from fork() to the end of
// waitpid() (for the FastCGI step the parent reads the whole answer in
// between), in interleaved rounds so that a slow phase of a shared machine
// hits every step alike.
//
// usage: child_cost [-n rounds] [-w warmup] [-o raw.tsv] FLOOR ROOT SESSION
//   FLOOR    the floor_cgi program
//   ROOT     the appliance root with bench.api, bench.auth and the session
//   SESSION  the session id (alice's, from 127.0.0.1, registry "bench")
//
// A step that stops doing its work must not look fast: a child whose
// session check or request failed exits non-zero, every FastCGI answer is
// compared with the floor's bytes, and the answers of the CGI pipeline and
// the FastCGI child are compared with the floor's before the timing. Any
// failure stops the run with exit status 1.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "../BenchApi.h"
#include "fcgi/FcgiChild.h"
#include "fcgi/FcgiProtocol.h"

namespace {

namespace fcgi = merocgi::fcgi;

enum Step { kFloor, kFork, kContext, kSessionStore, kPipeline, kFastCgi, kStepCount };
const char* const kStepNames[kStepCount] = {"floor_cgi, fork+exec", "fork",     "+ context",
                                            "+ session store",      "+ pipeline", "+ FastCGI output"};

constexpr int kRequestFailed = 3;  // a child's exit status when its check or request failed
constexpr uint16_t kRequestId = 1;
constexpr int kMaxConnections = 16;  // what the fork server tells a GET_VALUES query by default
const char kQuery[] = "api=Bench.Item&method=get&version=1";

struct Variable {
  std::string name;
  std::string value;
};

// What a web server hands the bench request behind a FastCGI mount: the
// request's CGI variables, its two headers (wrk sends Host and the cookie),
// and the appliance root the server's configuration adds.
std::vector<Variable> RequestVariables(const std::string& root, const std::string& session) {
  const std::string script = "/fcgi/fork";
  const std::string documentRoot = root + "/www";
  return {
      {"GATEWAY_INTERFACE", "CGI/1.1"},
      {"SERVER_SOFTWARE", "lighttpd"},
      {"SERVER_NAME", "127.0.0.1"},
      {"SERVER_ADDR", "127.0.0.1"},
      {"SERVER_PORT", "8080"},
      {"SERVER_PROTOCOL", "HTTP/1.1"},
      {"REQUEST_SCHEME", "http"},
      {"REQUEST_METHOD", "GET"},
      {"REQUEST_URI", script + "?" + kQuery},
      {"SCRIPT_NAME", script},
      {"SCRIPT_FILENAME", documentRoot + script},
      {"DOCUMENT_ROOT", documentRoot},
      {"QUERY_STRING", kQuery},
      {"REMOTE_ADDR", "127.0.0.1"},
      {"REMOTE_PORT", "54312"},
      {"REDIRECT_STATUS", "200"},
      {"HTTP_HOST", "127.0.0.1:8080"},
      {"HTTP_COOKIE", "id=" + session},
      {"MERO_APPLIANCE_ROOT", root},
  };
}

struct Setup {
  std::vector<Variable> variables;
  std::vector<std::string> environmentText;  // "NAME=value", for the floor's exec
  std::vector<char*> environment;
  std::vector<char*> floorArgv;
  std::string fcgiRequest;  // BEGIN_REQUEST, PARAMS, empty PARAMS, empty STDIN
  int nullFd = -1;
};
Setup setup;

double NowMicros() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "child_cost: %s\n", what);
  std::exit(1);
}

void AppendRecord(std::string& out, uint8_t type, std::string_view content) {
  unsigned char header[fcgi::kHeaderBytes];
  fcgi::EncodeHeader({type, kRequestId, static_cast<uint16_t>(content.size()), 0}, header);
  out.append(reinterpret_cast<const char*>(header), sizeof header);
  out.append(content);
}

std::string FastCgiRequest(const std::vector<Variable>& variables) {
  std::string params;
  for (const Variable& v : variables) fcgi::AppendPair(params, v.name, v.value);
  if (params.size() > fcgi::kMaxContentBytes) Fail("the parameters do not fit one record");
  const char begin[8] = {0, static_cast<char>(fcgi::kRoleResponder), 0, 0, 0, 0, 0, 0};
  std::string request;
  AppendRecord(request, fcgi::kBeginRequest, std::string_view(begin, sizeof begin));
  AppendRecord(request, fcgi::kParams, params);
  AppendRecord(request, fcgi::kParams, {});
  AppendRecord(request, fcgi::kStdin, {});
  return request;
}

// The standard output a FastCGI answer carries, when the answer is whole:
// STDOUT records, then one END_REQUEST that says complete with status 0.
bool StdoutOfAnswer(const std::string& answer, std::string* out) {
  out->clear();
  size_t at = 0;
  while (answer.size() - at >= fcgi::kHeaderBytes) {
    unsigned char bytes[fcgi::kHeaderBytes];
    std::memcpy(bytes, answer.data() + at, sizeof bytes);
    fcgi::RecordHeader header;
    if (!fcgi::DecodeHeader(bytes, &header) || header.requestId != kRequestId) return false;
    at += fcgi::kHeaderBytes;
    if (answer.size() - at < size_t{header.contentLength} + header.paddingLength) return false;
    const std::string_view content(answer.data() + at, header.contentLength);
    at += size_t{header.contentLength} + header.paddingLength;
    if (header.type == fcgi::kStdout) {
      out->append(content);
    } else if (header.type == fcgi::kEndRequest) {
      static const char kComplete[8] = {0, 0, 0, 0, fcgi::kRequestComplete, 0, 0, 0};
      return at == answer.size() && content == std::string_view(kComplete, sizeof kComplete);
    } else if (header.type != fcgi::kStderr) {
      return false;
    }
  }
  return false;
}

void SetRequestEnvironment() {
  for (const Variable& v : setup.variables) setenv(v.name.c_str(), v.value.c_str(), 1);
}

// The fork server's handler, as MERO::ServeRequests hands bench_api's to it.
void HandleBenchRequest(void*) {
  webapi_bench::BenchApi request;
  request.Run(true);
  if (request.GetError() != 0) std::exit(kRequestFailed);
}

[[noreturn]] void BeChild(Step step, int connection, int serverEnd, int outputFd) {
  if (outputFd >= 0) dup2(outputFd, STDOUT_FILENO);
  switch (step) {
    case kFloor:
      execve(setup.floorArgv[0], setup.floorArgv.data(), setup.environment.data());
      _exit(127);
    case kFork:
      _exit(0);
    case kContext: {
      SetRequestEnvironment();
      { webapi_bench::BenchApi request; }
      _exit(0);
    }
    case kSessionStore: {
      SetRequestEnvironment();
      int authorized = 0;
      {
        webapi_bench::BenchApi request;
        authorized = request.CheckAuthorized();
      }
      _exit(authorized > 0 ? 0 : kRequestFailed);
    }
    case kPipeline: {
      SetRequestEnvironment();
      int error = 0;
      {
        webapi_bench::BenchApi request;
        request.Run(true);
        error = request.GetError();
      }
      _exit(std::fflush(stdout) == 0 && error == 0 ? 0 : kRequestFailed);
    }
    case kFastCgi:
      close(serverEnd);
      fcgi::ServeConnection(connection, nullptr, kMaxConnections, HandleBenchRequest, nullptr);
      std::fflush(nullptr);
      _exit(0);
    case kStepCount:
      break;
  }
  _exit(127);
}

struct Run {
  double micros = 0;
  long pageFaults = 0;  // the child's minor faults: the pages it first wrote after the fork
  bool exitedZero = false;
  std::string fcgiAnswer;  // the FastCGI step's raw answer
};

// One fork + child + waitpid of `step`; `outputFd` (>= 0) becomes the
// child's standard output.
Run RunOnce(Step step, int outputFd = -1) {
  Run run;
  int pair[2] = {-1, -1};
  if (step == kFastCgi) {
    // The web server's side is written before the clock starts: the child
    // finds its request waiting, as on an accepted connection.
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) Fail("socketpair failed");
    if (write(pair[0], setup.fcgiRequest.data(), setup.fcgiRequest.size()) !=
        static_cast<ssize_t>(setup.fcgiRequest.size()))
      Fail("could not write the FastCGI request");
  }
  const double start = NowMicros();
  const pid_t pid = fork();
  if (pid == 0) BeChild(step, pair[1], pair[0], outputFd);
  if (pid < 0) Fail("fork failed");
  if (step == kFastCgi) {
    close(pair[1]);
    char buffer[4096];
    for (ssize_t got; (got = read(pair[0], buffer, sizeof buffer)) != 0;) {
      if (got < 0) {
        if (errno == EINTR) continue;
        Fail("reading the FastCGI answer failed");
      }
      run.fcgiAnswer.append(buffer, static_cast<size_t>(got));
    }
  }
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0)
    if (errno != EINTR) Fail("waitpid failed");
  run.micros = NowMicros() - start;
  run.pageFaults = usage.ru_minflt;
  if (step == kFastCgi) close(pair[0]);
  run.exitedZero = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return run;
}

std::string CapturedStdout(Step step) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) Fail("pipe failed");
  const Run run = RunOnce(step, pipeFds[1]);  // the answer is far smaller than a pipe holds
  close(pipeFds[1]);
  std::string out;
  char buffer[4096];
  for (ssize_t got; (got = read(pipeFds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<size_t>(got));
  close(pipeFds[0]);
  if (!run.exitedZero) {
    std::fprintf(stderr, "child_cost: %s failed; it printed:\n%s\n", kStepNames[step], out.c_str());
    std::exit(1);
  }
  return out;
}

// A run that did not do its work stops everything: its time means nothing.
void Check(Step step, const Run& run, const std::string& floorAnswer) {
  if (!run.exitedZero) {
    std::fprintf(stderr, "child_cost: a run of \"%s\" failed (%s)\n", kStepNames[step],
                 step == kSessionStore || step == kPipeline ? "was the session lost?" : "non-zero exit");
    std::exit(1);
  }
  if (step != kFastCgi) return;
  std::string out;
  if (!StdoutOfAnswer(run.fcgiAnswer, &out) || out != floorAnswer) {
    std::fprintf(stderr, "child_cost: the FastCGI answer is not the floor's (%zu bytes); its output:\n%s\n",
                 run.fcgiAnswer.size(), out.c_str());
    std::exit(1);
  }
}

double Percentile(const std::vector<double>& sorted, double p) {
  long rank = static_cast<long>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::clamp(rank, 1L, static_cast<long>(sorted.size()));
  return sorted[static_cast<size_t>(rank - 1)];
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return Percentile(values, 50);
}

double PairedMedian(const std::vector<double>& a, const std::vector<double>& b) {
  std::vector<double> differences(a.size());
  for (size_t r = 0; r < a.size(); ++r) differences[r] = a[r] - b[r];
  return Median(differences);
}

// Symbols are bound once here, as in the fork server: a child would
// otherwise resolve, on first call, every function the request uses.
void BindAllSymbolsNow(char** argv) {
  if (!std::getenv("LD_BIND_NOW")) {
    setenv("LD_BIND_NOW", "1", 1);
    execv("/proc/self/exe", argv);
    Fail("cannot execute itself again");
  }
  unsetenv("LD_BIND_NOW");
}

[[noreturn]] void Usage(const char* self) {
  std::fprintf(stderr, "usage: %s [-n rounds] [-w warmup] [-o raw.tsv] FLOOR ROOT SESSION\n", self);
  std::exit(2);
}

long Count(const char* text, const char* self) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 0) Usage(self);
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  BindAllSymbolsNow(argv);
  long rounds = 1000, warmup = 20;
  const char* rawPath = nullptr;
  for (int option; (option = getopt(argc, argv, "+n:w:o:")) != -1;) {
    if (option == 'n') rounds = Count(optarg, argv[0]);
    else if (option == 'w') warmup = Count(optarg, argv[0]);
    else if (option == 'o') rawPath = optarg;
    else Usage(argv[0]);
  }
  if (argc - optind != 3 || rounds < 1) Usage(argv[0]);
  std::string floorPath = argv[optind];
  const std::string root = argv[optind + 1], session = argv[optind + 2];

  setup.variables = RequestVariables(root, session);
  // The parent holds no request variable, as a fork server's does not; the
  // appliance root is in its environment as in the server's.
  for (const Variable& v : setup.variables) unsetenv(v.name.c_str());
  setenv("MERO_APPLIANCE_ROOT", root.c_str(), 1);
  for (const Variable& v : setup.variables) setup.environmentText.push_back(v.name + "=" + v.value);
  for (std::string& text : setup.environmentText) setup.environment.push_back(text.data());
  setup.environment.push_back(nullptr);
  setup.floorArgv = {floorPath.data(), nullptr};
  setup.fcgiRequest = FastCgiRequest(setup.variables);
  setup.nullFd = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (setup.nullFd < 0) Fail("cannot open /dev/null");
  if (access(floorPath.c_str(), X_OK) != 0) Fail("the floor program is not executable");

  // Nothing buffered may be copied into a child.
  std::fflush(nullptr);

  // Every step's answer, once, before any timing.
  const std::string floorAnswer = CapturedStdout(kFloor);
  if (floorAnswer.size() < 16 || floorAnswer.compare(floorAnswer.size() - 16, 16, "\"success\":true}\n") != 0)
    Fail("the floor's answer is not a success envelope");
  if (CapturedStdout(kPipeline) != floorAnswer) Fail("the CGI pipeline does not answer what the floor answers");
  for (Step step : {kContext, kSessionStore, kFastCgi}) Check(step, RunOnce(step), floorAnswer);

  // The children answer to /dev/null, read nothing, and the report goes to
  // the standard output saved here.
  const int reportFd = dup(STDOUT_FILENO);
  if (reportFd < 0) Fail("dup failed");
  dup2(setup.nullFd, STDIN_FILENO);
  dup2(setup.nullFd, STDOUT_FILENO);

  std::vector<std::vector<double>> micros(kStepCount, std::vector<double>(static_cast<size_t>(rounds)));
  std::vector<std::vector<double>> faults = micros;
  for (long round = -warmup; round < rounds; ++round) {
    for (int s = 0; s < kStepCount; ++s) {
      const Step step = static_cast<Step>(s);
      const Run run = RunOnce(step);
      Check(step, run, floorAnswer);
      if (round < 0) continue;
      micros[static_cast<size_t>(s)][static_cast<size_t>(round)] = run.micros;
      faults[static_cast<size_t>(s)][static_cast<size_t>(round)] = static_cast<double>(run.pageFaults);
    }
  }

  dup2(reportFd, STDOUT_FILENO);
  close(reportFd);

  if (rawPath) {
    FILE* raw = std::fopen(rawPath, "w");
    if (!raw) Fail("cannot write the raw file");
    for (int s = 0; s < kStepCount; ++s)
      for (long r = 0; r < rounds; ++r)
        std::fprintf(raw, "%s\t%ld\t%.1f\n", kStepNames[s], r, micros[static_cast<size_t>(s)][static_cast<size_t>(r)]);
    if (std::fclose(raw) != 0) Fail("cannot write the raw file");
  }

  // "+ median" is the difference of the medians; "+ paired" the median of
  // the round-by-round differences, which cancels slow phases spanning a
  // round. Ratios are to the floor, "d-ratio" paired likewise. "faults" is
  // the median of the child's minor page faults.
  const std::vector<double>& floor = micros[kFloor];
  const double floorMedian = Median(floor);
  std::printf("%ld rounds (+%ld warm-up), %d runs a round, interleaved; times in us\n", rounds, warmup,
              static_cast<int>(kStepCount));
  std::printf("| %-22s | %8s | %8s | %9s | %9s | %7s | %7s | %6s |\n", "step", "median", "p90", "+ median",
              "+ paired", "ratio", "d-ratio", "faults");
  std::printf("|------------------------|---------:|---------:|----------:|----------:|--------:|--------:|-------:|\n");
  for (size_t s = 0; s < kStepCount; ++s) {
    std::vector<double> sorted = micros[s];
    std::sort(sorted.begin(), sorted.end());
    const double median = Percentile(sorted, 50);
    const double paired = PairedMedian(micros[s], floor);
    char plusMedian[32] = "", plusPaired[32] = "";
    if (s > kFork) {
      std::snprintf(plusMedian, sizeof plusMedian, "%+.1f", median - Median(micros[s - 1]));
      std::snprintf(plusPaired, sizeof plusPaired, "%+.1f", PairedMedian(micros[s], micros[s - 1]));
    }
    std::printf("| %-22s | %8.1f | %8.1f | %9s | %9s | %7.3f | %7.3f | %6.0f |\n", kStepNames[s], median,
                Percentile(sorted, 90), plusMedian, plusPaired, median / floorMedian,
                (floorMedian + paired) / floorMedian, Median(faults[s]));
  }
  return 0;
}
