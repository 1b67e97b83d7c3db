// Request origin: the URL splitter, the derived protocol, host and port, the
// same-origin test against hostile headers, and application portals.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ApplianceRootEnv.h"
#include "cgi/WebCGIPrivate.h"

namespace {

using WebCGIOriginTest = webapi_test::ApplianceRootTest;
using webapi_test::SetEnvOrUnset;

TEST_F(WebCGIOriginTest, SplitsUrlsIntoHostAndPortText) {
  struct Case {
    const char* url;
    bool ok;
    const char *host, *port;  // "(kept)" when the output keeps its previous value
  };
  const Case cases[] = {
      {"https://[fe80::1]:5001/app/page", true, "[fe80::1]", "5001"},
      {"http://[fe80::1", false, "(kept)", "80"},
      {"ftp://10.0.0.5/", false, "(kept)", "(kept)"},
      {"HTTP://10.0.0.5/", false, "(kept)", "(kept)"},
      {"http://10.0.0.5", true, "10.0.0.5", "80"},
      {"https://10.0.0.5:", true, "10.0.0.5", ""},
      {"http://", true, "", "80"},
      {"http://10.0.0.5?a=b:c", true, "10.0.0.5?a=b", "c"},
      {"http://a:1:2/", true, "a:1", "2"},
      {"https://user:pw@host:8443/x", true, "user:pw@host", "8443"},
      {"https://[::1]x:99/", true, "[::1]", "99"},
  };
  MERO::WebCGI cgi("zel", false);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    std::string host = "(kept)", port = "(kept)";
    EXPECT_EQ(cgi.ParseHostAndPort(c.url, host, port), c.ok);
    EXPECT_EQ(host, c.host);
    EXPECT_EQ(port, c.port);
  }
}

TEST_F(WebCGIOriginTest, DerivesProtocolHostAndPortOnce) {
  struct Case {
    const char *https, *forwarded, *hostHeader, *proto, *host;
    int port;
  };
  const Case cases[] = {
      {nullptr, nullptr, "10.0.0.5", "http", "10.0.0.5", 80},
      {"off", "HTTPS", "10.0.0.5", "https", "10.0.0.5", 443},
      {"On", "http", "nas.local:5001", "https", "nas.local", 5001},  // http never undoes https
      {nullptr, "https, http", "h", "http", "h", 80},                  // a list is no match
      {nullptr, nullptr, "10.0.0.5:5000x", "http", "10.0.0.5", 5000},
      {nullptr, nullptr, "[fe80::1", "http", "", 80},  // failed split: what it wrote
      {nullptr, nullptr, "[fe80::1]:99999999999", "http", "[fe80::1]", 2147483647},
      {nullptr, nullptr, nullptr, "http", "", 0},
      {nullptr, nullptr, "", "http", "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.hostHeader ? c.hostHeader : "(unset)"));
    SetEnvOrUnset("HTTPS", c.https);
    SetEnvOrUnset("HTTP_X_FORWARDED_PROTO", c.forwarded);
    SetEnvOrUnset("HTTP_HOST", c.hostHeader);
    MERO::WebCGI cgi("zel", false);
    EXPECT_EQ(cgi.GetURLProto(), c.proto);
    ASSERT_TRUE(cgi.AddCookieToHeader("/api", "id", "x"));  // Secure on https only
    EXPECT_EQ(cgi.GetSetCookies()["id"].asString().find("; Secure") != std::string::npos,
              std::string(c.proto) == "https");
    MERO::WebCGIPrivate& p = MERO::WebCGIPrivate::Of(cgi);
    EXPECT_EQ(p.host, c.host);
    EXPECT_EQ(p.port, c.port);
    SetEnvOrUnset("HTTPS", c.https ? nullptr : "on");  // later changes are not seen
    SetEnvOrUnset("HTTP_HOST", "changed:1");
    EXPECT_EQ(cgi.GetURLProto(), c.proto);
    EXPECT_EQ(p.host, c.host);
  }
}

TEST_F(WebCGIOriginTest, SameOriginOnlyForTheSameHostAndPortText) {
  struct Case {
    const char *https, *hostHeader, *referer;
    bool same;
  };
  const std::string longHost(5000, 'a');
  const std::string longReferer = "http://" + longHost + "/";
  const Case cases[] = {
      {"on", "10.0.0.5", "https://10.0.0.5/page", true},
      {"on", "10.0.0.5:443", "https://10.0.0.5/page", true},
      {"on", "10.0.0.5", "http://10.0.0.5/page", false},
      {nullptr, "nas.local:5000", "http://nas.local:5000/x?y", true},
      {nullptr, "[fe80::1]:5000", "http://[fe80::1]:5000/", true},
      {nullptr, "[fe80::1]:5000", "http://[fe80::1]:5001/", false},
      {nullptr, "NAS.local", "http://nas.local/", false},         // case differs
      {nullptr, "nas.local.", "http://nas.local/", false},        // trailing dot differs
      {nullptr, "nas.local:80", "http://nas.local:080/", false},  // text, not number
      {nullptr, "nas.local", "http://evil@nas.local/", false},
      {nullptr, "nas.local", "http://nas.local@evil.example/", false},
      {nullptr, "nas.local:80@x", "http://nas.local:80@x/", false},  // user info on both sides
      {nullptr, "nas.local:99999", "http://nas.local:99999/", false},
      {nullptr, "nas.local:x", "http://nas.local:x/", false},
      {nullptr, "nas.local", "//nas.local/", false},
      {"on", "[::1]evil:443", "https://[::1]/", false},  // text after the brackets
      {nullptr, "a:b:80", "http://a:b:80/", false},       // a second colon
      {nullptr, "appliance/x", "http://appliance/y", false},
      {nullptr, "nas.local:", "http://nas.local:/", false},  // an empty port
      {nullptr, "nas.local", nullptr, false},
      {nullptr, nullptr, "http://nas.local/", false},
      {nullptr, "", "http://nas.local/", false},
      {nullptr, longHost.c_str(), longReferer.c_str(), false},  // never compared cut
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.hostHeader ? c.hostHeader : "(unset)").substr(0, 30) + " vs " +
                 std::string(c.referer ? c.referer : "(unset)").substr(0, 30));
    SetEnvOrUnset("HTTPS", c.https);
    SetEnvOrUnset("HTTP_HOST", c.hostHeader);
    SetEnvOrUnset("HTTP_REFERER", c.referer);
    MERO::WebCGI cgi("zel", false);
    EXPECT_EQ(cgi.IsSameDomainAndPort(), c.same);
  }
}

TEST_F(WebCGIOriginTest, AppPortalsAreAdmittedByTheSessionConfiguration) {
  struct Case {
    const char *auth, *rewriteApp;  // auth null: no auth file
    bool portal, mapped;
  };
  const Case cases[] = {
      {R"({"app_portals":["apptwo"]})", nullptr, false, true},
      {R"({"app_portals":["apptwo"]})", "", true, false},
      {R"({"app_portals":["appone"]})", "AppOne", true, true},
      {R"({"app_portals":["apptwo", 7]})", "AppOne", true, false},
      {R"({"app_portals":[]})", "AppOne", true, true},
      {nullptr, "AppOne", true, true},
      {R"({"privilege":"AppOne"})", "appone", true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.auth ? c.auth : "(no file)") + " / " + (c.rewriteApp ? c.rewriteApp : "(unset)"));
    std::filesystem::remove(root() / "usr/mero/meroman/webapi/app.auth");
    if (c.auth) webapi_test::WriteRootFile("usr/mero/meroman/webapi/app.auth", c.auth);
    SetEnvOrUnset("REWRITE_APP", c.rewriteApp);
    MERO::WebCGI cgi("app", false);
    EXPECT_EQ(cgi.IsAppPortal(), c.portal);
    EXPECT_EQ(cgi.IsAppPortalMapping(), c.mapped);
  }
}

}  // namespace
