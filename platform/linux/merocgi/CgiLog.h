// Log prefix of the CGI platform: request text is only ever an argument.
#ifndef MEROCGI_CGILOG_H
#define MEROCGI_CGILOG_H

#include <syslog.h>

#define MEROCGI_LOG(fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, "merocgi", __LINE__, ##__VA_ARGS__)

#endif  // MEROCGI_CGILOG_H
