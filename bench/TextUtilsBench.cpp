// EncodeHtml, JsonObjTostrPair, strPairToJsonObj and GetBrowserInfo at
// 1 KiB, 1 MiB and 64 MiB of text, with a fresh-buffer baseline.
//
// Sizes are of the text side: the HTML input, the key-value string written
// or read, the user agent. Key-value strings use both flags (URL-encoded
// JSON values), the heaviest use: pairs of about 34 bytes holding strings
// with spaces, "&" and "=", numbers, booleans and small arrays; reading
// includes building and freeing the object. GetBrowserInfo searches only the
// first 4095 characters of the agent, so its cost stops growing with the
// size: its rate rises instead, as intended.
//
// Every benchmark checks its result before it is timed (the pairs read back
// into the object they were written from; the agent classified as Edge); a
// mismatch marks it failed and the program exits with 1. After the run the
// program prints MB/s per size and the cost per byte relative to 1 KiB.
//
//   text_utils_bench [--benchmark_repetitions=3 --benchmark_report_aggregates_only=true]
#include <json/value.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "RateSummary.h"
#include "webapi/WebAPIUtil.h"

namespace {

using namespace webapi_bench;
namespace util = MERO::WebAPIUtil;

// The peak heap of a run, measured (max RSS with --cold_memory: 1.0 GB).
constexpr size_t kPrewarmBytes = size_t{1024} << 20;

// ---- inputs -------------------------------------------------------------------

std::string MakeHtmlText(size_t size, Rng& rng) {
  static const char* const kPieces[] = {
      "<b>",         "</b>",       "Tom & Jerry", " ",  "a < b", "x > y", "plain words here",
      "caf\xC3\xA9", "\"quoted\"", "it's",        "\n", "&amp;"};
  constexpr uint32_t kPieceCount = sizeof(kPieces) / sizeof(kPieces[0]);
  std::string text;
  while (text.size() < size) text += kPieces[rng.Below(kPieceCount)];
  text.resize(size);
  return text;
}

Json::Value MakeMemberValue(Rng& rng) {
  switch (rng.Below(5)) {
    case 0:
      return Json::Value("volume " + std::to_string(rng.Below(64)) +
                         " & share=" + std::to_string(rng.Below(9)));
    case 1:
      return Json::Value(static_cast<Json::Int64>(rng.Next()) - (Json::Int64{1} << 31));
    case 2:
      return Json::Value(rng.Below(2) == 0);
    case 3: {
      Json::Value array(Json::arrayValue);
      for (uint32_t i = 0, n = 1 + rng.Below(3); i < n; ++i)
        array.append(static_cast<int>(rng.Below(1000)));
      return array;
    }
    default:
      return Json::Value("Z\xC3\xBCrich/" + std::to_string(rng.Below(100000)) + ".5");
  }
}

struct KeyValueInput {
  Json::Value object;
  std::string pairs;  // the object written with both flags
};

// An object whose key-value string is as near `size` bytes as whole pairs
// allow (never over it).
KeyValueInput MakeKeyValue(size_t size, Rng& rng) {
  KeyValueInput input;
  input.object = Json::Value(Json::objectValue);
  size_t written = 0;  // pairs are joined by "&" in any order, so lengths add up
  for (uint64_t index = 0;; ++index) {
    const std::string name =
        "field" + std::to_string(index) + "_" + std::to_string(rng.Below(1000));
    const Json::Value value = MakeMemberValue(rng);
    std::string pair;
    Json::Value one(Json::objectValue);
    one[name] = value;
    util::JsonObjTostrPair(one, pair, true, true);
    const size_t grown = written + (written == 0 ? 0 : 1) + pair.size();
    if (grown > size) break;
    input.object[name] = value;
    written = grown;
  }
  util::JsonObjTostrPair(input.object, input.pairs, true, true);
  return input;
}

std::string MakeUserAgent(size_t size) {
  std::string agent =
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
      "Chrome/120.0.0.0 Safari/537.36 Edg/120.0.0.0";
  while (agent.size() < size) agent += " Extension/1.0";
  agent.resize(size);
  return agent;
}

template <typename Input, typename Make>
const std::vector<Input>& Cached(int64_t size, Make make) {
  static std::map<int64_t, std::vector<Input>> cache;
  auto found = cache.find(size);
  if (found != cache.end()) return found->second;
  std::vector<Input>& inputs = cache[size];
  Rng rng(0x2545F4914F6CDD1DULL + static_cast<uint64_t>(size));
  for (size_t i = 0; i < InputCount(size); ++i)
    inputs.push_back(make(static_cast<size_t>(size), rng));
  return inputs;
}

// Cycles through `inputs`, calling `body` (which returns the bytes it
// handled, or -1 when its result is wrong).
template <typename Input, typename Body>
void Cycle(benchmark::State& state, const std::vector<Input>& inputs, Body body) {
  size_t next = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    const int64_t handled = body(inputs[next]);
    if (handled < 0) return state.SkipWithError("wrong result");
    if (++next == inputs.size()) next = 0;
    bytes += handled;
  }
  state.SetBytesProcessed(bytes);
}

// ---- benchmarks -------------------------------------------------------------------

void BM_EncodeHtml(benchmark::State& state) {
  const auto& inputs = Cached<std::string>(state.range(0), MakeHtmlText);
  if (util::EncodeHtml(inputs[0], true).find_first_of("<> ") != std::string::npos)
    return state.SkipWithError("markup or a space left in the output");
  Cycle(state, inputs, [](const std::string& text) -> int64_t {
    const std::string encoded = util::EncodeHtml(text, true);
    benchmark::DoNotOptimize(encoded.data());
    return encoded.size() >= text.size() ? static_cast<int64_t>(text.size()) : -1;
  });
}

void BM_JsonObjTostrPair(benchmark::State& state) {
  const auto& inputs = Cached<KeyValueInput>(state.range(0), MakeKeyValue);
  Json::Value back(Json::objectValue);
  if (!util::strPairToJsonObj(inputs[0].pairs, back, true, true) || back != inputs[0].object)
    return state.SkipWithError("the pairs do not read back into the object");
  state.counters["pairs"] = static_cast<double>(inputs[0].object.size());
  Cycle(state, inputs, [](const KeyValueInput& input) -> int64_t {
    std::string pairs;
    util::JsonObjTostrPair(input.object, pairs, true, true);
    return pairs.size() == input.pairs.size() ? static_cast<int64_t>(pairs.size()) : -1;
  });
}

void BM_strPairToJsonObj(benchmark::State& state) {
  const auto& inputs = Cached<KeyValueInput>(state.range(0), MakeKeyValue);
  state.counters["pairs"] = static_cast<double>(inputs[0].object.size());
  Cycle(state, inputs, [](const KeyValueInput& input) -> int64_t {
    Json::Value object(Json::objectValue);
    util::strPairToJsonObj(input.pairs, object, true, true);
    return object.size() == input.object.size() ? static_cast<int64_t>(input.pairs.size()) : -1;
  });
}

void BM_GetBrowserInfo(benchmark::State& state) {
  const auto& agents =
      Cached<std::string>(state.range(0), [](size_t size, Rng&) { return MakeUserAgent(size); });
  // One agent per size: set once, outside the timing.
  if (setenv("HTTP_USER_AGENT", agents[0].c_str(), 1) != 0)
    return state.SkipWithError("setenv failed");
  Cycle(state, std::vector<int>{0}, [&agents](int) -> int64_t {
    MERO::_tag_mero_browser_info_ info;
    const int result = util::GetBrowserInfo(&info);
    return result == 0 && info.type == MERO::BROWSER_EDGE ? static_cast<int64_t>(agents[0].size())
                                                          : -1;
  });
}

void PrintSummary(const CapturingReporter& reporter, std::FILE* out) {
  PrintLinearity(reporter,
                 {"BM_EncodeHtml", "BM_JsonObjTostrPair", "BM_strPairToJsonObj",
                  "BM_GetBrowserInfo", "BM_FreshBuffer"},
                 out);
}

}  // namespace

int main(int argc, char** argv) {
  RegisterSizes("BM_EncodeHtml", BM_EncodeHtml);
  RegisterSizes("BM_JsonObjTostrPair", BM_JsonObjTostrPair);
  RegisterSizes("BM_strPairToJsonObj", BM_strPairToJsonObj);
  RegisterSizes("BM_GetBrowserInfo", BM_GetBrowserInfo, kBoundedWork);
  RegisterSizes("BM_FreshBuffer", BM_FreshBuffer);
  return RunBenchmarks(argc, argv, "text_utils_bench", kPrewarmBytes, PrintSummary);
}
