// The sharing platform's pure rules (what a link admits and covers, the base
// address of links) and the operator's calls on a real store.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "ApplianceRootEnv.h"
#include "merosharing.h"
#include "webapi/WebCGI.h"

namespace {

using MERO::sharing::record::Entry;

TEST(SharingRulesTest, WhatALinkAdmits) {
  Entry entry;
  entry.apis = {"Demo.Share:list", "Demo.Files"};
  const struct { const char* api; const char* method; bool admitted; } cases[] = {
      {"Demo.Share", "list", true},    {"Demo.Share", "LIST", true},  // methods ignore case
      {"Demo.Share", "download", false}, {"demo.share", "list", false},  // API names do not
      {"Demo.Files", "anything", true},  {"Demo.Share:list", "", false},
      {"Demo.Shar", "e:list", false},    {"Demo", "Share:list", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(entry.Admits(c.api, c.method), c.admitted) << c.api << " " << c.method;
}

TEST(SharingRulesTest, WhatALinkCovers) {
  const struct { const char* item; const char* path; bool covered; } cases[] = {
      {"/docs", "/docs", true},        {"/docs", "/docs/a/b.txt", true},
      {"/docs", "/docsx", false},      {"/docs", "/doc", false},
      {"/docs", "/docs/", false},      {"/docs", "/docs//a", false},
      {"/docs", "/docs/./a", false},   {"/docs", "/docs/a/..", false},
      {"/docs", "/docs/../etc", false}, {"/", "/etc/passwd", true},
      {"/", "/a/../b", false},         {"", "/docs", false},
  };
  for (const auto& c : cases) {
    Entry entry;
    entry.item = c.item;
    EXPECT_EQ(entry.Covers(c.path), c.covered) << c.item << " " << c.path;
  }
}

TEST(SharingRulesTest, BaseAddressOfLinks) {
  using namespace MERO::sharing;
  const struct {
    const char* host; int port; bool https; const char* portal; const char* url;
    _tag_SHARING_URL_TYPE type;
  } cases[] = {
      {"nas.example", 80, false, "", "http://nas.example/sharing/", SHARING_URL_HTTP},
      {"nas.example", 8080, false, "", "http://nas.example:8080/sharing/", SHARING_URL_HTTP},
      {"nas.example", 443, true, "", "https://nas.example/sharing/", SHARING_URL_HTTPS},
      {"[::1]", 0, true, "files", "https://[::1]/files/sharing/", SHARING_URL_PORTAL_HTTPS},
      {"10.0.0.2", 8080, false, "files", "http://10.0.0.2:8080/files/sharing/",
       SHARING_URL_PORTAL_HTTP},
      {"", 80, false, "", "", SHARING_URL_NONE},
      {"evil.example/x", 80, false, "", "", SHARING_URL_NONE},
      {"nas.example", 70000, false, "", "", SHARING_URL_NONE},
      {"nas.example", 80, false, "..", "", SHARING_URL_NONE},
      {"nas.example", 80, false, "a/b", "", SHARING_URL_NONE},
  };
  for (const auto& c : cases) {
    std::string url = "stale";
    _tag_SHARING_URL_TYPE type = SHARING_URL_HTTP;
    EXPECT_EQ(GetSharingURL(c.host, c.port, c.https, c.portal, url, type), *c.url != '\0')
        << c.host << ":" << c.port;
    EXPECT_EQ(url, c.url);
    EXPECT_EQ(type, c.type) << c.host;
  }
}

class SharingAdminTest : public webapi_test::ApplianceRootTest {};

// The context derives the base address once, from the request's origin and
// portal, and hands out the fallback when there is none.
TEST_F(SharingAdminTest, ContextDerivesTheBaseAddressOnce) {
  using webapi_test::SetEnvOrUnset;
  {
    MERO::WebCGI cgi("zel", false);
    EXPECT_EQ(cgi.GetSharingURL("fallback"), "fallback");  // no Host header
    EXPECT_EQ(cgi.GetSharingURLType(), MERO::sharing::SHARING_URL_NONE);
    SetEnvOrUnset("HTTP_HOST", "nas.example:8443");
    EXPECT_EQ(cgi.GetSharingURL("fallback"), "fallback");  // kept for the request
  }
  SetEnvOrUnset("HTTPS", "on");
  SetEnvOrUnset("REWRITE_APP", "files");
  MERO::WebCGI cgi("zel", false);
  EXPECT_EQ(cgi.GetSharingURL("fallback"), "https://nas.example:8443/files/sharing/");
  EXPECT_EQ(cgi.GetSharingURLType(), MERO::sharing::SHARING_URL_PORTAL_HTTPS);
}

TEST_F(SharingAdminTest, CreateRefusesUnusableLinksAndWritesNothing) {
  const char* good[] = {"Demo.Share:list"};
  const char* blank[] = {"Demo Share"};
  const char* colonOnly[] = {":list"};
  const struct {
    const char* item; const char* const* apis; int apiCount; const char* owner; long long limit;
  } cases[] = {
      {"docs", good, 1, "alice", 0},         {"/docs/", good, 1, "alice", 0},
      {"/docs/../etc", good, 1, "alice", 0}, {"/docs\n", good, 1, "alice", 0},
      {"/docs", good, 0, "alice", 0},        {"/docs", blank, 1, "alice", 0},
      {"/docs", colonOnly, 1, "alice", 0},   {"/docs", good, 1, "", 0},
      {"/docs", good, 1, "alice", -1},
  };
  for (const auto& c : cases) {
    MEROSHARING_LINK_INFO link{};
    link.item = c.item;
    link.apis = c.apis;
    link.apiCount = c.apiCount;
    link.owner = c.owner;
    link.accessLimit = c.limit;
    char id[MERO_SHARING_ID_CHARS + 1] = "x";
    EXPECT_EQ(MeroSharingLinkCreate(&link, nullptr, id, sizeof id), MERO_SHARING_INVALID)
        << c.item;
    EXPECT_STREQ(id, "");
  }
  EXPECT_EQ(MeroSharingLinkList([](const MEROSHARING_LINK_INFO*, void*) {}, nullptr), 0);
}

TEST_F(SharingAdminTest, ListNamesLinksByRefAndPurgeRemovesExpiredOnes) {
  const char* apis[] = {"Demo.Share:list", "Demo.Share:download"};
  MEROSHARING_LINK_INFO link{};
  link.item = "/docs";
  link.apis = apis;
  link.apiCount = 2;
  link.owner = "alice";
  link.enabled = 1;
  char kept[MERO_SHARING_ID_CHARS + 1], expired[MERO_SHARING_ID_CHARS + 1];
  ASSERT_EQ(MeroSharingLinkCreate(&link, "pw", kept, sizeof kept), MERO_SHARING_AUTHORIZED);
  link.expires = std::time(nullptr) - 1;
  ASSERT_EQ(MeroSharingLinkCreate(&link, nullptr, expired, sizeof expired), MERO_SHARING_AUTHORIZED);

  std::vector<std::string> lines;
  ASSERT_EQ(MeroSharingLinkList(
                [](const MEROSHARING_LINK_INFO* info, void* context) {
                  static_cast<std::vector<std::string>*>(context)->push_back(
                      std::string(info->ref) + " " + info->item + " " + info->apis[1] + " " +
                      std::to_string(info->hasPassword));
                },
                &lines),
            2);
  // Both made in the same second: their order is not fixed.
  std::sort(lines.begin(), lines.end(), [](auto& a, auto& b) { return a.back() < b.back(); });
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(lines[i].find(kept), std::string::npos);  // never the id itself
    EXPECT_EQ(lines[i].substr(16), " /docs Demo.Share:download " + std::to_string(i));
  }
  EXPECT_EQ(MeroSharingLinkRevoke("ABC"), MERO_SHARING_INVALID);  // too short to name one
  EXPECT_EQ(MeroSharingPurge(std::time(nullptr)), 1);
  EXPECT_EQ(MeroSharingLinkList([](const MEROSHARING_LINK_INFO*, void*) {}, nullptr), 1);
}

}  // namespace
