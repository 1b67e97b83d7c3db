// application/x-www-form-urlencoded decoding (the WHATWG URL standard's
// form parser: '+' is a space, "%XY" a byte, a '%' without two hex digits is
// kept literally), shared by the parameter line and the query string of a
// POST.
#ifndef MEROCGI_FORMDECODE_H
#define MEROCGI_FORMDECODE_H

#include <cstddef>

#include "merocore.h"

namespace merocgi {

// Decodes `line` into a new hash stored in *out (null on failure). The
// result is >= 0 pairs, or -1 with the platform error code set and a log line
// naming `what` (see MeroCgiParseCGIParam for the refusals).
int DecodeFormLine(const char* line, size_t length, const char* what, MLIBSZHASH** out);

}  // namespace merocgi

#endif  // MEROCGI_FORMDECODE_H
