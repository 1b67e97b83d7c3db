// Security response headers from the administrator's options text. Every
// token is checked once, in the constructor; GetSecurityHeaders only joins
// checked pieces and fixed texts, so no header can carry a byte the checks
// refused. Header semantics per RFC 6797 (Strict-Transport-Security),
// RFC 7034 (X-Frame-Options), W3C Content Security Policy Level 3 and W3C
// Referrer Policy.
#include "zel.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "merocore.h"

namespace MERO {
namespace ZEL {
namespace {

constexpr const char* kLogSource = "zel";
constexpr long kDefaultHstsSeconds = 31536000;
constexpr std::size_t kMaxHostBytes = 253;
constexpr std::size_t kMaxLoggedTokenBytes = 64;

// Scripts stay strictly same-origin: that is what stops injected markup from
// running. Styles allow 'unsafe-inline' because the administration pages set
// style attributes in markup; an injected style can restyle a page but not
// run code, and a nonce or hash would need every page to cooperate.
constexpr const char* kPolicy =
    "default-src 'self'; script-src 'self'; style-src 'self' 'unsafe-inline'; "
    "img-src 'self' data:; object-src 'none'; base-uri 'self'; form-action 'self'";

constexpr const char* kReferrerPolicies[] = {
    "no-referrer", "no-referrer-when-downgrade", "origin", "origin-when-cross-origin",
    "same-origin", "strict-origin", "strict-origin-when-cross-origin", "unsafe-url"};

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ','; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLowerAlnum(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z'); }
bool IsHex(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f'); }
char LowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Printable ASCII other than the bytes that could end or escape a header
// value or a CSP directive.
bool IsAllowedByte(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return u > 0x20 && u < 0x7f && c != '"' && c != '\'' && c != '\\' && c != ';';
}

// 1 to `maxDigits` decimal digits, no larger than `max`. *out is untouched
// on failure.
bool ParseNumber(std::string_view text, std::size_t maxDigits, long max, long* out) {
  if (text.empty() || text.size() > maxDigits) return false;
  long long value = 0;  // at most 10 digits: fits, also where long is 32 bits
  for (char c : text) {
    if (!IsDigit(c)) return false;
    value = value * 10 + (c - '0');
  }
  if (value > max) return false;
  *out = static_cast<long>(value);
  return true;
}

bool IsValidHost(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    const std::string_view literal = host.substr(1, host.size() - 2);
    if (literal.size() < 2 || literal.size() > 45 || literal.find(':') == std::string_view::npos)
      return false;
    for (char c : literal)
      if (!IsHex(c) && c != ':' && c != '.') return false;
    return true;
  }
  if (host.empty() || host.size() > kMaxHostBytes) return false;
  if (!IsLowerAlnum(host.front()) || !IsLowerAlnum(host.back())) return false;
  if (host.find("..") != std::string_view::npos) return false;
  for (char c : host)
    if (!IsLowerAlnum(c) && c != '-' && c != '.') return false;
  return true;
}

// `origin` is already lower case.
bool IsValidOrigin(std::string_view origin) {
  const std::size_t schemeEnd = origin.find("://");
  if (schemeEnd == std::string_view::npos) return false;
  const std::string_view scheme = origin.substr(0, schemeEnd);
  if (scheme != "http" && scheme != "https") return false;
  std::string_view host = origin.substr(schemeEnd + 3);
  const std::size_t colon = host.rfind(':');
  if (colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos) {
    long port = 0;
    if (!ParseNumber(host.substr(colon + 1), 5, 65535, &port) || port == 0) return false;
    host = host.substr(0, colon);
  }
  return IsValidHost(host);
}

// "<o>|<o>..." to " <o> <o>..." in *joined, untouched on failure.
bool ParseOrigins(std::string_view list, std::string* joined) {
  std::string result;
  int count = 0;
  for (std::size_t begin = 0;; ++count) {
    const std::size_t bar = list.find('|', begin);
    const std::size_t length = bar == std::string_view::npos ? bar : bar - begin;
    const std::string_view origin = list.substr(begin, length);
    if (count == SecurityOptions::kMaxFrameOrigins || !IsValidOrigin(origin)) return false;
    result.append(" ").append(origin);
    if (bar == std::string_view::npos) break;
    begin = bar + 1;
  }
  *joined = std::move(result);
  return true;
}

bool ParseSwitch(std::string_view value, bool* on) {
  if (value != "on" && value != "off") return false;
  *on = value == "on";
  return true;
}

// The token as a log line may show it: printable ASCII only, cut short.
std::string Printable(std::string_view token) {
  std::string shown;
  for (std::size_t i = 0; i < token.size() && i < kMaxLoggedTokenBytes; ++i) {
    const unsigned char u = static_cast<unsigned char>(token[i]);
    shown += u >= 0x20 && u < 0x7f ? token[i] : '?';
  }
  if (token.size() > kMaxLoggedTokenBytes) shown += "...";
  return shown;
}

}  // namespace

SecurityOptions::SecurityOptions(const char* options) {
  const std::string_view text = options ? options : "";
  for (std::size_t begin = 0; begin < text.size();) {
    if (IsSeparator(text[begin])) {
      ++begin;
      continue;
    }
    std::size_t end = begin;
    while (end < text.size() && !IsSeparator(text[end])) ++end;
    const std::string_view token = text.substr(begin, end - begin);
    if (const char* why = ApplyToken(token)) {
      ++ignoredTokens_;
      syslog(LOG_ERR, "%s:%d ignored security option '%s': %s", kLogSource, __LINE__,
             Printable(token).c_str(), why);
    }
    begin = end;
  }
}

const char* SecurityOptions::ApplyToken(std::string_view token) {
  if (token.size() > kMaxTokenBytes) return "too long";
  std::string lowered;
  for (char c : token) {
    if (!IsAllowedByte(c)) return "holds a control, non-ASCII, quote, backslash or ';' byte";
    lowered += LowerAscii(c);
  }
  const std::size_t eq = lowered.find('=');
  if (eq == std::string::npos) {
    if (lowered != "default") return "unknown option";
    hstsSeconds_ = kDefaultHstsSeconds;
    framing_ = Framing::kSameOrigin;
    noSniff_ = true;
    referrerPolicy_ = "same-origin";
    csp_ = true;
    return nullptr;
  }
  const std::string_view name = std::string_view(lowered).substr(0, eq);
  const std::string_view value = std::string_view(lowered).substr(eq + 1);
  if (name == "hsts") {
    if (value == "on" || value == "off") {
      hstsSeconds_ = value == "on" ? kDefaultHstsSeconds : -1;
    } else if (!ParseNumber(value, 10, kMaxHstsSeconds, &hstsSeconds_)) {
      return "hsts takes on, off or a number of seconds";
    }
  } else if (name == "frame") {
    if (value == "off" || value == "deny" || value == "sameorigin") {
      framing_ = value == "off" ? Framing::kOff : value == "deny" ? Framing::kDeny : Framing::kSameOrigin;
    } else if (ParseOrigins(value, &frameOrigins_)) {
      framing_ = Framing::kOrigins;
    } else {
      return "frame takes deny, sameorigin, off or http(s) origins joined by '|'";
    }
  } else if (name == "nosniff") {
    if (!ParseSwitch(value, &noSniff_)) return "nosniff takes on or off";
  } else if (name == "csp") {
    if (!ParseSwitch(value, &csp_)) return "csp takes on or off";
  } else if (name == "referrer") {
    const auto* const end = std::end(kReferrerPolicies);
    const auto* const found = std::find(std::begin(kReferrerPolicies), end, value);
    if (value != "off" && found == end) return "referrer takes off or a Referrer-Policy value";
    referrerPolicy_ = found == end ? "" : *found;
  } else {
    return "unknown option";
  }
  return nullptr;
}

Json::Value SecurityOptions::GetSecurityHeaders() const {
  Json::Value headers(Json::objectValue);
  if (hstsSeconds_ >= 0 && MeroRequestIsHttps())
    headers["Strict-Transport-Security"] =
        "max-age=" + std::to_string(hstsSeconds_) + "; includeSubDomains";
  std::string ancestors;
  if (framing_ == Framing::kDeny) {
    headers["X-Frame-Options"] = "DENY";
    ancestors = "frame-ancestors 'none'";
  } else if (framing_ == Framing::kSameOrigin) {
    headers["X-Frame-Options"] = "SAMEORIGIN";
    ancestors = "frame-ancestors 'self'";
  } else if (framing_ == Framing::kOrigins) {
    ancestors = "frame-ancestors 'self'" + frameOrigins_;
  }
  std::string policy = csp_ ? kPolicy : "";
  if (!ancestors.empty()) policy += (policy.empty() ? "" : "; ") + ancestors;
  if (!policy.empty()) headers["Content-Security-Policy"] = policy;
  if (noSniff_) headers["X-Content-Type-Options"] = "nosniff";
  if (!referrerPolicy_.empty()) headers["Referrer-Policy"] = referrerPolicy_;
  return headers;
}

}  // namespace ZEL
}  // namespace MERO
