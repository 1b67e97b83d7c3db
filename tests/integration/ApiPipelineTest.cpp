// Whole requests through MERO::WebAPI: a CGI program run as a child process
// against a real session store, each answer compared byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "ProbeRequest.h"
#include "merocgi.h"

namespace {

using namespace webapi_test;

constexpr char kDescription[] = R"({
  "Probe.Item": {"minVersion": 1, "maxVersion": 2,
                 "methods": {"1": ["list", "get"], "2": ["list", "get", "export", "fail"]},
                 "allowDownload": {"2": ["export"]}},
  "Probe.Broken": {"minVersion": 1}
})";
constexpr char kItemGet[] = "api=Probe.Item&method=get&version=1";

// A session in `registry` from 127.0.0.1.
std::string NewSession(const char* registry = "probe", const char* privileges = nullptr,
                       bool endOthers = false, const char* user = "alice", long long lifetime = 0) {
  char id[MERO_CGI_SESSION_ID_CHARS + 1];
  EXPECT_EQ(MeroCgiSessionCreate(registry, user, "127.0.0.1", lifetime, privileges, endOthers, id,
                                 sizeof id),
            MERO_SESSION_AUTHORIZED);
  return id;
}

// The probe's answer to `query` with `sid` in the session cookie.
std::string AsSession(const std::string& sid, const std::string& query = kItemGet, Env env = {}) {
  env["HTTP_COOKIE"] = "id=" + sid;
  return Get(query, env).out;
}

// The probe on a multipart POST of `body`.
ChildResult Upload(const std::string& body, Env env) {
  env["REQUEST_METHOD"] = "POST";
  env["CONTENT_TYPE"] = "multipart/form-data; boundary=b";
  env["CONTENT_LENGTH"] = std::to_string(body.size());
  env["MERO_APPLIANCE_ROOT"] = ApplianceRoot().string();
  return RunChild(API_PROBE_PATH, env, body);
}

class ApiPipelineTest : public ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    WriteRootFile("usr/mero/meroman/webapi/probe.api", kDescription);
    WriteRootFile("usr/mero/meroman/webapi/probe.auth", R"({"timeout": 30, "ip_checking": true})");
    WriteRootFile("usr/mero/meroman/webapi/probeadmin.auth",
                  R"({"ip_checking": true, "privilege": "admin"})");
  }
};

TEST_F(ApiPipelineTest, ValidationCodesComeBeforeAnySessionCheck) {
  const std::string item = "api=Probe.Item&";
  const std::pair<std::string, std::string> cases[] = {
      {"method=get&version=1", Error(101)},
      {item + "version=1", Error(101)},
      {item + "method=get", Error(101)},
      {item + "method=get&version=x", Error(101)},
      {"api=Probe.Other&method=get&version=1", Error(102)},
      {"api=Probe.Broken&method=get&version=1", Error(102)},
      {item + "method=export&version=1", Error(103)},
      {item + "method=get&version=%202", Error(103)},  // parses as 2, but no "methods" key " 2"
      {item + "method=get&version=3", Error(104)},
      {item + "method=get&version=0", Error(104)},
      // Valid, but no session: only now does the session check answer.
      {item + "method=GET&version=2", Error(105)},
  };
  for (const auto& [query, expected] : cases) EXPECT_EQ(Get(query).out, expected) << query;
}

// The api name is the request's: cut to 256 bytes, with control bytes
// escaped, so that it can neither forge a line nor flood the log.
TEST_F(ApiPipelineTest, UnknownApiIsLoggedOnceAsOneLine) {
  const std::string flood(300, 'z');
  const std::pair<std::string, std::string> cases[] = {
      {"Probe.Other", "Probe.Other"},
      {"Probe.Other%0aapi_probe: Bad API(Forged) description.",
       "Probe.Other\\x0aapi_probe: Bad API(Forged) description."},
      {"Tab%09Back%5cslash", "Tab\\x09Back\\x5cslash"},
      {flood, flood.substr(0, 256) + "..."},
  };
  for (const auto& [api, logged] : cases) {
    const ChildResult child = Get("api=" + api + "&method=get&version=1");
    EXPECT_EQ(child.out, Error(102));
    const std::string line = "Bad API(" + logged + ") description.\n";
    const size_t first = child.err.find(line);
    EXPECT_NE(first, std::string::npos) << child.err;
    EXPECT_EQ(child.err.find(line, first + 1), std::string::npos) << child.err;
    EXPECT_EQ(std::count(child.err.begin(), child.err.end(), '\n'), 1) << child.err;
  }
}

TEST_F(ApiPipelineTest, UploadWithoutUploadHandlerIsLoggedAndGoesOn) {
  const std::string body =
      "--b\r\nContent-Disposition: form-data; name=\"api\"\r\n\r\nProbe.Item\r\n--b--\r\n";
  // The body's fields are never read without an upload handler; the query
  // string of a POST still is, so such a request goes on to the session check.
  for (const auto& [query, expected] : {std::pair<std::string, std::string>{"", Error(101)},
                                        {"api=Probe.Item&method=get&version=1", Error(105)}}) {
    const ChildResult child = Upload(body, {{"QUERY_STRING", query}});
    EXPECT_EQ(child.out, expected) << query;
    EXPECT_NE(child.err.find("UnHandled Upload File Operation."), std::string::npos) << child.err;
  }
}

TEST_F(ApiPipelineTest, UploadHookReceivesTheFilesAndTheBodyNamesTheRequest) {
  auto part = [](const std::string& disposition, const std::string& data) {
    return "--b\r\nContent-Disposition: form-data; " + disposition + "\r\n\r\n" + data + "\r\n";
  };
  const std::string fields = part("name=\"api\"", "Probe.Item") + part("name=\"method\"", "get") +
                             part("name=\"version\"", "1");
  const std::string good = fields + part("name=\"file\"; filename=\"report.txt\"", "r") + "--b--\r\n";
  const std::string uploaded =
      Envelope(R"({"data":{"api":"Probe.Item","file":"report.txt","method":"get","tokenLength":0,)"
               R"("upload":1,"user":"","version":1},"success":true})");
  const std::string up = (root() / "up").string(), tmp = (root() / "tmp").string();
  std::filesystem::create_directories(up);
  std::filesystem::create_directories(tmp);
  WriteRootFile("mounts", "a " + root().string() + "/ro ext4 ro 0 0\n");
  WriteRootFile("etc/meroinfo.conf", "mount_table=\"" + root().string() + "/mounts\"\n" +
                                         "storage_volumes=\"" + root().string() + "/*\"\n");
  const struct {  // stored: where report.txt must be, "" for nowhere
    const char* label; std::string uploadDir; bool noDisks; std::string body, answer;
    const char* logged; std::string stored;
  } cases[] = {
      {"into a named directory", up, false, good, uploaded, nullptr, up},
      {"no disks: /tmp under the root", "-", true, good, uploaded, nullptr, tmp},
      {"no usable volume", "-", false, good, Error(101), "no path for upload", ""},
      {"a body without its end", up, false, fields, Error(101), "failed to upload to path ", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    if (c.noDisks) WriteRootFile("etc.defaults/meroinfo.conf", "maxdisks=\"0\"\n");
    const ChildResult child = Upload(c.body, {{"PROBE_NO_CHECK", "1"}, {"PROBE_UPLOAD", c.uploadDir}});
    std::filesystem::remove(root() / "etc.defaults/meroinfo.conf");
    EXPECT_EQ(child.out, c.answer);
    EXPECT_TRUE(!c.logged || child.err.find(c.logged) != std::string::npos) << child.err;
    for (const std::string& dir : {up, tmp}) {
      EXPECT_EQ(std::filesystem::exists(dir + "/report.txt"), dir == c.stored) << dir;
      std::filesystem::remove(dir + "/report.txt");
    }
  }
}

TEST_F(ApiPipelineTest, MalformedOrMissingDescriptionRefusesEveryApi) {
  WriteRootFile("usr/mero/meroman/webapi/broken.api", R"({"Probe.Item": {"minVersion": 1,)");
  for (const char* file : {"broken.api", "missing.api"})
    EXPECT_EQ(Get(kItemGet, {{"PROBE_DESCRIPTION", file}}).out, Error(102)) << file;
}

TEST_F(ApiPipelineTest, SessionResultsBecomeTheirCodes) {
  const std::string success =
      Envelope(R"({"data":{"api":"Probe.Item","method":"get","tokenLength":32,)"
               R"("user":"alice","version":1},"success":true})");
  const std::string valid = NewSession();
  EXPECT_EQ(AsSession(valid), success);
  // A well-formed id that names no session, and one that is not an id.
  EXPECT_EQ(AsSession(std::string(43, 'A')), Error(105));
  EXPECT_EQ(AsSession("short"), Error(105));
  // Used from another address; the same address written another way is the same.
  EXPECT_EQ(AsSession(valid, kItemGet, {{"REMOTE_ADDR", "10.0.0.9"}}), Error(107));
  EXPECT_EQ(AsSession(valid, kItemGet, {{"REMOTE_ADDR", "::ffff:127.0.0.1"}}), success);
  // Past its one-second lifetime (seconds are whole: two must pass).
  const std::string brief = NewSession("probe", nullptr, false, "alice", 1);
  EXPECT_EQ(AsSession(brief), success);
  sleep(2);
  EXPECT_EQ(AsSession(brief), Error(106));
  // Ended by a later login of the same user.
  const std::string older = NewSession();
  EXPECT_EQ(AsSession(NewSession("probe", nullptr, true)), success);
  EXPECT_EQ(AsSession(older), Error(107));
}

// Logins need PAM, ordinary requests must not pay for it: an authorized
// request maps no PAM library (the probe lists what it mapped).
TEST_F(ApiPipelineTest, AnOrdinaryRequestMapsNoLoginLibrary) {
  const ChildResult child =
      Get(kItemGet, {{"HTTP_COOKIE", "id=" + NewSession()}, {"PROBE_MAPS", "1"}});
  EXPECT_TRUE(Succeeded(child));
  EXPECT_NE(child.err.find("mapped /"), std::string::npos) << "the probe listed nothing";
  EXPECT_NE(child.err.find("libwebapi.so"), std::string::npos) << child.err;
  EXPECT_EQ(child.err.find("libpam"), std::string::npos) << child.err;
  EXPECT_EQ(child.err.find("pam_"), std::string::npos) << child.err;
}

TEST_F(ApiPipelineTest, WhichSessionARequestFinds) {
  const Env admin = {{"PROBE_SESSION", "probeadmin"}};
  // The session name's privilege is required of the session.
  EXPECT_EQ(AsSession(NewSession("probeadmin"), kItemGet, admin), Error(105));
  EXPECT_NE(AsSession(NewSession("probeadmin", "backup admin"), kItemGet, admin)
                .find(R"("success":true)"),
            std::string::npos);
  // The _sid parameter stands in for the cookie; an empty one is none.
  const std::string valid = NewSession(), bogus(43, 'B');
  const std::string query = std::string(kItemGet) + "&_sid=";
  EXPECT_NE(AsSession(bogus, query + valid).find(R"("user":"alice")"), std::string::npos);
  EXPECT_EQ(AsSession(valid, query + bogus), Error(105));
  EXPECT_NE(AsSession(valid, query).find(R"("success":true)"), std::string::npos);
  // A session of the default registry is found by fallback.
  EXPECT_NE(AsSession(NewSession("current.users", nullptr, false, "bob")).find(R"("user":"bob")"),
            std::string::npos);
}

TEST_F(ApiPipelineTest, DownloadsFailuresAndUncheckedRuns) {
  const std::string valid = NewSession();
  EXPECT_EQ(AsSession(valid, "api=Probe.Item&method=EXPORT&version=2"),
            "Content-type: application/octet-stream\r\n\r\nexported bytes");
  // Refused download: nothing at all, not even an envelope.
  EXPECT_EQ(Get("api=Probe.Item&method=export&version=2").out, "");
  // "02" validates as version 2, but allowDownload is keyed by "2" only and
  // "methods" has no "02": 103.
  EXPECT_EQ(AsSession(valid, "api=Probe.Item&method=export&version=02"), Error(103));
  EXPECT_EQ(AsSession(valid, "api=Probe.Item&method=fail&version=2"),
            Envelope(R"({"error":{"code":400,"errors":{"name":"x"}},"success":false})"));
  // Run(false): no session needed, and the envelope is still written.
  EXPECT_EQ(Get("api=Probe.Item&method=list&version=1", {{"PROBE_NO_CHECK", "1"}}).out,
            Envelope(R"({"data":{"api":"Probe.Item","method":"list","tokenLength":0,)"
                     R"("user":"","version":1},"success":true})"));
}

}  // namespace
