// Log prefix of the sharing platform: request text is only ever an argument.
#ifndef MEROSHARING_SHARINGLOG_H
#define MEROSHARING_SHARINGLOG_H

#include <syslog.h>

#define MEROSHARING_LOG(fmt, ...) \
  syslog(LOG_ERR, "%s:%d " fmt, "merosharing", __LINE__, ##__VA_ARGS__)

#endif  // MEROSHARING_SHARINGLOG_H
