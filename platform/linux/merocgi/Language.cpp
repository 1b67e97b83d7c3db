// UI language negotiation: an explicit choice (parameter or cookie "lang")
// first, then Accept-Language per RFC 9110 section 12.5.4 (q-values), matched
// against the languages the interface is translated to.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "merocgi.h"

namespace {

constexpr const char* kLanguages[] = {"en", "de", "fr", "it", "es", "nl", "pl",
                                      "pt", "ru", "ja", "ko", "zh-CN", "zh-TW"};
constexpr int kMaxRankedTags = 32;

const char* Supported(const char* tag, size_t length) {
  for (const char* lang : kLanguages)
    if (std::strlen(lang) == length && strncasecmp(lang, tag, length) == 0) return lang;
  return nullptr;
}

// A supported language with the same primary subtag ("de" for "de-AT",
// "zh-CN" for "zh").
const char* SamePrimary(const char* tag, size_t length) {
  const char* dash = static_cast<const char*>(std::memchr(tag, '-', length));
  const size_t primary = dash ? static_cast<size_t>(dash - tag) : length;
  for (const char* lang : kLanguages) {
    const size_t langPrimary = std::strcspn(lang, "-");
    if (langPrimary == primary && strncasecmp(lang, tag, primary) == 0) return lang;
  }
  return nullptr;
}

// Parses "q=0.8" style weights into thousandths; malformed weights count 0.
int Weight(const char* params, const char* end) {
  const char* q = params;
  while (q < end && (*q == ' ' || *q == '\t' || *q == ';')) ++q;
  if (end - q < 2 || (q[0] != 'q' && q[0] != 'Q') || q[1] != '=') return 1000;
  q += 2;
  if (q >= end || (*q != '0' && *q != '1')) return 0;
  int thousandths = (*q - '0') * 1000;
  ++q;
  if (q < end && *q == '.') {
    ++q;
    for (int scale = 100; scale > 0 && q < end && *q >= '0' && *q <= '9'; scale /= 10, ++q)
      thousandths += (*q - '0') * scale;
  }
  return thousandths > 1000 ? 1000 : thousandths;
}

const char* FromAcceptLanguage(const char* header) {
  if (!header) return nullptr;
  size_t length = std::strlen(header);
  if (length > MERO_CGI_MAX_ACCEPT_LANGUAGE_BYTES) length = MERO_CGI_MAX_ACCEPT_LANGUAGE_BYTES;
  struct Ranked {
    const char* exact;
    const char* primary;
    int weight;
  } ranked[kMaxRankedTags];
  int count = 0;
  const char* const end = header + length;
  for (const char* item = header; item < end && count < kMaxRankedTags;) {
    const char* itemEnd = static_cast<const char*>(std::memchr(item, ',', static_cast<size_t>(end - item)));
    if (!itemEnd) itemEnd = end;
    const char* tag = item;
    while (tag < itemEnd && (*tag == ' ' || *tag == '\t')) ++tag;
    const char* tagEnd = tag;
    while (tagEnd < itemEnd && *tagEnd != ';' && *tagEnd != ' ' && *tagEnd != '\t') ++tagEnd;
    const size_t tagLength = static_cast<size_t>(tagEnd - tag);
    const int weight = Weight(tagEnd, itemEnd);
    if (tagLength > 0 && weight > 0)
      ranked[count++] = {Supported(tag, tagLength), SamePrimary(tag, tagLength), weight};
    item = itemEnd + 1;
  }
  // Highest weight wins; within a weight, header order.
  const char* best = nullptr;
  int bestWeight = 0;
  for (int i = 0; i < count; ++i) {
    const char* candidate = ranked[i].exact ? ranked[i].exact : ranked[i].primary;
    if (candidate && ranked[i].weight > bestWeight) {
      best = candidate;
      bestWeight = ranked[i].weight;
    }
  }
  return best;
}

}  // namespace

extern "C" const char* MeroCgiGetLang(MEROCGI_STATE* state) {
  if (!state) return nullptr;
  if (state->uiLanguage) return state->uiLanguage;
  const char* chosen = nullptr;
  for (const char* explicitChoice : {MeroCgiGetCGIParam(state, "lang", nullptr),
                                     MeroCgiGetInCookies(state, "lang", nullptr)}) {
    if (explicitChoice && (chosen = Supported(explicitChoice, std::strlen(explicitChoice)))) break;
  }
  if (!chosen) chosen = FromAcceptLanguage(std::getenv("HTTP_ACCEPT_LANGUAGE"));
  state->uiLanguage = chosen ? chosen : kLanguages[0];
  return state->uiLanguage;
}
