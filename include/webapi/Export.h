// Export macro of libwebapi: the library is built with hidden visibility and
// only what carries WEBAPI_EXPORT is part of its ABI.
#ifndef WEBAPI_EXPORT_H
#define WEBAPI_EXPORT_H

#define WEBAPI_EXPORT __attribute__((visibility("default")))

#endif  // WEBAPI_EXPORT_H
