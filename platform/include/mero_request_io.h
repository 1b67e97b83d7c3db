/* Where a request's body comes from and where its response goes.
 *
 * One implementation serves a whole process and is chosen before the
 * request is read: the CGI one (the default) reads the body from standard
 * input and writes the response to standard output; the fork server's child
 * installs FastCGI record framing over its connection. Nothing else in the
 * library knows which one is in use.
 *
 * The response always goes through the C library's `stdout`, so a handler
 * that prints its own output (a download) needs no change:
 * MeroCgiRequestIoInstall rebinds `stdout` (and `stdin`, for handlers that read
 * it themselves) to the installed implementation. C linkage; nothing
 * throws. */
#ifndef MERO_REQUEST_IO_H
#define MERO_REQUEST_IO_H

#include <sys/types.h>

#include "mero_export.h"

MERO_EXTERN_C_BEGIN

typedef struct _tag_MERO_REQUEST_IO {
  /* > 0 bytes read into `into`; 0 at the end of the body; -1 on failure
   * (errno set). Never reads past the body. */
  ssize_t (*readBody)(void* context, char* into, size_t size);
  /* `size` bytes of the response, all of them: 0, or -1 on failure. */
  int (*writeResponse)(void* context, const char* bytes, size_t size);
  void* context;
} MERO_REQUEST_IO;

/* Makes `io` this process's request I/O (it must outlive the request) and
 * rebinds stdin and stdout to it, once per process. 1 on success; 0 when
 * `io` is null, one is installed already, or the streams could not be made
 * (nothing changed). */
MERO_EXPORT int MeroCgiRequestIoInstall(const MERO_REQUEST_IO* io);

/* Reads the request body through the installed implementation: as
 * readBody above, retrying interrupted reads. */
MERO_EXPORT ssize_t MeroCgiRequestBodyRead(char* into, size_t size);

MERO_EXTERN_C_END

#endif /* MERO_REQUEST_IO_H */
