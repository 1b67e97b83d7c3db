// What a multipart/form-data part says about itself (RFC 7578): the
// boundary of the request's CONTENT_TYPE, one part's header block, and the
// name a file part is stored under. Pure functions over checked text; the
// rules are the ones documented in merocgi.h. Each returns MERO_ERR_NONE or
// the MERO_ERR_* code of the refusal and, in *why, what was refused (static
// text for a log line, never request bytes).
#ifndef MEROCGI_UPLOAD_PARTHEADERS_H
#define MEROCGI_UPLOAD_PARTHEADERS_H

#include <string>
#include <string_view>

namespace merocgi {

// Longest boundary (RFC 2046).
constexpr size_t kMaxBoundaryBytes = 70;

struct PartInfo {
  std::string field;        // Content-Disposition's name
  bool isFile = false;      // a filename or filename* parameter was given
  std::string sentName;     // the file name as sent, unquoted (filename* decoded)
  std::string contentType;  // Content-Type, blanks around it removed; "" when absent
};

// The boundary of a "multipart/form-data; boundary=..." content type.
int BoundaryOf(std::string_view contentType, std::string* boundary, const char** why);

// Interprets a part's header lines (each ended by LF or CRLF; the empty
// line that ends them not included).
int ParsePartHeaders(std::string_view block, PartInfo* part, const char** why);

// The name a file sent as `sentName` is stored under.
int StoredUploadName(std::string_view sentName, std::string* stored, const char** why);

}  // namespace merocgi

#endif  // MEROCGI_UPLOAD_PARTHEADERS_H
