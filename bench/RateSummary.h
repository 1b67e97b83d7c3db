// What the text-utility benchmarks share: input sizes, a reporter that keeps
// each benchmark's bytes/s (the median when repeated) next to the console or
// JSON report, and the per-byte linearity table printed after the run.
//
// A benchmark registers one family per function and passes each size as its
// argument; SetBytesProcessed gives the rate.
#ifndef WEBAPI_BENCH_RATESUMMARY_H
#define WEBAPI_BENCH_RATESUMMARY_H

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace webapi_bench {

constexpr int64_t kKiB = 1024;
constexpr int64_t kSizes[] = {kKiB, kKiB* kKiB, 64 * kKiB* kKiB};
constexpr const char* kSizeLabels[] = {"1KiB", "1MiB", "64MiB"};
constexpr int kSizeCount = 3;
// Distinct input cycled through per size, so that a small input repeated a
// million times is not learnt by the branch predictor.
constexpr int64_t kInputBytesPerSize = kKiB * kKiB;

// Registers `family` at 1 KiB and 1 MiB (timed as long as Google Benchmark
// likes) and at 64 MiB with one iteration per repetition, which keeps the
// large case to about a second per function; a function whose work is
// bounded whatever the size gets the usual timing at 64 MiB too.
constexpr bool kBoundedWork = true;
inline void RegisterSizes(const char* name, void (*function)(benchmark::State&),
                          bool boundedWork = false) {
  benchmark::RegisterBenchmark(name, function)->Arg(kSizes[0])->Arg(kSizes[1]);
  auto* large = benchmark::RegisterBenchmark(name, function)->Arg(kSizes[2]);
  if (!boundedWork) large->Iterations(1);
}

// How many distinct inputs of `size` bytes a benchmark cycles through.
inline size_t InputCount(int64_t size) {
  return size >= kInputBytesPerSize ? 1 : static_cast<size_t>(kInputBytesPerSize / size);
}

// Baseline: a new std::string of the size, zero-filled, then freed: what
// a function that returns a result of that size pays before any work of its
// own.
inline void BM_FreshBuffer(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    std::string buffer(size, '\0');
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

class CapturingReporter : public benchmark::BenchmarkReporter {
 public:
  explicit CapturingReporter(std::unique_ptr<benchmark::BenchmarkReporter> inner)
      : inner_(std::move(inner)) {}

  bool ReportContext(const Context& context) override { return inner_->ReportContext(context); }
  void Finalize() override { inner_->Finalize(); }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        failed_ = true;
        continue;
      }
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      const auto rate = run.counters.find("bytes_per_second");
      if (rate == run.counters.end()) continue;
      // Single runs are averaged; a median, once seen, replaces them.
      Entry& entry = entries_[{run.run_name.function_name, std::stoll("0" + run.run_name.args)}];
      if (entry.fromMedian && !median) continue;
      if (median && !entry.fromMedian) entry = Entry{};
      entry.fromMedian = median;
      entry.sum += rate->second.value;
      ++entry.count;
    }
    inner_->ReportRuns(runs);
  }

  bool failed() const { return failed_; }

  // Bytes per second of `family` at `size`; 0 when it did not run.
  double Rate(const std::string& family, int64_t size) const {
    const auto found = entries_.find({family, size});
    return found == entries_.end() || found->second.count == 0
               ? 0
               : found->second.sum / found->second.count;
  }

 private:
  struct Entry {
    double sum = 0;
    int count = 0;
    bool fromMedian = false;
  };
  std::unique_ptr<benchmark::BenchmarkReporter> inner_;
  std::map<std::pair<std::string, int64_t>, Entry> entries_;
  bool failed_ = false;
};

// One row per family: MB/s per size, then each size's cost per byte relative
// to the 1 KiB one (near 1 when the cost grows linearly with the input).
inline void PrintLinearity(const CapturingReporter& reporter,
                           const std::vector<std::string>& families, std::FILE* out) {
  std::fprintf(out, "\nThroughput (MB/s, CPU time) and cost per byte relative to 1KiB\n%-26s",
               "function");
  for (const char* label : kSizeLabels) std::fprintf(out, " %10s", label);
  for (int i = 1; i < kSizeCount; ++i)
    std::fprintf(out, " %9s", (std::string("x") + kSizeLabels[i]).c_str());
  std::fprintf(out, "\n");
  for (const std::string& family : families) {
    std::fprintf(out, "%-26s", family.c_str());
    for (const int64_t size : kSizes) {
      const double rate = reporter.Rate(family, size);
      if (rate > 0) {
        std::fprintf(out, " %10.1f", rate / 1e6);
      } else {
        std::fprintf(out, " %10s", "-");
      }
    }
    const double base = reporter.Rate(family, kSizes[0]);
    for (int i = 1; i < kSizeCount; ++i) {
      const double rate = reporter.Rate(family, kSizes[i]);
      if (base > 0 && rate > 0) {
        std::fprintf(out, " %8.2fx", base / rate);
      } else {
        std::fprintf(out, " %9s", "-");
      }
    }
    std::fprintf(out, "\n");
  }
}

// Grows the heap by `bytes`, touches every page and gives it back to the
// allocator, which keeps it (the trim threshold is above it). Without this a
// result past glibc's largest mmap threshold (32 MiB) is new memory on every
// call, whose first touch costs a page fault per page: about 5 ns a byte on
// a virtual machine, more than the work measured. Whether the heap happens
// to hold such a block from earlier benchmarks would then decide the 64 MiB
// figures. Blocks under the mmap threshold come from the heap itself.
inline void PrewarmHeap(size_t bytes) {
  constexpr size_t kBlock = 16 * 1024 * 1024;
  std::vector<void*> blocks;
  for (size_t done = 0; done < bytes; done += kBlock) {
    void* block = std::malloc(kBlock);
    if (!block) break;
    std::memset(block, 1, kBlock);
    blocks.push_back(block);
  }
  for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) std::free(*it);
}

// Parses --benchmark_format before Google Benchmark consumes it, pins the
// allocator's thresholds (glibc adapts them to what was freed otherwise, so
// sizes would not compare), warms `prewarmBytes` of heap unless
// --cold_memory is given, runs everything and calls `summary` with the
// stream the summary belongs on (stderr when stdout carries JSON).
// Returns the process exit code: 1 when a benchmark failed its checks.
template <typename Summary>
int RunBenchmarks(int argc, char** argv, const char* program, size_t prewarmBytes,
                  Summary summary) {
  std::string format = "console";
  bool color = isatty(STDOUT_FILENO) != 0;
  bool coldMemory = false;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--cold_memory") {
      coldMemory = true;
      continue;  // ours, not Google Benchmark's
    }
    argv[kept++] = argv[i];
    if (arg.rfind("--benchmark_format=", 0) == 0)
      format = arg.substr(std::strlen("--benchmark_format="));
    if (arg.rfind("--benchmark_color=", 0) == 0) {
      const std::string value = arg.substr(std::strlen("--benchmark_color="));
      if (value != "auto")
        color = value == "true" || value == "yes" || value == "1" || value == "always";
    }
  }
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::unique_ptr<benchmark::BenchmarkReporter> inner;
  if (format == "json") {
    inner = std::make_unique<benchmark::JSONReporter>();
  } else if (format == "console") {
    inner = std::make_unique<benchmark::ConsoleReporter>(
        color ? benchmark::ConsoleReporter::OO_Color : benchmark::ConsoleReporter::OO_None);
  } else {
    std::fprintf(stderr, "%s: --benchmark_format must be console or json\n", program);
    return 1;
  }
  if (mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024) != 1 || mallopt(M_TRIM_THRESHOLD, INT_MAX) != 1)
    std::fprintf(stderr, "%s: could not pin the malloc thresholds; sizes may not compare\n",
                 program);
  if (!coldMemory) PrewarmHeap(prewarmBytes);
  CapturingReporter reporter(std::move(inner));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  summary(reporter, format == "console" ? stdout : stderr);
  if (reporter.failed()) {
    std::fprintf(stderr, "%s: a benchmark failed its checks (see above)\n", program);
    return 1;
  }
  return 0;
}

// Small deterministic generator, so every run benchmarks the same inputs.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed | 1) {}
  uint32_t Next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<uint32_t>(state_ >> 11);
  }
  uint32_t Below(uint32_t n) { return Next() % n; }

 private:
  uint64_t state_;
};

}  // namespace webapi_bench

#endif  // WEBAPI_BENCH_RATESUMMARY_H
