// Fuzz target: a parameter line (query string or form body) through
// MeroCgiParseCGIParam, checked against what merocgi.h promises.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "merocgi.h"

namespace {

// The non-empty '&'-separated pairs of `line`, undecoded.
std::vector<std::string> Pairs(const std::string& line) {
  std::vector<std::string> pairs;
  for (size_t start = 0; start <= line.size();) {
    const size_t amp = std::min(line.find('&', start), line.size());
    if (amp > start) pairs.push_back(line.substr(start, amp - start));
    start = amp + 1;
  }
  return pairs;
}

std::vector<std::pair<std::string, std::string>> StoredPairs(const MLIBSZHASH* table) {
  std::vector<std::pair<std::string, std::string>> stored;
  for (int i = 0; table && i < table->slotCount; ++i)
    if (table->slots[i].key && table->slots[i].value)
      stored.emplace_back(table->slots[i].key, table->slots[i].value);
  return stored;
}

// Form-encodes `text` as a browser would (a space as '+', the hex case
// varied), so that parsing it must give `text` back.
std::string FormEncode(const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == ' ') {
      out += '+';
    } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.') {
      out += static_cast<char>(c);
    } else {
      const char* hex = kHex + (i % 2) * 16;
      out += {'%', hex[c >> 4], hex[c & 15]};
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Without a body method, lookups consult the parameter table alone.
  static const bool noMethod = unsetenv("REQUEST_METHOD") == 0;
  FUZZ_CHECK(noMethod);

  // A C text ends at its first NUL, as a line from the environment would.
  const char* bytes = reinterpret_cast<const char*>(data);
  const std::string line(bytes, std::find(bytes, bytes + size, '\0'));
  const std::vector<std::string> pairs = Pairs(line);
  // "%00" is the only way to decode a NUL: a '%' is never a hex digit, so
  // no earlier escape can swallow this one.
  const bool decodesNul = line.find("%00") != std::string::npos;
  const bool tooLarge =
      line.size() > MERO_CGI_MAX_PARAM_LINE_BYTES || pairs.size() > MERO_CGI_MAX_PARAMS;

  MEROCGI_STATE state;
  FUZZ_CHECK(MeroCgiInit("", &state) == 1);
  const int rc = MeroCgiParseCGIParam(&state, line.c_str());
  FUZZ_CHECK(rc >= -1 && rc <= MERO_CGI_MAX_PARAMS);
  FUZZ_CHECK((rc == -1) == (tooLarge || decodesNul));
  if (rc == -1) {
    FUZZ_CHECK(state.paramTable == nullptr);
    FUZZ_CHECK(MLIBCErrGet() ==
               (tooLarge ? MERO_ERR_REQUEST_TOO_LARGE : MERO_ERR_REQUEST_MALFORMED));
    MeroCgiFree(&state);
    return 0;
  }
  FUZZ_CHECK(static_cast<size_t>(rc) == pairs.size());

  const MLIBSZHASH* table = state.paramTable;
  FUZZ_CHECK(rc == 0 || table != nullptr);
  const int slotCount = table ? table->slotCount : 0;
  FUZZ_CHECK(slotCount <= rc && (rc == 0 || slotCount >= 1));
  const bool plain = line.find_first_of("%+") == std::string::npos;
  for (int i = 0; i < slotCount; ++i) {
    const char* key = table->slots[i].key;
    const char* value = table->slots[i].value;
    if (!key || !value) continue;
    // Name and value come from disjoint parts of one pair and decoding never
    // grows a text, so together they fit in the line.
    FUZZ_CHECK(std::strlen(key) + std::strlen(value) <= line.size());
    // Pointer identity: the lookup lands on this very slot, so keys are unique.
    FUZZ_CHECK(MeroCgiGetCGIParam(&state, key, nullptr) == value);
    if (plain) FUZZ_CHECK(line.find(key) != std::string::npos);
  }

  if (plain) {
    // Without escapes the table is exactly the split line, last value winning.
    std::map<std::string, std::string> want;
    for (const std::string& pair : pairs) {
      const size_t eq = pair.find('=');
      want[pair.substr(0, eq)] = eq == std::string::npos ? "" : pair.substr(eq + 1);
    }
    FUZZ_CHECK(want.size() == static_cast<size_t>(slotCount));
    for (const auto& [name, value] : want) {
      const char* got = MeroCgiGetCGIParam(&state, name.c_str(), nullptr);
      FUZZ_CHECK(got != nullptr && value == got);
    }
  }

  // The stored pairs, form-encoded again, decode to themselves.
  const auto stored = StoredPairs(table);
  std::string encoded;
  for (const auto& [name, value] : stored)
    encoded += FormEncode(name) + "=" + FormEncode(value) + "&";
  MEROCGI_STATE reparsed;
  FUZZ_CHECK(MeroCgiInit("", &reparsed) == 1);
  FUZZ_CHECK(MeroCgiParseCGIParam(&reparsed, encoded.c_str()) == static_cast<int>(stored.size()));
  FUZZ_CHECK(StoredPairs(reparsed.paramTable) == stored);
  MeroCgiFree(&reparsed);

  // The same line again goes through the merge into an existing table and
  // must leave the same pairs in the same slots.
  FUZZ_CHECK(MeroCgiParseCGIParam(&state, line.c_str()) == rc);
  FUZZ_CHECK(StoredPairs(state.paramTable) == stored);

  MeroCgiFree(&state);
  FUZZ_CHECK(state.paramTable == nullptr);
  return 0;
}
