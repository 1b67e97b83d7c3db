/* Security headers platform library (libzel): turns the administrator's
 * security options text into the security response headers of the web
 * administration interface.
 *
 * C++ only (it hands out a Json::Value). Nothing throws of its own; jsoncpp
 * and the standard library may throw std::bad_alloc. An object is immutable
 * after construction, so one may be shared between threads; the request
 * scheme is read from the environment on every GetSecurityHeaders call.
 *
 * Options text
 * ------------
 * Tokens separated by any run of spaces, tabs, CRs, LFs and commas. Tokens
 * apply from left to right, a later one overriding an earlier one for the
 * same header. Option names and keywords are ASCII case-insensitive; the
 * headers carry them in lower case. A text without `default` starts with
 * every header off, so it emits only what its tokens switch on.
 *
 *   default            every header below at its safe value (hsts=on
 *                      frame=sameorigin nosniff=on referrer=same-origin
 *                      csp=on). Administrators start from it and override.
 *   hsts=on|off|<s>    Strict-Transport-Security "max-age=<s>;
 *                      includeSubDomains". on means 31536000 (a year); <s>
 *                      is 1 to 10 decimal digits, at most
 *                      kMaxHstsSeconds; 0 tells browsers to forget the
 *                      policy. Emitted only on an https request (below).
 *   frame=deny         X-Frame-Options "DENY" and frame-ancestors 'none'.
 *   frame=sameorigin   X-Frame-Options "SAMEORIGIN" and frame-ancestors
 *                      'self'.
 *   frame=<o>[|<o>..]  only the page's own origin and the listed ones may
 *                      frame it: frame-ancestors 'self' <o> ... and no
 *                      X-Frame-Options, which cannot name several origins.
 *                      1 to kMaxFrameOrigins origins joined by '|', each
 *                      scheme://host[:port] with scheme http or https, host
 *                      1 to 253 letters, digits, '-' and '.' (beginning and
 *                      ending with a letter or digit, no ".."), or an IPv6
 *                      literal in brackets (hex digits, ':' and '.'), port
 *                      1 to 65535. No path, user, wildcard or trailing '/'.
 *   frame=off          no framing control at all (neither header part).
 *   nosniff=on|off     X-Content-Type-Options "nosniff".
 *   referrer=<p>|off   Referrer-Policy <p>, one of no-referrer,
 *                      no-referrer-when-downgrade, origin,
 *                      origin-when-cross-origin, same-origin, strict-origin,
 *                      strict-origin-when-cross-origin, unsafe-url.
 *   csp=on|off         the Content-Security-Policy below.
 *
 * Content-Security-Policy with csp=on (directives in this order):
 *   default-src 'self'; script-src 'self'; style-src 'self' 'unsafe-inline';
 *   img-src 'self' data:; object-src 'none'; base-uri 'self';
 *   form-action 'self'
 * followed by "; frame-ancestors ..." when a frame option other than off is
 * in force. With csp=off and such a frame option the header is
 * "frame-ancestors ..." alone, so an origin list is never silently dropped;
 * with csp=off and frame=off there is no Content-Security-Policy header.
 *
 * Invalid input: a token that is unknown, longer than kMaxTokenBytes, holds
 * a byte outside printable ASCII (control bytes, DEL, bytes >= 0x80), a
 * quote, a backslash or ';', or has a value outside its grammar above, is
 * ignored as a whole (an origin list with one bad origin changes nothing)
 * and logged with one line,
 *   syslog(LOG_ERR, "zel:<line> ignored security option '<token>': <why>")
 * where <token> has every byte outside printable ASCII shown as '?' and is
 * cut to 64 bytes (then followed by "..."). The other tokens still apply. Header values are built
 * only from checked tokens and fixed texts, so none ever holds CR, LF, NUL,
 * another control byte, ',' or a directive the options did not name.
 *
 * Example: "default hsts=63072000 frame=https://portal.example.com" */
#ifndef ZEL_H
#define ZEL_H

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "mero_export.h"

namespace MERO {
namespace ZEL {

class MERO_EXPORT SecurityOptions {
 public:
  // Longest token considered; a longer one is ignored (and logged).
  static constexpr std::size_t kMaxTokenBytes = 4096;
  // Most origins one frame=<o>|<o>... token may list.
  static constexpr int kMaxFrameOrigins = 16;
  // Largest hsts=<seconds>.
  static constexpr long kMaxHstsSeconds = 2147483647;

  // Parses `options` as described above, logging each ignored token. Null
  // is taken as "", which emits no header.
  explicit SecurityOptions(const char* options);

  // The headers for the current request, as a JSON object of header name to
  // header value (all strings; an empty object when nothing is on). Member
  // order is the object's key order: Content-Security-Policy,
  // Referrer-Policy, Strict-Transport-Security, X-Content-Type-Options,
  // X-Frame-Options, each present only when selected.
  // Strict-Transport-Security is added only when the request is https: the
  // environment variable HTTPS equals "on" or HTTP_X_FORWARDED_PROTO equals
  // "https", both ignoring case and read at this call. (A client can forge
  // X-Forwarded-Proto on a direct plain-http request; browsers ignore
  // Strict-Transport-Security on plain http, so the header is harmless.)
  Json::Value GetSecurityHeaders() const;

  // Tokens of the options text that were ignored (each also logged).
  int IgnoredTokenCount() const { return ignoredTokens_; }
  // True when every token of the options text applied.
  bool IsValid() const { return ignoredTokens_ == 0; }

 private:
  enum class Framing { kOff, kDeny, kSameOrigin, kOrigins };

  // Applies one token; null when it applied, else why it was ignored (and
  // then nothing changed).
  const char* ApplyToken(std::string_view token);

  long hstsSeconds_ = -1;       // -1: no Strict-Transport-Security
  Framing framing_ = Framing::kOff;
  std::string frameOrigins_;    // kOrigins: " <o> <o>...", checked, lower case
  bool noSniff_ = false;
  std::string referrerPolicy_;  // "": no Referrer-Policy
  bool csp_ = false;
  int ignoredTokens_ = 0;
};

}  // namespace ZEL
}  // namespace MERO

#endif  // ZEL_H
