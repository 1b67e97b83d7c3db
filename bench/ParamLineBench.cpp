// Cost of decoding a form-encoded parameter line (MeroCgiParseCGIParam) at
// 1 KiB, 64 KiB and 1 MiB, next to a plain memcpy of the same lines.
//
// After the benchmarks the program prints, from the same run, the per-byte
// cost of each size, its ratio to the 1 KiB one (a linear decoder keeps these
// near 1) and the decode / memcpy ratio per size. Every decode benchmark first
// checks the decoded tables against the values the lines were built from; a
// mismatch marks the benchmark as failed and the program exits with 1.
//
// Two things keep the sizes comparable:
//  - each size cycles through distinct lines (1 MiB of input in all, at least
//    four lines), so that a small line repeated a million times is not learnt
//    by the branch predictor: with one repeated line, 1 KiB looked about
//    twice as cheap per byte as on fresh input;
//  - the allocator's trim and mmap thresholds are pinned (mallopt), so that
//    whether freed memory goes back to the kernel after every iteration does
//    not depend on the sizes allocated before (glibc adapts both otherwise).
//
//   param_line_bench [--benchmark_repetitions=3 --benchmark_report_aggregates_only=true]
//   param_line_bench --benchmark_format=json   (the summary then goes to stderr)
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "RateSummary.h"
#include "merocgi.h"
#include "merocore.h"

namespace {

constexpr int64_t kSizes[] = {int64_t{1} << 10, int64_t{1} << 16, int64_t{1} << 20};
constexpr size_t kInputBytesPerSize = size_t{1} << 20;  // distinct input cycled through
constexpr size_t kMinLinesPerSize = 4;

// ---- parameter line --------------------------------------------------------

struct ParamLine {
  std::string text;                                      // the encoded line
  std::vector<std::pair<std::string, std::string>> pairs;  // decoded name, value
};

using webapi_bench::Rng;

// Form-encodes `raw` the way browsers do, with some variety: unreserved bytes
// stay, a space becomes '+' or "%20", anything else "%XY" in upper or lower
// case hex.
std::string FormEncode(const std::string& raw, Rng& rng) {
  static const char kUpper[] = "0123456789ABCDEF";
  static const char kLower[] = "0123456789abcdef";
  std::string out;
  for (const char ch : raw) {
    const auto byte = static_cast<unsigned char>(ch);
    const bool unreserved = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                            (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
                            byte == '.' || byte == '~';
    if (unreserved) {
      out += ch;
    } else if (byte == ' ' && rng.Below(4) != 0) {
      out += '+';
    } else {
      const char* hex = rng.Below(2) ? kUpper : kLower;
      out += '%';
      out += hex[byte >> 4];
      out += hex[byte & 0xF];
    }
  }
  return out;
}

// Decoded name and value of pair number `index`: unique names (some with
// bracket suffixes that need escaping), values of a few words that include
// spaces, slashes, reserved characters, a literal '+', '%' and UTF-8.
std::pair<std::string, std::string> MakePair(int index, Rng& rng) {
  static const char* const kWords[] = {
      "some",    "value", "with",     "escapes",  "eth0",      "192.168.1.10", "on",
      "off",     "admin", "a/b/c",    "key=val",  "x&y",       "50%",          "1+1",
      "Zürich",  "naïve", "user@host", "C:\\temp", "[list]",    "q?s",          "#frag",
      "\"quo\"", "tab\tsep", "semi;colon", "comma,sep", "dash-ed_", "~tilde.",  "255"};
  constexpr uint32_t kWordCount = sizeof(kWords) / sizeof(kWords[0]);
  std::string name = "field" + std::to_string(index);
  if (index % 7 == 3) name += "[" + std::to_string(index % 5) + "]";
  std::string value;
  if (index % 11 != 5) {  // now and then an empty value
    const uint32_t words = 1 + rng.Below(6);
    for (uint32_t w = 0; w < words; ++w) {
      if (w) value += ' ';
      value += kWords[rng.Below(kWordCount)];
    }
  }
  return {std::move(name), std::move(value)};
}

// The longest line of whole pairs that fits in `maxBytes`; `seed` picks the
// words and escapes, the names are the same for every seed.
ParamLine BuildParamLine(size_t maxBytes, uint64_t seed) {
  ParamLine line;
  Rng rng(seed);
  for (int index = 0;; ++index) {
    auto pair = MakePair(index, rng);
    std::string encoded = FormEncode(pair.first, rng);
    encoded += '=';
    encoded += FormEncode(pair.second, rng);
    const size_t separator = line.text.empty() ? 0 : 1;
    if (line.text.size() + separator + encoded.size() > maxBytes) break;
    if (separator) line.text += '&';
    line.text += encoded;
    line.pairs.push_back(std::move(pair));
  }
  return line;
}

// The distinct lines of one size, built once, outside any timing.
const std::vector<ParamLine>& LinesOfSize(int64_t size) {
  static std::map<int64_t, std::vector<ParamLine>> sets;
  auto found = sets.find(size);
  if (found == sets.end()) {
    const size_t count = std::max(kMinLinesPerSize, kInputBytesPerSize / static_cast<size_t>(size));
    std::vector<ParamLine> lines;
    for (size_t i = 0; i < count; ++i)
      lines.push_back(BuildParamLine(static_cast<size_t>(size) - 1, 0x9E3779B97F4A7C15ULL + 0x632BE5ABULL * i));
    found = sets.emplace(size, std::move(lines)).first;
  }
  return found->second;
}

// Empty when `line` is a valid input for the sizes benchmarked, else why not.
std::string CheckLineLimits(const ParamLine& line, int64_t size) {
  if (line.text.size() > MERO_CGI_MAX_PARAM_LINE_BYTES) return "line exceeds MERO_CGI_MAX_PARAM_LINE_BYTES";
  if (line.pairs.size() >= MERO_CGI_MAX_PARAMS) return "line reaches MERO_CGI_MAX_PARAMS pairs";
  if (line.text.size() >= static_cast<size_t>(size)) return "line is not below its nominal size";
  // "Just under": a pair boundary at most a few hundred bytes short.
  if (line.text.size() + 256 < static_cast<size_t>(size) - 1) return "line is far below its nominal size";
  return {};
}

// Decodes `line` once and compares everything against the pairs it was built
// from. Empty on success, else the first difference.
std::string VerifyDecode(const ParamLine& line) {
  MEROCGI_STATE cgi;
  if (!MeroCgiInit("", &cgi)) return "MeroCgiInit failed";
  std::string problem;
  const int stored = MeroCgiParseCGIParam(&cgi, line.text.c_str());
  if (stored != static_cast<int>(line.pairs.size())) {
    problem = "MeroCgiParseCGIParam returned " + std::to_string(stored) + ", expected " +
              std::to_string(line.pairs.size()) + " pairs";
  } else if (!cgi.paramTable || cgi.paramTable->slotCount != stored) {
    problem = "parameter table does not hold one slot per (unique) name";
  } else {
    // A name from the middle of the line first, then every pair in slot order.
    std::vector<size_t> order;
    if (!line.pairs.empty()) order.push_back(line.pairs.size() / 2);
    for (size_t i = 0; i < line.pairs.size(); ++i) order.push_back(i);
    for (const size_t i : order) {
      const auto& [name, value] = line.pairs[i];
      const char* got = MLIBCSzHashGetValue(cgi.paramTable, name.c_str());
      if (!got || value != got) {
        problem = "value of '" + name + "' is " + (got ? "'" + std::string(got) + "'" : "missing") +
                  ", expected '" + value + "'";
        break;
      }
      if (std::strcmp(cgi.paramTable->slots[i].key, name.c_str()) != 0) {
        problem = "slot " + std::to_string(i) + " holds '" + cgi.paramTable->slots[i].key +
                  "', expected '" + name + "' (insertion order)";
        break;
      }
    }
    if (problem.empty() && MLIBCSzHashGetValue(cgi.paramTable, "field-absent"))
      problem = "a name that is not in the line has a value";
  }
  MeroCgiFree(&cgi);
  return problem;
}

// ---- benchmarks -------------------------------------------------------------

// Bytes and pairs handled, and the per-iteration means, for the counters.
void ReportVolume(benchmark::State& state, int64_t bytes, int64_t pairs, size_t lines) {
  state.SetBytesProcessed(bytes);
  state.SetItemsProcessed(pairs);
  const double iterations = state.iterations() > 0 ? static_cast<double>(state.iterations()) : 1.0;
  state.counters["line_bytes"] = static_cast<double>(bytes) / iterations;
  state.counters["pairs"] = static_cast<double>(pairs) / iterations;
  state.counters["lines"] = static_cast<double>(lines);
}

void BM_ParseParamLine(benchmark::State& state) {
  const int64_t size = state.range(0);
  const std::vector<ParamLine>& lines = LinesOfSize(size);
  for (const ParamLine& line : lines) {
    std::string problem = CheckLineLimits(line, size);
    if (problem.empty()) problem = VerifyDecode(line);
    if (!problem.empty()) {
      state.SkipWithError(problem.c_str());
      return;
    }
  }
  size_t next = 0;
  int64_t bytes = 0, pairs = 0;
  for (auto _ : state) {
    const ParamLine& line = lines[next];
    if (++next == lines.size()) next = 0;
    MEROCGI_STATE cgi;
    MeroCgiInit("", &cgi);
    const int stored = MeroCgiParseCGIParam(&cgi, line.text.c_str());
    benchmark::DoNotOptimize(cgi.paramTable);
    MeroCgiFree(&cgi);
    if (stored != static_cast<int>(line.pairs.size())) {
      state.SkipWithError("MeroCgiParseCGIParam returned an unexpected pair count");
      break;
    }
    bytes += static_cast<int64_t>(line.text.size());
    pairs += stored;
  }
  ReportVolume(state, bytes, pairs, lines.size());
}

void BM_MemcpyBaseline(benchmark::State& state) {
  const int64_t size = state.range(0);
  const std::vector<ParamLine>& lines = LinesOfSize(size);
  std::vector<char> copy(static_cast<size_t>(size));
  size_t next = 0;
  int64_t bytes = 0, pairs = 0;
  for (auto _ : state) {
    const ParamLine& line = lines[next];
    if (++next == lines.size()) next = 0;
    std::memcpy(copy.data(), line.text.data(), line.text.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
    bytes += static_cast<int64_t>(line.text.size());
    pairs += static_cast<int64_t>(line.pairs.size());
  }
  // The last line copied must be in the buffer.
  const ParamLine& last = lines[next == 0 ? lines.size() - 1 : next - 1];
  if (state.iterations() > 0 && std::memcmp(copy.data(), last.text.data(), last.text.size()) != 0)
    state.SkipWithError("the copy differs from the line");
  ReportVolume(state, bytes, pairs, lines.size());
}

void ApplySizes(benchmark::internal::Benchmark* b) {
  for (const int64_t size : kSizes) b->Arg(size);
}

BENCHMARK(BM_ParseParamLine)->Apply(ApplySizes);
BENCHMARK(BM_MemcpyBaseline)->Apply(ApplySizes);

// ---- linearity summary --------------------------------------------------------

// Passes everything to the reporter chosen by --benchmark_format and keeps,
// per benchmark and size, the counters the summary needs.
class CapturingReporter : public benchmark::BenchmarkReporter {
 public:
  struct Figures {
    double bytesPerSecond = 0;  // CPU time based, as Google Benchmark rates are
    double lineBytes = 0;       // mean bytes per iteration
    double pairs = 0;           // mean pairs per iteration
  };

  explicit CapturingReporter(std::unique_ptr<benchmark::BenchmarkReporter> inner) : inner_(std::move(inner)) {}

  bool ReportContext(const Context& context) override { return inner_->ReportContext(context); }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        failed_ = true;
        continue;
      }
      // Single runs, and the median of repetitions (which then wins).
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Aggregate && !median) continue;
      const auto bps = run.counters.find("bytes_per_second");
      const auto bytes = run.counters.find("line_bytes");
      const auto pairs = run.counters.find("pairs");
      if (bps == run.counters.end() || bytes == run.counters.end() || pairs == run.counters.end()) continue;
      Entry& entry = entries_[{run.run_name.function_name, std::stoll("0" + run.run_name.args)}];
      if (entry.fromMedian && !median) continue;
      if (median && !entry.fromMedian) entry = Entry{};
      entry.fromMedian = median;
      entry.sum.bytesPerSecond += bps->second.value;
      entry.sum.lineBytes += bytes->second.value;
      entry.sum.pairs += pairs->second.value;
      ++entry.count;
    }
    inner_->ReportRuns(runs);
  }

  void Finalize() override { inner_->Finalize(); }

  bool failed() const { return failed_; }

  // The median of the repetitions, else the mean of the runs; false when the
  // benchmark did not run.
  bool Get(const std::string& family, int64_t size, Figures* out) const {
    const auto found = entries_.find({family, size});
    if (found == entries_.end() || found->second.count == 0) return false;
    const Entry& entry = found->second;
    out->bytesPerSecond = entry.sum.bytesPerSecond / entry.count;
    out->lineBytes = entry.sum.lineBytes / entry.count;
    out->pairs = entry.sum.pairs / entry.count;
    return out->bytesPerSecond > 0;
  }

 private:
  struct Entry {
    Figures sum;
    int count = 0;
    bool fromMedian = false;
  };
  std::unique_ptr<benchmark::BenchmarkReporter> inner_;
  std::map<std::pair<std::string, int64_t>, Entry> entries_;
  bool failed_ = false;
};

void PrintSummary(const CapturingReporter& reporter, std::FILE* out) {
  static const char* const kLabels[] = {"1KiB", "64KiB", "1MiB"};
  CapturingReporter::Figures base;
  const bool haveBase = reporter.Get("BM_ParseParamLine", kSizes[0], &base);
  const double nsPerByteBase = haveBase ? 1e9 / base.bytesPerSecond : 0;
  std::fprintf(out,
               "\nParameter line decode: MeroCgiInit + MeroCgiParseCGIParam + MeroCgiFree (CPU time)\n"
               "%-6s %8s %6s %9s %9s %8s %8s %11s %13s\n",
               "size", "bytes", "pairs", "MB/s", "MiB/s", "ns/byte", "vs 1KiB", "memcpy MB/s", "decode/memcpy");
  double worst = 0;
  for (size_t i = 0; i < sizeof(kSizes) / sizeof(kSizes[0]); ++i) {
    CapturingReporter::Figures decode, copy;
    if (!reporter.Get("BM_ParseParamLine", kSizes[i], &decode)) {
      std::fprintf(out, "%-6s (not run)\n", kLabels[i]);
      continue;
    }
    const double nsPerByte = 1e9 / decode.bytesPerSecond;
    char ratio[32] = "-";
    if (haveBase) {
      std::snprintf(ratio, sizeof ratio, "%.2fx", nsPerByte / nsPerByteBase);
      if (i > 0 && nsPerByte / nsPerByteBase > worst) worst = nsPerByte / nsPerByteBase;
    }
    char copyRate[32] = "-", overCopy[32] = "-";
    if (reporter.Get("BM_MemcpyBaseline", kSizes[i], &copy)) {
      std::snprintf(copyRate, sizeof copyRate, "%.0f", copy.bytesPerSecond / 1e6);
      std::snprintf(overCopy, sizeof overCopy, "%.0fx", copy.bytesPerSecond / decode.bytesPerSecond);
    }
    std::fprintf(out, "%-6s %8.0f %6.0f %9.1f %9.1f %8.3f %8s %11s %13s\n", kLabels[i], decode.lineBytes,
                 decode.pairs, decode.bytesPerSecond / 1e6, decode.bytesPerSecond / (1024.0 * 1024.0),
                 nsPerByte, ratio, copyRate, overCopy);
  }
  if (worst > 0) {
    std::fprintf(out, "Largest per-byte cost vs 1KiB: %.2fx -> %s\n", worst,
                 worst <= 1.5 ? "grows linearly (within 1.5x)" : "NOT linear (above 1.5x)");
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Initialize consumes the flags it knows, so look at the output format first.
  std::string format = "console";
  bool color = isatty(STDOUT_FILENO) != 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--benchmark_format=", 0) == 0) format = arg.substr(std::strlen("--benchmark_format="));
    if (arg.rfind("--benchmark_color=", 0) == 0) {
      const std::string value = arg.substr(std::strlen("--benchmark_color="));
      if (value != "auto") color = value == "true" || value == "yes" || value == "1" || value == "always";
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  std::unique_ptr<benchmark::BenchmarkReporter> inner;
  if (format == "json") {
    inner = std::make_unique<benchmark::JSONReporter>();
  } else if (format == "console") {
    inner = std::make_unique<benchmark::ConsoleReporter>(color ? benchmark::ConsoleReporter::OO_Color
                                                               : benchmark::ConsoleReporter::OO_None);
  } else {
    std::fprintf(stderr, "param_line_bench: --benchmark_format must be console or json\n");
    return 1;
  }
  // Fixed thresholds also stop glibc from adapting them to what was freed.
  if (mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024) != 1 || mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024) != 1)
    std::fprintf(stderr, "param_line_bench: could not pin the malloc thresholds; sizes may not compare\n");
  CapturingReporter reporter(std::move(inner));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  // Keep machine-readable stdout clean: the summary goes to stderr then.
  PrintSummary(reporter, format == "console" ? stdout : stderr);
  if (reporter.failed()) {
    std::fprintf(stderr, "param_line_bench: a benchmark failed its checks (see above)\n");
    return 1;
  }
  return 0;
}
