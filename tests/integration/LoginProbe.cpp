// A CGI program for the login tests: one operation of MERO::WebCGI per run,
// chosen by the environment, answered with one JSON line on stdout that
// holds what the context knows afterwards. Log lines are copied to stderr.
//   PROBE_SESSION    session name
//   PROBE_ACTION     login, sso, noauth, pam, logout, check, switch
//                    (CheckAuthorized, setEUGID), permanent (CheckAuthorized,
//                    setUGID), realname (GetRealUsername of PROBE_USER)
//   PROBE_USER, PROBE_PASSWORD
//   PROBE_PAM_SERVICE, PROBE_PAM_DIR   the MERO::PamConf of "pam"
//   PROBE_DROP_IDS   "uid:gid": give up root for good before anything else
// After switch and permanent, "backToRoot" tells whether the probe could
// take root's effective ids again (after the ids were reported).
#include <grp.h>
#include <json/writer.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "mero_pam_login.h"
#include "webapi/WebCGI.h"

namespace {

const char* EnvOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value ? value : fallback;
}

Json::Value Triple(unsigned int real, unsigned int effective, unsigned int saved) {
  Json::Value triple(Json::arrayValue);
  triple.append(real);
  triple.append(effective);
  triple.append(saved);
  return triple;
}

Json::Value Ids() {
  Json::Value ids;
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  getresuid(&ruid, &euid, &suid);
  getresgid(&rgid, &egid, &sgid);
  ids["uids"] = Triple(ruid, euid, suid);
  ids["gids"] = Triple(rgid, egid, sgid);
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
  groups.resize(static_cast<size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
  ids["groups"] = Json::Value(Json::arrayValue);
  for (gid_t group : groups) ids["groups"].append(group);
  return ids;
}

bool DropIds(const char* spec) {
  unsigned int uid = 0, gid = 0;
  if (std::sscanf(spec, "%u:%u", &uid, &gid) != 2) return false;
  return setgroups(0, nullptr) == 0 && setresgid(gid, gid, gid) == 0 &&
         setresuid(uid, uid, uid) == 0;
}

}  // namespace

int main() {
  openlog("login-probe", LOG_PERROR, LOG_USER);  // log lines to stderr for the tests
  if (const char* drop = std::getenv("PROBE_DROP_IDS"))
    if (!DropIds(drop)) return 3;
  MERO::WebCGI cgi(std::getenv("PROBE_SESSION"), true);
  const std::string action = EnvOr("PROBE_ACTION", "");
  const char* user = EnvOr("PROBE_USER", "");
  const char* password = EnvOr("PROBE_PASSWORD", "");
  char out[128] = {};
  Json::Value report;
  if (action == "login" || action == "sso") {
    report["result"] = cgi.Login(user, password, out, sizeof out, action == "sso");
  } else if (action == "noauth") {
    report["result"] = cgi.LoginNoAuth(user, out, sizeof out);
  } else if (action == "pam") {
    MERO::PamConf conf(EnvOr("PROBE_PAM_SERVICE", ""), EnvOr("PROBE_PAM_DIR", ""), user, password);
    report["result"] = cgi.Login(conf, out, sizeof out, false);
    report["pamUser"] = conf.GetUser();
  } else if (action == "logout") {
    report["result"] = cgi.Logout();
  } else if (action == "check") {
    report["result"] = cgi.CheckAuthorized();
  } else if (action == "switch" || action == "permanent") {
    report["check"] = cgi.CheckAuthorized();
    report["result"] = action == "switch" ? cgi.setEUGID() : cgi.setUGID();
  } else if (action == "realname") {
    report["result"] = cgi.GetRealUsername(user);
  } else {
    return 2;
  }
  const Json::Value ids = Ids();
  for (const char* key : {"uids", "gids", "groups"}) report[key] = ids[key];
  if (action == "switch" || action == "permanent")
    report["backToRoot"] = setresuid(-1, 0, -1) == 0 && setresgid(-1, 0, -1) == 0;
  report["out"] = out;
  report["user"] = cgi.GetLoginUserName();
  report["token"] = cgi.GetMeroToken();
  const char* sid = cgi.GetSessionID();
  report["sid"] = sid ? Json::Value(sid) : Json::Value();
  report["cookies"] = cgi.GetSetCookies();
  report["state"] = cgi.GetLoginState();

  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  std::cout << Json::writeString(writer, report) << std::endl;
  return 0;
}
