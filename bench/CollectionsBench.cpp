// Cost per item of the platform string list and hash and of their JSON
// conversions (merocore.h, WebAPIUtil.h) at 10^3 to 10^6 items.
//
// Each benchmark reports items/s; after the run the program prints the
// per-item cost at every size and its ratio to the 10^3 one, which stays
// near 1 when the cost grows linearly (the JSON side sits on jsoncpp's
// ordered maps, so a slow logarithmic rise there is jsoncpp's, not ours).
// Two baselines put the same keys into std::map (what a JSON object is
// underneath) and std::unordered_map: once the items outgrow the caches their
// per-item cost rises too, which separates memory effects from algorithmic
// ones. Every benchmark checks its result once before timing; a mismatch
// marks it failed and the program exits with 1.
//
//   collections_bench [--benchmark_filter=Hash --benchmark_repetitions=3]
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "mero_owners.h"
#include "merocore.h"
#include "webapi/WebAPIUtil.h"

namespace {

namespace util = MERO::WebAPIUtil;
constexpr int64_t kSizes[] = {1000, 10000, 100000, 1000000};

// Inputs of one size, built once and outside any timing.
struct Inputs {
  std::vector<std::string> keys, values;
  std::string joined;  // the keys joined with ','
  mero::UniqueSzHash hash;
  mero::UniqueSzList list;  // the keys, enumerated from `hash`
  mutable Json::Value object;  // JsonObjToSzHash takes a reference; it only reads
};

const Inputs& InputsOf(int64_t n) {
  static std::map<int64_t, Inputs> cache;
  auto found = cache.find(n);
  if (found != cache.end()) return found->second;
  Inputs& in = cache[n];
  MLIBSZHASH* hash = MLIBCSzHashAlloc(256);
  MLIBSZLIST* list = MLIBCSzListAlloc(256);
  in.object = Json::Value(Json::objectValue);
  for (int64_t i = 0; i < n; ++i) {
    // Spread the index so neighbouring keys do not share long prefixes.
    const uint64_t mixed = static_cast<uint64_t>(i) * 0x9E3779B97F4A7C15ULL >> 40;
    in.keys.push_back("k" + std::to_string(mixed) + "_" + std::to_string(i));
    in.values.push_back("value " + std::to_string(i));
    if (i) in.joined += ',';
    in.joined += in.keys.back();
    MLIBCSzHashSetValue(&hash, in.keys.back().c_str(), in.values.back().c_str());
    in.object[in.keys.back()] = in.values.back();
  }
  MLIBCSzHashEnumKey(hash, &list);
  in.hash.reset(hash);
  in.list.reset(list);
  return in;
}

// Runs `body` once as a check, then timed; `body` returns the item count it
// handled, which must be `n`.
template <typename Body>
void Run(benchmark::State& state, Body body) {
  const int64_t n = state.range(0);
  const Inputs& in = InputsOf(n);
  if (in.hash->slotCount != n || in.list->count != n) return state.SkipWithError("inputs not built");
  if (body(in) != n) return state.SkipWithError("wrong item count");
  for (auto _ : state) benchmark::DoNotOptimize(body(in));
  state.SetItemsProcessed(state.iterations() * n);
}

void BM_HashSetValue(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    MLIBSZHASH* hash = MLIBCSzHashAlloc(256);
    for (size_t i = 0; i < in.keys.size(); ++i) MLIBCSzHashSetValue(&hash, in.keys[i].c_str(), in.values[i].c_str());
    mero::UniqueSzHash owner(hash);
    return hash->slotCount;
  });
}

void BM_HashEnumKey(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    MLIBSZLIST* list = MLIBCSzListAlloc(256);
    const int added = MLIBCSzHashEnumKey(in.hash.get(), &list);
    mero::UniqueSzList owner(list);
    return added;
  });
}

void BM_SzListToArray(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t { return util::SzListToArray(in.list.get()).size(); });
}

void BM_SzHashToJsonObj(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    Json::Value object(Json::objectValue);
    return util::SzHashToJsonObj(in.hash.get(), object) ? object.size() : -1;
  });
}

void BM_JsonObjToSzHash(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    MLIBSZHASH* hash = MLIBCSzHashAlloc(256);
    const bool ok = util::JsonObjToSzHash(in.object, &hash);
    mero::UniqueSzHash owner(hash);
    return ok ? hash->slotCount : -1;
  });
}

void BM_ParseToArray(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t { return util::ParseToArray(in.joined.c_str(), ",").size(); });
}

void BM_StringExplode(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t { return util::StringExplode(in.joined, ",").size(); });
}

void BM_StringImplode(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    const bool whole = util::StringImplode(in.keys, ",").size() == in.joined.size();
    return whole ? static_cast<int64_t>(in.keys.size()) : -1;
  });
}

template <typename Map>
void BM_Baseline(benchmark::State& state) {
  Run(state, [](const Inputs& in) -> int64_t {
    Map map;
    for (size_t i = 0; i < in.keys.size(); ++i) map.emplace(in.keys[i], in.values[i]);
    return static_cast<int64_t>(map.size());
  });
}

void ApplySizes(benchmark::internal::Benchmark* b) {
  for (const int64_t n : kSizes) b->Arg(n);
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_HashSetValue)->Apply(ApplySizes);
BENCHMARK(BM_HashEnumKey)->Apply(ApplySizes);
BENCHMARK(BM_SzListToArray)->Apply(ApplySizes);
BENCHMARK(BM_SzHashToJsonObj)->Apply(ApplySizes);
BENCHMARK(BM_JsonObjToSzHash)->Apply(ApplySizes);
BENCHMARK(BM_ParseToArray)->Apply(ApplySizes);
BENCHMARK(BM_StringExplode)->Apply(ApplySizes);
BENCHMARK(BM_StringImplode)->Apply(ApplySizes);
BENCHMARK_TEMPLATE(BM_Baseline, std::map<std::string, std::string>)->Name("BM_BaselineStdMap")->Apply(ApplySizes);
BENCHMARK_TEMPLATE(BM_Baseline, std::unordered_map<std::string, std::string>)
    ->Name("BM_BaselineUnorderedMap")
    ->Apply(ApplySizes);

// The console report, plus the items/s of every run (the median when
// repeated) for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  explicit SummaryReporter(OutputOptions options) : ConsoleReporter(options) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) failed_ = true;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      const auto rate = run.counters.find("items_per_second");
      if (run.error_occurred || (run.run_type == Run::RT_Aggregate && !median) || rate == run.counters.end())
        continue;
      auto& slot = rates_[run.run_name.function_name][std::stoll(run.run_name.args)];
      if (median || slot.second == 0) slot = {rate->second.value, median ? 2 : 1};
    }
    ConsoleReporter::ReportRuns(runs);
  }
  bool failed() const { return failed_; }

  void PrintSummary() const {
    std::printf("\nns per item (CPU time), and the ratio to the 10^3 cost\n%-24s", "benchmark");
    for (const int64_t n : kSizes) std::printf(" %9lld", static_cast<long long>(n));
    std::printf("   %7s %7s %7s\n", "x 1e4", "x 1e5", "x 1e6");
    double worst = 0, worstBaseline = 0;
    std::string worstName;
    for (const auto& [name, bySize] : rates_) {
      const bool baseline = name.rfind("BM_Baseline", 0) == 0;
      std::printf("%-24s", name.c_str());
      std::vector<double> nsPerItem;
      for (const int64_t n : kSizes) {
        const auto found = bySize.find(n);
        nsPerItem.push_back(found == bySize.end() ? 0 : 1e9 / found->second.first);
        if (nsPerItem.back() > 0) {
          std::printf(" %9.1f", nsPerItem.back());
        } else {
          std::printf(" %9s", "-");  // not run (filtered out)
        }
      }
      std::printf("  ");
      for (size_t i = 1; i < nsPerItem.size(); ++i) {
        if (nsPerItem[0] <= 0 || nsPerItem[i] <= 0) {
          std::printf(" %7s", "-");
          continue;
        }
        const double ratio = nsPerItem[i] / nsPerItem[0];
        if (baseline) {
          worstBaseline = std::max(worstBaseline, ratio);
        } else if (ratio > worst) {
          worst = ratio;
          worstName = name + " at " + std::to_string(kSizes[i]);
        }
        std::printf(" %6.2fx", ratio);
      }
      std::printf("\n");
    }
    if (worstName.empty()) return;
    std::printf("Largest ratio to 10^3: %.2fx (%s); std containers on the same keys: up to %.2fx\n-> %s\n",
                worst, worstName.c_str(), worstBaseline,
                worst <= 2.0             ? "flat (within 2x over three decades)"
                : worst <= worstBaseline ? "above 2x, but below the std containers' rise: memory-bound"
                                         : "NOT linear (above 2x and above the std containers)");
  }

 private:
  std::map<std::string, std::map<int64_t, std::pair<double, int>>> rates_;  // rate, 1 run / 2 median
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Fixed thresholds stop glibc from adapting them to what earlier sizes freed.
  mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
  const int color = isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color : 0;
  SummaryReporter reporter(
      static_cast<benchmark::ConsoleReporter::OutputOptions>(benchmark::ConsoleReporter::OO_Tabular | color));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  reporter.PrintSummary();
  if (reporter.failed()) {
    std::fprintf(stderr, "collections_bench: a benchmark failed its check (see above)\n");
    return 1;
  }
  return 0;
}
