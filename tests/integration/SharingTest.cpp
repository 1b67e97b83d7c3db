// Requests through sharing links: the probe CGI program as a child process,
// links made with the platform's own calls in a real store, the real
// checker program under the appliance root.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ProbeRequest.h"
#include "merosharing.h"

namespace {

using namespace webapi_test;

constexpr char kDescription[] = R"({
  "Probe.Shared": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["list", "get"]},
                   "allowSharing": true},
  "Probe.Unchecked": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]},
                      "allowSharing": true, "skipSharingAppCheck": true},
  "Probe.Private": {"minVersion": 1, "maxVersion": 1, "methods": {"1": ["get"]}}
})";

struct LinkOptions {
  std::vector<const char*> apis = {"Probe.Shared"};
  const char* item = "/docs";
  long long expires = 0;
  long long limit = 0;
  const char* password = nullptr;
  bool enabled = true;
};

std::string Link(const LinkOptions& options = {}) {
  MEROSHARING_LINK_INFO link{};
  link.item = options.item;
  link.apis = options.apis.data();
  link.apiCount = static_cast<int>(options.apis.size());
  link.owner = "alice";
  link.expires = options.expires;
  link.accessLimit = options.limit;
  link.enabled = options.enabled;
  char id[MERO_SHARING_ID_CHARS + 1];
  EXPECT_EQ(MeroSharingLinkCreate(&link, options.password, id, sizeof id), MERO_SHARING_AUTHORIZED);
  return id;
}

// The outcome of opening a session; `sid` receives the session id.
int Open(const std::string& link, const char* password, const char* client, char* sid,
         const char* current = nullptr, int* retryAfter = nullptr) {
  return MeroSharingSessionOpen(link.c_str(), password, client, current, sid,
                                MERO_SHARING_ID_CHARS + 1, retryAfter);
}

std::string OpenSession(const std::string& link, const char* password,
                        const char* client = "127.0.0.1", const char* current = nullptr) {
  char sid[MERO_SHARING_ID_CHARS + 1];
  EXPECT_EQ(Open(link, password, client, sid, current), MERO_SHARING_OPENED);
  return sid;
}

std::string Shared(const std::string& link, const char* method = "list",
                   const char* path = "/docs/a.txt") {
  return std::string("api=Probe.Shared&version=1&method=") + method + "&path=" + path +
         "&_sharing_id=" + link;
}

class SharingTest : public ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    WriteRootFile("usr/mero/meroman/webapi/probe.api", kDescription);
    WriteRootFile("usr/mero/meroman/webapi/probe.auth", R"({"timeout": 30})");
    std::filesystem::create_directories(root() / "usr/mero/bin");
    std::filesystem::create_symlink(SHARING_CHECKER_PATH,
                                    root() / "usr/mero/bin/merosharingchecker");
  }
};

TEST_F(SharingTest, EachRefusalReachesItsCode) {
  const std::string open = Link();
  const std::string locked = Link({{"Probe.Shared"}, "/docs", 0, 0, "horse-battery"});
  const std::string other = Link({{"Probe.Shared"}, "/other", 0, 0, "other-pass"});
  const std::string otherSession = OpenSession(other, "other-pass");
  const std::string farSession = OpenSession(locked, "horse-battery", "192.0.2.9");
  const std::string used = Link({{"Probe.Shared"}, "/docs", 0, 1});
  ASSERT_TRUE(Succeeded(Get(Shared(used))));
  const std::string unknown(MERO_SHARING_ID_CHARS, 'Q');
  const std::pair<std::string, std::string> cases[] = {
      {"api=Probe.Private&method=get&version=1&_sharing_id=" + open, Error(126)},
      {Shared(unknown), Error(126)},
      {Shared("not-an-id"), Error(126)},
      {Shared(locked), Error(125)},
      {Shared(locked) + "&_sharing_sid=" + otherSession, Error(125)},  // proved another link
      {Shared(locked) + "&_sharing_sid=" + farSession, Error(125)},    // from another address
      {Shared(Link({{"Probe.Shared"}, "/docs", std::time(nullptr) - 1})), Error(122)},
      {Shared(Link({{"Probe.Shared"}, "/docs", 0, 0, nullptr, false})), Error(123)},
      {Shared(used), Error(124)},
      {Shared(Link({{"Probe.Shared:get"}})), Error(127)},  // the checker: method not admitted
      {Shared(open, "list", "/docs/../etc"), Error(127)},  // the checker: outside the item
  };
  for (const auto& [query, expected] : cases) EXPECT_EQ(Get(query).out, expected) << query;
}

TEST_F(SharingTest, AdmittedCallsReachTheHandler) {
  const std::string open = Link();
  const std::string locked = Link({{"Probe.Shared"}, "/docs", 0, 0, "horse-battery"});
  const std::string session = OpenSession(locked, "horse-battery");
  // The checker is skipped where the API waives it, even for an API the
  // link does not name.
  const std::string unchecked = "api=Probe.Unchecked&method=get&version=1&_sharing_id=" + open;
  for (const std::string& query :
       {Shared(open), Shared(open, "get", "/docs"), Shared(locked) + "&_sharing_sid=" + session,
        unchecked})
    EXPECT_TRUE(Succeeded(Get(query))) << query;
  // The session cookie stands in for the parameter, and one session serves
  // every link the visitor proved.
  const std::string cookie = std::string(MERO::sharing::SZK_SHARING_SID) + "=" + session;
  EXPECT_TRUE(Succeeded(Get(Shared(locked), {{"HTTP_COOKIE", cookie}})));
  const std::string second = Link({{"Probe.Shared"}, "/docs", 0, 0, "second-pass"});
  EXPECT_EQ(Get(Shared(second), {{"HTTP_COOKIE", cookie}}).out, Error(125));
  EXPECT_EQ(OpenSession(second, "second-pass", "127.0.0.1", session.c_str()), session);
  EXPECT_TRUE(Succeeded(Get(Shared(second), {{"HTTP_COOKIE", cookie}})));
  // The header carries the link id as well as the parameter does.
  EXPECT_TRUE(Succeeded(
      Get("api=Probe.Shared&method=list&version=1&path=/docs", {{"HTTP_X_MERO_SHARING", open}})));
}

TEST_F(SharingTest, ParameterWinsOverHeaderAndCookie) {
  const std::string cookie = std::string(MERO::sharing::SZK_SHARING_SID) + "=s1";
  const struct { std::string query; Env env; std::string ids; } cases[] = {
      {"_sharing_id=abc", {{"HTTP_X_MERO_SHARING", "xyz"}}, R"("sharingId":"abc","sharingSid":"")"},
      {"", {{"HTTP_X_MERO_SHARING", "xyz"}}, R"("sharingId":"xyz","sharingSid":"")"},
      {"_sharing_id=abc&_sharing_sid=p1", {{"HTTP_COOKIE", cookie}},
       R"("sharingId":"abc","sharingSid":"p1")"},
      {"", {{"HTTP_COOKIE", cookie}}, R"("sharingId":"","sharingSid":"s1")"},  // no link, still read
  };
  for (auto c : cases) {
    c.env["PROBE_NO_CHECK"] = "1";
    const std::string out = Get("api=Probe.Shared&method=get&version=1&" + c.query, c.env).out;
    EXPECT_NE(out.find(c.ids), std::string::npos) << c.query << "\n" << out;
  }
  // An empty header is no link: an ordinary request, refused by the session check.
  EXPECT_EQ(Get("api=Probe.Shared&method=get&version=1", {{"HTTP_X_MERO_SHARING", ""}}).out,
            Error(105));
}

TEST_F(SharingTest, ConcurrentRequestsAdmitExactlyTheLimit) {
  constexpr int kRequests = 8, kLimit = 3;
  const std::string link = Link({{"Probe.Shared"}, "/docs", 0, kLimit});
  std::vector<ChildResult> answers(kRequests);
  std::vector<std::thread> requests;
  for (int i = 0; i < kRequests; ++i)
    requests.emplace_back([&, i] { answers[i] = Get(Shared(link)); });
  for (std::thread& request : requests) request.join();
  for (const ChildResult& answer : answers)
    EXPECT_TRUE(Succeeded(answer) || answer.out == Error(124)) << answer.out;
  EXPECT_EQ(std::count_if(answers.begin(), answers.end(), Succeeded), kLimit);
}

TEST_F(SharingTest, RevokedOrDisabledWhileInUse) {
  const std::string link = Link();
  ASSERT_TRUE(Succeeded(Get(Shared(link))));
  MERO::sharing::record::Entry entry;
  ASSERT_TRUE(MERO::sharing::db::EntryDB(MERO::sharing::db::SharingDB::Instance())
                  .GetByHash(link, entry));
  ASSERT_EQ(MeroSharingLinkSetEnabled(entry.ref.substr(0, 8).c_str(), 0), 1);
  EXPECT_EQ(Get(Shared(link)).out, Error(123));
  ASSERT_EQ(MeroSharingLinkSetEnabled(entry.ref.c_str(), 1), 1);
  EXPECT_TRUE(Succeeded(Get(Shared(link))));
  ASSERT_EQ(MeroSharingLinkRevoke(entry.ref.c_str()), 1);
  EXPECT_EQ(Get(Shared(link)).out, Error(126));
}

TEST_F(SharingTest, AStoreThatCannotBeReadIs101) {
  Link();
  const std::string path = (root() / "var/lib/merosharing/links.mdb").string();
  std::filesystem::remove(path);
  std::ofstream(path) << "not a store";
  EXPECT_EQ(Get(Shared(std::string(MERO_SHARING_ID_CHARS, 'Q'))).out, Error(101));
}

// Ordinary requests must not pay for sharing: they map no sharing store and
// no password library; a sharing request maps the store, never libcrypt.
TEST_F(SharingTest, OnlySharingRequestsOpenTheStore) {
  const std::string link = Link();
  const ChildResult ordinary =
      Get("api=Probe.Shared&method=get&version=1", {{"PROBE_MAPS", "1"}});
  EXPECT_NE(ordinary.err.find("libwebapi.so"), std::string::npos) << ordinary.err;
  EXPECT_EQ(ordinary.err.find("links.mdb"), std::string::npos) << ordinary.err;
  const ChildResult shared = Get(Shared(link), {{"PROBE_MAPS", "1"}});
  EXPECT_TRUE(Succeeded(shared));
  EXPECT_NE(shared.err.find("links.mdb"), std::string::npos) << shared.err;
#ifndef WEBAPI_SANITIZED  // sanitizer builds load libcrypt at start-up for PAM modules
  for (const ChildResult* child : {&ordinary, &shared})
    EXPECT_EQ(child->err.find("libcrypt"), std::string::npos) << child->err;
#endif
}

TEST_F(SharingTest, WrongPasswordsAreThrottledEvenForTheRightOne) {
  const std::string link = Link({{"Probe.Shared"}, "/docs", 0, 0, "right-horse"});
  char sid[MERO_SHARING_ID_CHARS + 1];
  int retryAfter = 0;
  const auto open = [&](const char* password, const char* client) {
    return Open(link, password, client, sid, nullptr, &retryAfter);
  };
  for (int attempt = 1; attempt < MERO_SHARING_THROTTLE_LINK_LIMIT; ++attempt)
    ASSERT_EQ(open("wrong", "192.0.2.1"), MERO_SHARING_WRONG_PASSWORD) << attempt;
  // The right password within the limit opens, and clears the link's count.
  EXPECT_EQ(open("right-horse", "192.0.2.1"), MERO_SHARING_OPENED);
  for (int attempt = 1; attempt <= MERO_SHARING_THROTTLE_LINK_LIMIT; ++attempt)
    ASSERT_EQ(open("wrong", "192.0.2.2"), MERO_SHARING_WRONG_PASSWORD) << attempt;
  // Locked now, for every address, and the password is not even checked.
  EXPECT_EQ(open("right-horse", "192.0.2.3"), MERO_SHARING_THROTTLED);
  EXPECT_EQ(sid[0], '\0');
  EXPECT_GT(retryAfter, MERO_SHARING_THROTTLE_LOCK - 3);
  EXPECT_LE(retryAfter, MERO_SHARING_THROTTLE_LOCK);
}

}  // namespace
