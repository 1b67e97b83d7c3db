/* PAM login platform library (libmero-pam-login): password checks through
 * PAM, and MERO::PamConf, the configuration a PAM-driven login carries.
 *
 * libpam is loaded (dlopen) by the first check that needs it, never at
 * start-up: an ordinary API request maps no PAM library at all. One check
 * at a time per process (PAM handles are not shared); nothing throws. */
#ifndef MERO_PAM_LOGIN_H
#define MERO_PAM_LOGIN_H

#include "mero_export.h"

/* The PAM service a login uses when it names none. */
#define MERO_PAM_DEFAULT_SERVICE "webui"
/* Where service files are read, under the appliance root (merocore.h): with
 * the root "/" this is the system's own /etc/pam.d; a relocated root (tests,
 * the demo) brings its own services and never touches the system's. */
#define MERO_PAM_CONF_DIR "/etc/pam.d"
/* Longest user name and password handed to PAM, in bytes; longer ones are
 * refused without asking PAM (no module needs more). */
#define MERO_PAM_MAX_USER_BYTES 492
#define MERO_PAM_MAX_AUTHTOK_BYTES 4096

/* Results of MeroPamAuthenticate. */
#define MERO_PAM_OK 0
#define MERO_PAM_AUTH_FAILED 1      /* pam_authenticate refused: wrong password, unknown user */
#define MERO_PAM_ACCOUNT_REFUSED 2  /* pam_acct_mgmt refused: locked, expired, not permitted now,
                                       or a new password is required */
#define MERO_PAM_UNAVAILABLE 3      /* libpam could not be loaded, or the service could not be
                                       started (no such service file, a module failed); logged */
#define MERO_PAM_INVALID 4          /* a null or empty user or service, a name with a '/' or a
                                       control byte, or an over-long user or password */

MERO_EXTERN_C_BEGIN

/* Checks `authTok` as the password of `user` through PAM service `service`
 * (null or "": MERO_PAM_DEFAULT_SERVICE), reading service files from
 * `confDir` (null or "": MERO_PAM_CONF_DIR under the appliance root):
 * pam_authenticate, then pam_acct_mgmt, both silent and refusing an empty
 * password. Every prompt PAM asks is answered with `authTok`. Returns one
 * of the MERO_PAM_* results above. The password is never logged; failures
 * of PAM itself are (syslog, LOG_ERR). */
MERO_EXPORT int MeroPamAuthenticate(const char* service, const char* confDir, const char* user,
                                    const char* authTok);

MERO_EXTERN_C_END

#ifdef __cplusplus
#include <string>
#include <utility>

namespace MERO {

/* What a PAM-driven login needs: the service and the directory of its
 * service files (empty: the defaults above), the user and the
 * authentication token (the password, or whatever the service's modules
 * prompt for). A plain value: copyable, owns its texts. */
class MERO_EXPORT PamConf {
 public:
  PamConf() = default;
  PamConf(std::string service, std::string confDir, std::string user, std::string authTok)
      : service_(std::move(service)),
        confDir_(std::move(confDir)),
        user_(std::move(user)),
        authTok_(std::move(authTok)) {}

  const std::string& GetService() const { return service_; }
  const std::string& GetConfDir() const { return confDir_; }
  const std::string& GetUser() const { return user_; }
  const std::string& GetAuthTok() const { return authTok_; }
  void SetService(const std::string& service) { service_ = service; }
  void SetConfDir(const std::string& confDir) { confDir_ = confDir; }
  void SetUser(const std::string& user) { user_ = user; }
  void SetAuthTok(const std::string& authTok) { authTok_ = authTok; }

 private:
  std::string service_;
  std::string confDir_;
  std::string user_;
  std::string authTok_;
};

}  // namespace MERO
#endif

#endif /* MERO_PAM_LOGIN_H */
