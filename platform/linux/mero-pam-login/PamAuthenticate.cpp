// Password checks through PAM. libpam is loaded on the first check and kept
// for the rest of the process: a CGI process that never logs anybody in
// never maps it (it costs every process that loads it page faults and
// relocations, and most requests are not logins).
#include <dlfcn.h>
#include <security/pam_appl.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "merocore.h"
#include "mero_pam_login.h"

namespace {

#define PAMLOG(fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, "mero-pam-login", __LINE__, ##__VA_ARGS__)

// The few PAM entry points a check needs, resolved from the loaded libpam.
struct PamApi {
  int (*startConfdir)(const char*, const char*, const pam_conv*, const char*, pam_handle_t**);
  int (*authenticate)(pam_handle_t*, int);
  int (*acctMgmt)(pam_handle_t*, int);
  int (*end)(pam_handle_t*, int);
  const char* (*strerror)(pam_handle_t*, int);
};

const PamApi* LoadPam() {
  static PamApi api;
  static bool loaded = false;
  if (loaded) return &api;
  // Never unloaded: modules PAM loaded may have left handlers behind.
  void* library = ::dlopen("libpam.so.0", RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    PAMLOG("cannot load libpam: %s", ::dlerror());
    return nullptr;
  }
  api.startConfdir = reinterpret_cast<decltype(api.startConfdir)>(::dlsym(library, "pam_start_confdir"));
  api.authenticate = reinterpret_cast<decltype(api.authenticate)>(::dlsym(library, "pam_authenticate"));
  api.acctMgmt = reinterpret_cast<decltype(api.acctMgmt)>(::dlsym(library, "pam_acct_mgmt"));
  api.end = reinterpret_cast<decltype(api.end)>(::dlsym(library, "pam_end"));
  api.strerror = reinterpret_cast<decltype(api.strerror)>(::dlsym(library, "pam_strerror"));
  if (!api.startConfdir || !api.authenticate || !api.acctMgmt || !api.end || !api.strerror) {
    PAMLOG("libpam lacks pam_start_confdir (PAM 1.4 or later is needed)");
    return nullptr;
  }
  loaded = true;
  return &api;
}

// Answers every prompt with the token; messages get no answer. PAM frees
// what this hands back.
int Converse(int count, const pam_message** messages, pam_response** responses, void* token) {
  if (count <= 0) return PAM_CONV_ERR;
  auto* answers = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (!answers) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const int style = messages[i]->msg_style;
    if (style != PAM_PROMPT_ECHO_OFF && style != PAM_PROMPT_ECHO_ON) continue;
    answers[i].resp = ::strdup(static_cast<const char*>(token));
    if (!answers[i].resp) {
      for (int j = 0; j < i; ++j) std::free(answers[j].resp);
      std::free(answers);
      return PAM_BUF_ERR;
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

// Owns a PAM transaction; pam_end wants the status of the last call.
class PamTransaction {
 public:
  explicit PamTransaction(const PamApi& api) : api_(api) {}
  PamTransaction(const PamTransaction&) = delete;
  PamTransaction& operator=(const PamTransaction&) = delete;
  ~PamTransaction() {
    if (handle_) api_.end(handle_, status_);
  }
  int Start(const char* service, const char* user, const pam_conv* conversation,
            const char* confDir) {
    return status_ = api_.startConfdir(service, user, conversation, confDir, &handle_);
  }
  int Authenticate() { return status_ = api_.authenticate(handle_, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK); }
  int AccountAllowed() { return status_ = api_.acctMgmt(handle_, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK); }
  const char* Describe(int status) const { return api_.strerror(handle_, status); }

 private:
  const PamApi& api_;
  pam_handle_t* handle_ = nullptr;
  int status_ = PAM_SUCCESS;
};

bool IsUsableName(const char* text, size_t limit) {
  const size_t length = ::strnlen(text, limit + 1);
  if (length == 0 || length > limit) return false;
  for (size_t i = 0; i < length; ++i)
    if (static_cast<unsigned char>(text[i]) < 0x20 || text[i] == 0x7f) return false;
  return true;
}

int Authenticate(const char* service, const char* confDir, const char* user, const char* authTok) {
  const PamApi* api = LoadPam();
  if (!api) return MERO_PAM_UNAVAILABLE;
  std::string defaultDir;
  if (!confDir || !*confDir) {
    defaultDir = std::string(MeroApplianceRoot()) + MERO_PAM_CONF_DIR;
    confDir = defaultDir.c_str();
  }
  pam_conv conversation{Converse, const_cast<char*>(authTok)};
  PamTransaction pam(*api);
  int status = pam.Start(service, user, &conversation, confDir);
  if (status != PAM_SUCCESS) {
    PAMLOG("PAM service %s in %s cannot start: %s", service, confDir, pam.Describe(status));
    return MERO_PAM_UNAVAILABLE;
  }
  status = pam.Authenticate();
  if (status == PAM_SUCCESS) {
    status = pam.AccountAllowed();
    return status == PAM_SUCCESS ? MERO_PAM_OK : MERO_PAM_ACCOUNT_REFUSED;
  }
  // A module that failed or is missing is the operator's problem, not the
  // user's: say so in the log, and still refuse.
  if (status == PAM_ABORT || status == PAM_SYSTEM_ERR || status == PAM_BUF_ERR ||
      status == PAM_SERVICE_ERR || status == PAM_CONV_ERR) {
    PAMLOG("PAM service %s could not check a password: %s", service, pam.Describe(status));
    return MERO_PAM_UNAVAILABLE;
  }
  return MERO_PAM_AUTH_FAILED;
}

}  // namespace

extern "C" int MeroPamAuthenticate(const char* service, const char* confDir, const char* user,
                                   const char* authTok) {
  if (!service || !*service) service = MERO_PAM_DEFAULT_SERVICE;
  if (!user || !authTok || !IsUsableName(user, MERO_PAM_MAX_USER_BYTES) ||
      !IsUsableName(service, 255) || std::strchr(service, '/') ||
      ::strnlen(authTok, MERO_PAM_MAX_AUTHTOK_BYTES + 1) > MERO_PAM_MAX_AUTHTOK_BYTES)
    return MERO_PAM_INVALID;
  try {
    return Authenticate(service, confDir, user, authTok);
  } catch (...) {
    PAMLOG("password check failed: out of memory");
    return MERO_PAM_UNAVAILABLE;
  }
}
