// URLEncode and URLDecode at 1 KiB, 1 MiB and 64 MiB, next to libcurl's
// curl_easy_escape and curl_easy_unescape on the same inputs.
//
// The text mixes words, spaces, punctuation and UTF-8, about 30% of its
// bytes reserved; it holds no "~", the one byte the two encoders treat
// differently, so that both must give the same bytes. Every benchmark checks
// that (and that decoding gives the text back) before it is timed; a
// mismatch marks it failed and the program exits with 1.
//
// curl_easy_escape refuses to build more than 24,000,000 bytes of output,
// so at 64 MiB it is called on 4 MiB pieces in turn; its cost per byte does
// not depend on where a piece ends.
//
// After the run the program prints MB/s per size, the cost per byte relative
// to 1 KiB, and our rate over curl's per size (above 1: we are faster).
//
//   url_codec_bench [--benchmark_repetitions=3 --benchmark_report_aggregates_only=true]
#include <curl/curl.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "RateSummary.h"
#include "webapi/WebAPIUtil.h"

namespace {

using namespace webapi_bench;
namespace util = MERO::WebAPIUtil;

// The peak heap of a run, measured (max RSS with --cold_memory: 480 MB).
constexpr size_t kPrewarmBytes = size_t{512} << 20;

constexpr size_t kCurlEscapePiece = 4 * 1024 * 1024;

struct Inputs {
  std::vector<std::string> texts;    // raw, each `size` bytes
  std::vector<std::string> encoded;  // a prefix of each text's encoding, at most `size` bytes
};

std::string MakeText(size_t size, Rng& rng) {
  static const char* const kWords[] = {
      "some", "value",         "with",         "escapes",   "eth0",       "192.168.1.10",
      "on",   "admin",         "a/b/c",        "k=v",       "x&y",        "50%",
      "1+1",  "Z\xC3\xBCrich", "na\xC3\xAFve", "user@host", "C:\\temp",   "[list]",
      "q?s",  "#frag",         "\"quo\"",      "tab\tsep",  "semi;colon", "dash-ed_",
      "dot.", "5\xE2\x82\xAC"};
  constexpr uint32_t kWordCount = sizeof(kWords) / sizeof(kWords[0]);
  std::string text;
  text.reserve(size + 32);
  while (text.size() < size) {
    text += kWords[rng.Below(kWordCount)];
    text += ' ';
  }
  text.resize(size);
  return text;
}

// `encoded` cut to at most `size` bytes without cutting an escape.
std::string EncodedPrefix(const std::string& encoded, size_t size) {
  if (encoded.size() <= size) return encoded;
  size_t cut = size;
  if (encoded[cut - 1] == '%') {
    cut -= 1;
  } else if (cut >= 2 && encoded[cut - 2] == '%') {
    cut -= 2;
  }
  return encoded.substr(0, cut);
}

const Inputs& InputsOf(int64_t size) {
  static std::map<int64_t, Inputs> cache;
  auto found = cache.find(size);
  if (found != cache.end()) return found->second;
  Inputs& in = cache[size];
  Rng rng(0x5DEECE66DULL + static_cast<uint64_t>(size));
  for (size_t i = 0; i < InputCount(size); ++i) {
    in.texts.push_back(MakeText(static_cast<size_t>(size), rng));
    in.encoded.push_back(
        EncodedPrefix(util::URLEncode(in.texts.back()), static_cast<size_t>(size)));
  }
  return in;
}

CURL* Curl() {
  static CURL* const handle = curl_easy_init();
  return handle;
}

// curl's escape of `text`, in pieces when it is too large for one call;
// false when curl gives up.
bool CurlEscape(const std::string& text, std::string* out) {
  size_t at = 0;
  do {
    const size_t length = std::min(kCurlEscapePiece, text.size() - at);
    char* escaped = curl_easy_escape(Curl(), text.data() + at, static_cast<int>(length));
    if (!escaped) return false;
    if (out) out->append(escaped);
    curl_free(escaped);
    at += length;
  } while (at < text.size());
  return true;
}

bool CurlUnescape(const std::string& encoded, std::string* out) {
  int length = 0;
  char* decoded =
      curl_easy_unescape(Curl(), encoded.data(), static_cast<int>(encoded.size()), &length);
  if (!decoded) return false;
  if (out) out->assign(decoded, static_cast<size_t>(length));
  curl_free(decoded);
  return true;
}

// Empty when ours and curl's agree on every input of the size, else why not.
std::string CheckAgreement(const Inputs& in) {
  for (size_t i = 0; i < in.texts.size(); ++i) {
    const std::string ours = util::URLEncode(in.texts[i]);
    std::string theirs;
    if (!CurlEscape(in.texts[i], &theirs)) return "curl_easy_escape failed";
    if (ours != theirs) return "URLEncode and curl_easy_escape differ";
    const std::string decoded = util::URLDecode(in.encoded[i], false);
    if (in.texts[i].compare(0, decoded.size(), decoded) != 0)
      return "URLDecode does not give the text back";
    if (!CurlUnescape(in.encoded[i], &theirs) || theirs != decoded)
      return "URLDecode and curl_easy_unescape differ";
  }
  return {};
}

// CheckAgreement of the size, worked out once for all four benchmarks.
const std::string& AgreementProblem(int64_t size) {
  static std::map<int64_t, std::string> problems;
  const auto found = problems.find(size);
  return found != problems.end() ? found->second
                                 : (problems[size] = CheckAgreement(InputsOf(size)));
}

template <typename Body>
void Run(benchmark::State& state, bool encodedInputs, Body body) {
  const Inputs& in = InputsOf(state.range(0));
  const std::string& problem = AgreementProblem(state.range(0));
  if (!problem.empty()) return state.SkipWithError(problem.c_str());
  const std::vector<std::string>& inputs = encodedInputs ? in.encoded : in.texts;
  size_t next = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    const std::string& input = inputs[next];
    if (++next == inputs.size()) next = 0;
    if (!body(input)) return state.SkipWithError("the call failed");
    bytes += static_cast<int64_t>(input.size());
  }
  state.SetBytesProcessed(bytes);
}

void BM_URLEncode(benchmark::State& state) {
  Run(state, false, [](const std::string& text) {
    const std::string encoded = util::URLEncode(text);
    benchmark::DoNotOptimize(encoded.data());
    return encoded.size() >= text.size();
  });
}

void BM_CurlEscape(benchmark::State& state) {
  Run(state, false, [](const std::string& text) { return CurlEscape(text, nullptr); });
}

void BM_URLDecode(benchmark::State& state) {
  Run(state, true, [](const std::string& encoded) {
    const std::string decoded = util::URLDecode(encoded, false);
    benchmark::DoNotOptimize(decoded.data());
    return decoded.size() <= encoded.size();
  });
}

void BM_CurlUnescape(benchmark::State& state) {
  Run(state, true, [](const std::string& encoded) { return CurlUnescape(encoded, nullptr); });
}

void PrintOursOverCurl(const CapturingReporter& reporter, std::FILE* out) {
  std::fprintf(out, "\nOur rate / curl's on the same input (goal: 1.00 or more)\n%-10s", "");
  for (const char* label : kSizeLabels) std::fprintf(out, " %8s", label);
  std::fprintf(out, "\n");
  const char* const pairs[][3] = {{"escape", "BM_URLEncode", "BM_CurlEscape"},
                                  {"unescape", "BM_URLDecode", "BM_CurlUnescape"}};
  bool met = true;
  for (const auto& pair : pairs) {
    std::fprintf(out, "%-10s", pair[0]);
    for (const int64_t size : kSizes) {
      const double ours = reporter.Rate(pair[1], size);
      const double curl = reporter.Rate(pair[2], size);
      if (ours > 0 && curl > 0) {
        std::fprintf(out, " %7.2fx", ours / curl);
        met = met && ours >= curl;
      } else {
        std::fprintf(out, " %8s", "-");
      }
    }
    std::fprintf(out, "\n");
  }
  std::fprintf(out, "%s\n",
               met ? "At least as fast as curl at every size run." : "SLOWER than curl somewhere.");
}

void PrintSummary(const CapturingReporter& reporter, std::FILE* out) {
  PrintLinearity(
      reporter,
      {"BM_URLEncode", "BM_CurlEscape", "BM_URLDecode", "BM_CurlUnescape", "BM_FreshBuffer"}, out);
  PrintOursOverCurl(reporter, out);
}

}  // namespace

int main(int argc, char** argv) {
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK || !Curl()) {
    std::fprintf(stderr, "url_codec_bench: libcurl did not start\n");
    return 1;
  }
  RegisterSizes("BM_URLEncode", BM_URLEncode);
  RegisterSizes("BM_CurlEscape", BM_CurlEscape);
  RegisterSizes("BM_URLDecode", BM_URLDecode);
  RegisterSizes("BM_CurlUnescape", BM_CurlUnescape);
  RegisterSizes("BM_FreshBuffer", BM_FreshBuffer);
  const int status = RunBenchmarks(argc, argv, "url_codec_bench", kPrewarmBytes, PrintSummary);
  curl_easy_cleanup(Curl());
  curl_global_cleanup();
  return status;
}
