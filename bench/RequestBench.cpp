// Cost of one authorized request in process: construct the handler (context,
// cookies, parameters, description file), validate, check the session in the
// real store, run the handler and write the answer, next to the same request
// without the session check and the session check alone. After the run it
// prints the session check's share of the whole request.
//
// The store is a temporary appliance root with 2,000 sessions, as a busy
// appliance might hold. The CGI answers go to /dev/null; the report goes to
// standard error.
//
//   request_bench [--benchmark_repetitions=5 --benchmark_report_aggregates_only=true]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "BenchApi.h"
#include "merocgi.h"
#include "webapi/WebAPI.h"

namespace {

constexpr int kSessionsInStore = 2000;

std::string g_session;  // alice's live session

using webapi_bench::BenchApi;

void SetRequestEnvironment() {
  setenv("REQUEST_METHOD", "GET", 1);
  setenv("QUERY_STRING", "api=Bench.Item&method=get&version=1&limit=50", 1);
  setenv("HTTP_COOKIE", ("id=" + g_session + "; lang=en").c_str(), 1);
  setenv("REMOTE_ADDR", "127.0.0.1", 1);
}

void BM_AuthorizedRequest(benchmark::State& state) {
  SetRequestEnvironment();
  for (auto _ : state) {
    BenchApi request;
    request.Run(true);
    if (request.GetError() != 0) state.SkipWithError("the request was not authorized");
  }
}
BENCHMARK(BM_AuthorizedRequest);

void BM_RequestWithoutSessionCheck(benchmark::State& state) {
  SetRequestEnvironment();
  for (auto _ : state) {
    BenchApi request;
    request.Run(false);
  }
}
BENCHMARK(BM_RequestWithoutSessionCheck);

void BM_SessionCheck(benchmark::State& state) {
  SetRequestEnvironment();
  const MEROCGI_AUTH_OPTIONS options = {31, 0};
  for (auto _ : state) {
    MEROCGI_STATE cgiState;
    MeroCgiInitEx(&cgiState, 10080, 0, "bench.current.users", "");
    char user[493] = {};
    if (MeroCgiIsAuthorizedEx(&cgiState, g_session.c_str(), user, sizeof user, &options,
                              nullptr) != MERO_SESSION_AUTHORIZED)
      state.SkipWithError("the session was not found");
    MeroCgiFree(&cgiState);
  }
}
BENCHMARK(BM_SessionCheck);

// Keeps the median (or the only) real time per benchmark for the summary.
class ShareReporter : public benchmark::ConsoleReporter {
 public:
  ShareReporter() : ConsoleReporter(OO_None) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      if (!run.error_occurred) realNs[run.run_name.function_name] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> realNs;
};

std::string MakeRoot() {
  char root[] = "/tmp/webapi-request-bench-XXXXXX";
  if (!mkdtemp(root)) std::abort();
  setenv("MERO_APPLIANCE_ROOT", root, 1);
  const std::string dir = std::string(root) + "/usr/mero/meroman/webapi";
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "/bench.api")
      << R"({"Bench.Item": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]}}})";
  std::ofstream(dir + "/bench.auth") << R"({"ip_checking": true})";
  char id[MERO_CGI_SESSION_ID_CHARS + 1];
  for (int i = 0; i < kSessionsInStore; ++i) {
    const std::string user = "user" + std::to_string(i);
    if (MeroCgiSessionCreate("bench", i == kSessionsInStore / 2 ? "alice" : user.c_str(),
                             "127.0.0.1", 0, nullptr, 0, id, sizeof id) != MERO_SESSION_AUTHORIZED)
      std::abort();
    if (i == kSessionsInStore / 2) g_session = id;
  }
  return root;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::fprintf(stderr, "creating %d sessions...\n", kSessionsInStore);
  const std::string root = MakeRoot();
  // The CGI answers are printed on standard output; send them nowhere.
  const int devNull = open("/dev/null", O_WRONLY);
  dup2(devNull, STDOUT_FILENO);
  close(devNull);

  ShareReporter reporter;
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::filesystem::remove_all(root);

  const double whole = reporter.realNs["BM_AuthorizedRequest"];
  const double without = reporter.realNs["BM_RequestWithoutSessionCheck"];
  const double check = reporter.realNs["BM_SessionCheck"];
  if (whole > 0 && without > 0 && check > 0) {
    std::fprintf(stderr,
                 "\nOne authorized request in process (real time): %.1f us\n"
                 "  without the session check:                  %.1f us\n"
                 "  the session check alone (open, look up, close): %.1f us = %.0f%% of the request\n",
                 whole / 1e3, without / 1e3, check / 1e3, 100 * check / whole);
  }
  return 0;
}
