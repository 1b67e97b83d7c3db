// Fuzz target: a Cookie header (HTTP_COOKIE) through MeroCgiLoadInCookies,
// checked against what merocgi.h promises.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "FuzzCheck.h"
#include "merocgi.h"

namespace {

bool IsOws(char c) { return c == ' ' || c == '\t'; }

bool HasControlOrSemicolon(const char* text) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
    if (*p < 0x20 || *p == 0x7f || *p == ';') return true;
  return false;
}

// `name` stands in `header` as a pair's name: after the start, a ';' or a
// blank, and followed by blanks and '='.
bool AppearsAsName(const std::string& header, const std::string& name) {
  for (size_t at = header.find(name); at != std::string::npos; at = header.find(name, at + 1)) {
    if (at > 0 && header[at - 1] != ';' && !IsOws(header[at - 1])) continue;
    size_t next = at + name.size();
    while (next < header.size() && IsOws(header[next])) ++next;
    if (next < header.size() && header[next] == '=') return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An environment value ends at its first NUL.
  const char* bytes = reinterpret_cast<const char*>(data);
  const std::string header(bytes, std::find(bytes, bytes + size, '\0'));
  FUZZ_CHECK(setenv("HTTP_COOKIE", header.c_str(), 1) == 0);

  MEROCGI_STATE state;
  FUZZ_CHECK(MeroCgiInit("", &state) == 1);
  const int rc = MeroCgiLoadInCookies(&state);
  FUZZ_CHECK(rc >= -1);
  // -1 is otherwise kept for a null state or no memory.
  FUZZ_CHECK((rc == -1) == (header.size() > MERO_CGI_MAX_COOKIE_HEADER_BYTES));
  if (rc == -1) {
    FUZZ_CHECK(state.inCookieTable == nullptr);
    FUZZ_CHECK(MLIBCErrGet() == MERO_ERR_REQUEST_TOO_LARGE);
    MeroCgiFree(&state);
    return 0;
  }
  if (header.empty()) FUZZ_CHECK(rc == 0);

  const MLIBSZHASH* table = state.inCookieTable;
  FUZZ_CHECK(rc == 0 || table != nullptr);
  int loaded = 0;
  for (int i = 0; table && i < table->slotCount; ++i) {
    const char* name = table->slots[i].key;
    const char* value = table->slots[i].value;
    if (!name || !value) continue;
    ++loaded;
    const size_t nameLength = std::strlen(name);
    FUZZ_CHECK(nameLength > 0 && !HasControlOrSemicolon(name) && !std::strchr(name, '='));
    FUZZ_CHECK(!IsOws(name[0]) && !IsOws(name[nameLength - 1]));
    FUZZ_CHECK(AppearsAsName(header, name));
    FUZZ_CHECK(!HasControlOrSemicolon(value));
    FUZZ_CHECK(header.find(value) != std::string::npos);  // values are never decoded
    // Pointer identity: the lookup lands on this very slot, so names are unique.
    FUZZ_CHECK(MeroCgiGetInCookies(&state, name, nullptr) == value);
  }
  FUZZ_CHECK(loaded == rc);

  // Without blanks or control bytes the cookies are exactly the header split
  // at ';' and the first '=', the quotes around a value holding no other
  // quote dropped, the first pair of a name winning.
  const bool plain = std::none_of(header.begin(), header.end(), [](char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return IsOws(c) || u < 0x20 || u == 0x7f;
  });
  if (plain) {
    std::map<std::string, std::string> want;
    for (size_t start = 0; start <= header.size();) {
      const size_t end = std::min(header.find(';', start), header.size());
      const size_t eq = header.find('=', start);
      if (eq < end && eq > start) {
        std::string value = header.substr(eq + 1, end - eq - 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"' &&
            value.find('"', 1) == value.size() - 1)
          value = value.substr(1, value.size() - 2);
        want.emplace(header.substr(start, eq - start), value);
      }
      start = end + 1;
    }
    FUZZ_CHECK(want.size() == static_cast<size_t>(rc));
    for (const auto& [name, value] : want) {
      const char* got = MeroCgiGetInCookies(&state, name.c_str(), nullptr);
      FUZZ_CHECK(got != nullptr && value == got);
    }
  }

  // Loading again replaces (and frees) the table with an equal one.
  const int slotCount = table ? table->slotCount : 0;
  FUZZ_CHECK(MeroCgiLoadInCookies(&state) == rc);
  FUZZ_CHECK((state.inCookieTable ? state.inCookieTable->slotCount : 0) == slotCount);
  MeroCgiFree(&state);
  return 0;
}
