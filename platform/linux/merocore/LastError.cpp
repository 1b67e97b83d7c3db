// The last-error record: one per thread, so a library that calls the
// platform from several threads still reads its own code.
#include "merocore.h"

namespace {
thread_local int tlsCode = MERO_ERR_NONE;
thread_local const char* tlsFile = "";
thread_local int tlsLine = 0;
}  // namespace

extern "C" {

void MLIBCErrSetEx(int code, const char* file, int line) {
  tlsCode = code;
  tlsFile = file ? file : "";
  tlsLine = line;
}

int MLIBCErrGet(void) { return tlsCode; }
const char* MLIBCErrorGetFile(void) { return tlsFile; }
int MLIBCErrorGetLine(void) { return tlsLine; }

}  // extern "C"
