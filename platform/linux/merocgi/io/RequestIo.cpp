// The request I/O seam: the CGI implementation is plain descriptor I/O, and
// an installed one also takes over the C library's stdin and stdout, so
// every writer of the response (the header block, the envelope, a
// handler's own download) reaches the same place in the same order.
#include <errno.h>
#include <unistd.h>

#include <cstdio>

#include "mero_request_io.h"

namespace {

const MERO_REQUEST_IO* installed = nullptr;

// A stream's buffer is what one record of the response carries at most.
constexpr size_t kResponseBufferBytes = 32 * 1024;

ssize_t ReadThrough(void* cookie, char* into, size_t size) {
  const auto* io = static_cast<const MERO_REQUEST_IO*>(cookie);
  return io->readBody(io->context, into, size);
}

ssize_t WriteThrough(void* cookie, const char* bytes, size_t size) {
  const auto* io = static_cast<const MERO_REQUEST_IO*>(cookie);
  // A stream's write must not answer a negative count: 0 is its failure.
  return io->writeResponse(io->context, bytes, size) == 0 ? static_cast<ssize_t>(size) : 0;
}

}  // namespace

extern "C" {

int MeroCgiRequestIoInstall(const MERO_REQUEST_IO* io) {
  if (!io || installed) return 0;
  void* cookie = const_cast<MERO_REQUEST_IO*>(io);
  FILE* out = fopencookie(cookie, "w", cookie_io_functions_t{nullptr, WriteThrough, nullptr, nullptr});
  FILE* in = fopencookie(cookie, "r", cookie_io_functions_t{ReadThrough, nullptr, nullptr, nullptr});
  if (!out || !in || setvbuf(out, nullptr, _IOFBF, kResponseBufferBytes) != 0) {
    if (out) std::fclose(out);
    if (in) std::fclose(in);
    return 0;
  }
  // The replaced streams stay open: something may still hold them.
  std::fflush(stdout);
  stdout = out;
  stdin = in;
  installed = io;
  return 1;
}

ssize_t MeroCgiRequestBodyRead(char* into, size_t size) {
  for (;;) {
    const ssize_t got = installed ? installed->readBody(installed->context, into, size)
                                  : ::read(STDIN_FILENO, into, size);
    if (got >= 0 || errno != EINTR) return got;
  }
}

}  // extern "C"
