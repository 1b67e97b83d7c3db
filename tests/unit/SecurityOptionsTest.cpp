// Security headers from an options text: the exact headers for plain http
// and https, the scheme test, and the refusals that keep injected bytes and
// directives out of every header value.
#include <gtest/gtest.h>
#include <json/value.h>
#include <stdlib.h>

#include <map>
#include <string>
#include <tuple>

#include "ApplianceRootEnv.h"
#include "zel.h"

namespace {

using Headers = std::map<std::string, std::string>;
using MERO::ZEL::SecurityOptions;

const char kPolicy[] =
    "default-src 'self'; script-src 'self'; style-src 'self' 'unsafe-inline'; "
    "img-src 'self' data:; object-src 'none'; base-uri 'self'; form-action 'self'";
const std::string kSelfPolicy = std::string(kPolicy) + "; frame-ancestors 'self'";
const char kYearHsts[] = "max-age=31536000; includeSubDomains";

// The headers of `default` on plain http, with `changes` applied ("" erases).
Headers Defaults(const Headers& changes = {}) {
  Headers headers = {{"Content-Security-Policy", kSelfPolicy},
                     {"Referrer-Policy", "same-origin"},
                     {"X-Content-Type-Options", "nosniff"},
                     {"X-Frame-Options", "SAMEORIGIN"}};
  for (const auto& [name, value] : changes) {
    if (value.empty())
      headers.erase(name);
    else
      headers[name] = value;
  }
  return headers;
}

class SecurityOptionsTest : public webapi_test::ApplianceRootTest {
 protected:
  // The headers as a map; also checks that each is a string value.
  static Headers Get(const SecurityOptions& options) {
    const Json::Value json = options.GetSecurityHeaders();
    EXPECT_TRUE(json.isObject());
    Headers headers;
    for (const std::string& name : json.getMemberNames()) {
      EXPECT_TRUE(json[name].isString()) << name;
      headers[name] = json[name].asString();
    }
    return headers;
  }
};

TEST_F(SecurityOptionsTest, EmitsExactlyTheSelectedHeadersAndHstsOnlyOnHttps) {
  struct Case { const char* options; Headers http; const char* hsts; };  // hsts: on https only
  const std::string originsPolicy =
      std::string(kPolicy) + "; frame-ancestors 'self' https://a.example http://10.0.0.2:8080";
  const Case cases[] = {
      {"default", Defaults(), kYearHsts},
      {" DEFAULT,\t", Defaults(), kYearHsts},
      {"default,hsts=600", Defaults(), "max-age=600; includeSubDomains"},
      {"default hsts=off", Defaults(), nullptr},
      {"hsts=off default", Defaults(), kYearHsts},  // a later token wins
      {"hsts=0", {}, "max-age=0; includeSubDomains"},
      {"hsts=On", {}, kYearHsts},
      {"hsts=0000000042", {}, "max-age=42; includeSubDomains"},
      {"default frame=deny",
       Defaults({{"X-Frame-Options", "DENY"},
                 {"Content-Security-Policy", std::string(kPolicy) + "; frame-ancestors 'none'"}}),
       kYearHsts},
      {"default frame=off", Defaults({{"X-Frame-Options", ""}, {"Content-Security-Policy", kPolicy}}),
       kYearHsts},
      {"default frame=https://a.example|HTTP://10.0.0.2:8080",
       Defaults({{"X-Frame-Options", ""}, {"Content-Security-Policy", originsPolicy}}), kYearHsts},
      {"frame=https://[2001:DB8::1]:5001",
       {{"Content-Security-Policy", "frame-ancestors 'self' https://[2001:db8::1]:5001"}}, nullptr},
      {"frame=sameorigin",
       {{"X-Frame-Options", "SAMEORIGIN"}, {"Content-Security-Policy", "frame-ancestors 'self'"}},
       nullptr},
      {"default csp=off", Defaults({{"Content-Security-Policy", "frame-ancestors 'self'"}}), kYearHsts},
      {"default csp=off frame=off", Defaults({{"Content-Security-Policy", ""}, {"X-Frame-Options", ""}}),
       kYearHsts},
      {"csp=on", {{"Content-Security-Policy", kPolicy}}, nullptr},
      {"nosniff=on", {{"X-Content-Type-Options", "nosniff"}}, nullptr},
      {"default nosniff=off referrer=off",
       Defaults({{"X-Content-Type-Options", ""}, {"Referrer-Policy", ""}}), kYearHsts},
      {"referrer=Strict-Origin-When-Cross-Origin", {{"Referrer-Policy", "strict-origin-when-cross-origin"}},
       nullptr},
      {" ,\r\n, ", {}, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    const SecurityOptions options(c.options);
    EXPECT_EQ(options.IgnoredTokenCount(), 0);
    EXPECT_TRUE(options.IsValid());
    unsetenv("HTTPS");
    EXPECT_EQ(Get(options), c.http);
    setenv("HTTPS", "on", 1);
    Headers https = c.http;
    if (c.hsts) https["Strict-Transport-Security"] = c.hsts;
    EXPECT_EQ(Get(options), https);
  }
}

TEST_F(SecurityOptionsTest, ReadsTheSchemeAtEachCall) {
  // HTTPS, X-Forwarded-Proto, whether HSTS is sent. Letter case and either
  // variable alone are the request-origin test's.
  const std::tuple<const char*, const char*, bool> cases[] = {
      {nullptr, nullptr, false}, {"on", nullptr, true},    {"1", nullptr, false},
      {"on ", nullptr, false},   {"", nullptr, false},     {nullptr, "https", true},
      {nullptr, "https,http", false},
  };
  const SecurityOptions options("hsts=on");
  for (const auto& [https, forwardedProto, hsts] : cases) {
    SCOPED_TRACE(std::string(https ? https : "-") + " / " + (forwardedProto ? forwardedProto : "-"));
    webapi_test::SetEnvOrUnset("HTTPS", https);
    webapi_test::SetEnvOrUnset("HTTP_X_FORWARDED_PROTO", forwardedProto);
    EXPECT_EQ(Get(options).count("Strict-Transport-Security"), hsts ? 1u : 0u);
  }
}

TEST_F(SecurityOptionsTest, IgnoresEachBadTokenWholeAndAppliesTheRest) {
  std::string seventeen = "frame=https://a0.example";
  std::string overLong = "frame=https://" + std::string(250, 'a');  // 16 good origins, 4149 bytes
  for (int i = 1; i <= SecurityOptions::kMaxFrameOrigins; ++i) {
    seventeen += "|https://a" + std::to_string(i) + ".example";
    if (i < SecurityOptions::kMaxFrameOrigins) overLong += "|https://" + std::string(250, 'a');
  }
  // Each would change a header, smuggle a directive (';') or a header line.
  const std::string refused[] = {
      "hsts=abc", "hsts=", "hsts=2147483648", "hsts=99999999999", "nosniff=yes", "csp=1",
      "referrer=none", "unknown=1", "defaults", "frame=", "frame=https://a.example;script-src",
      "frame=https://a.example\x01", "frame=https://a.example\x7f", "frame=https://\xc3\xa9.example", "frame='unsafe-inline'",
      "frame=\"https://a.example\"", "frame=https://a.example\\", "frame=https://a.example|",
      "frame=https://ok.example|ftp://b.example", "frame=https://", "frame=https://a.example/",
      "frame=https://*.example", "frame=https://a.example:0", "frame=https://a.example:65536",
      "frame=https://a.example:", "frame=https://a..example", "frame=https://[::1",
      "frame=https://[fe80::1%25eth0]", "frame=https://[" + std::string(45, 'f') + ":]",
      "frame=https://user@a.example", "frame=a.example", "frame=https://" + std::string(254, 'a'),
      overLong, seventeen};
  const Headers want = Defaults({{"Referrer-Policy", "no-referrer"}});
  for (const std::string& bad : refused) {
    SCOPED_TRACE(bad.substr(0, 60));
    const SecurityOptions options(("default " + bad + " referrer=no-referrer").c_str());
    EXPECT_EQ(options.IgnoredTokenCount(), 1);
    EXPECT_FALSE(options.IsValid());
    EXPECT_EQ(Get(options), want);
  }
}

TEST_F(SecurityOptionsTest, SeparatorsInInjectedTextOnlyStartTokensOfTheirOwn) {
  std::string sixteen = "frame=https://a0.example";
  std::string sixteenPolicy = "frame-ancestors 'self' https://a0.example";
  for (int i = 1; i < SecurityOptions::kMaxFrameOrigins; ++i) {
    sixteen += "|https://a" + std::to_string(i) + ".example";
    sixteenPolicy += " https://a" + std::to_string(i) + ".example";
  }
  const std::string framedPolicy = std::string(kPolicy) + "; frame-ancestors 'self' https://a.example";
  struct Case { std::string options; int ignored; Headers want; };  // want: on https
  const Case cases[] = {
      {"default frame=https://a.example\r\nSet-Cookie:x=1", 1,  // no header line of its own
       Defaults({{"X-Frame-Options", ""}, {"Content-Security-Policy", framedPolicy},
                 {"Strict-Transport-Security", kYearHsts}})},
      {"frame=https://a.example,*, nosniff=on", 1,  // no second policy, no wildcard
       {{"Content-Security-Policy", "frame-ancestors 'self' https://a.example"},
        {"X-Content-Type-Options", "nosniff"}}},
      {"csp=on;default-src * hsts=60", 2, {{"Strict-Transport-Security", "max-age=60; includeSubDomains"}}},
      {"referrer=origin\nreferrer=unsafe-url\x01 hsts=5\r", 1,
       {{"Referrer-Policy", "origin"}, {"Strict-Transport-Security", "max-age=5; includeSubDomains"}}},
      {sixteen, 0, {{"Content-Security-Policy", sixteenPolicy}}},
  };
  setenv("HTTPS", "on", 1);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options.substr(0, 60));
    const SecurityOptions options(c.options.c_str());
    EXPECT_EQ(options.IgnoredTokenCount(), c.ignored);
    EXPECT_EQ(Get(options), c.want);
  }
}

}  // namespace
