// Part headers of multipart/form-data (RFC 7578, parameters as RFC 2045 and
// RFC 8187 define them) as browsers and curl write them, which differ from
// the RFCs in one place: a backslash in a quoted string escapes only '"'
// and '\', since browsers send Windows paths with their backslashes as they
// are.
#include "PartHeaders.h"

#include <strings.h>

#include "merocgi.h"

namespace merocgi {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

bool IsControl(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return u < 0x20 || u == 0x7f;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool EqualsIgnoringCase(std::string_view a, const char* b) {
  return a.size() == std::char_traits<char>::length(b) && strncasecmp(a.data(), b, a.size()) == 0;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads `; name=value` pairs after a media or disposition type, calling
// `take(name, value)` for each; false (with *why) when the text breaks the
// syntax or `take` refuses.
template <typename Take>
bool ReadParameters(std::string_view text, Take take, const char** why) {
  size_t at = 0;
  auto skipBlanks = [&] {
    while (at < text.size() && IsBlank(text[at])) ++at;
  };
  for (;;) {
    skipBlanks();
    if (at == text.size()) return true;
    if (text[at] != ';') {
      *why = "text where a parameter should start";
      return false;
    }
    ++at;
    skipBlanks();
    if (at == text.size()) return true;  // a trailing ';' is harmless
    const size_t nameStart = at;
    while (at < text.size() && text[at] != '=' && text[at] != ';' && !IsBlank(text[at])) ++at;
    const std::string_view name = text.substr(nameStart, at - nameStart);
    skipBlanks();
    if (name.empty() || at == text.size() || text[at] != '=') {
      *why = "a parameter without a value";
      return false;
    }
    ++at;
    skipBlanks();
    std::string value;
    if (at < text.size() && text[at] == '"') {
      ++at;
      for (;;) {
        if (at == text.size()) {
          *why = "an unclosed quoted string";
          return false;
        }
        const char c = text[at++];
        if (c == '"') break;
        if (c == '\\' && at < text.size() && (text[at] == '"' || text[at] == '\\')) {
          value += text[at++];
          continue;
        }
        value += c;
      }
    } else {
      const size_t valueStart = at;
      while (at < text.size() && text[at] != ';' && !IsBlank(text[at]) && text[at] != '"') ++at;
      value.assign(text.substr(valueStart, at - valueStart));
    }
    if (!take(name, std::move(value))) {
      if (!*why) *why = "a repeated parameter";
      return false;
    }
  }
}

// RFC 8187 ext-value: charset'language'percent-encoded, UTF-8 only.
bool DecodeExtValue(const std::string& value, std::string* decoded) {
  const size_t quote1 = value.find('\'');
  const size_t quote2 = quote1 == std::string::npos ? quote1 : value.find('\'', quote1 + 1);
  if (quote2 == std::string::npos) return false;
  if (!EqualsIgnoringCase(std::string_view(value).substr(0, quote1), "UTF-8")) return false;
  decoded->clear();
  for (size_t i = quote2 + 1; i < value.size(); ++i) {
    if (value[i] != '%') {
      *decoded += value[i];
      continue;
    }
    const int hi = i + 2 < value.size() ? HexValue(value[i + 1]) : -1;
    const int lo = hi >= 0 ? HexValue(value[i + 2]) : -1;
    if (lo < 0) return false;
    *decoded += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

int ParseDisposition(std::string_view value, PartInfo* part, const char** why) {
  size_t typeEnd = 0;
  while (typeEnd < value.size() && value[typeEnd] != ';' && !IsBlank(value[typeEnd])) ++typeEnd;
  if (!EqualsIgnoringCase(value.substr(0, typeEnd), "form-data")) {
    *why = "a Content-Disposition other than form-data";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  bool haveName = false, haveFilename = false, haveExtFilename = false;
  std::string filename, extFilename;
  auto take = [&](std::string_view name, std::string text) {
    bool* seen = nullptr;
    std::string* into = nullptr;
    if (EqualsIgnoringCase(name, "name")) {
      seen = &haveName;
      into = &part->field;
    } else if (EqualsIgnoringCase(name, "filename")) {
      seen = &haveFilename;
      into = &filename;
    } else if (EqualsIgnoringCase(name, "filename*")) {
      seen = &haveExtFilename;
      into = &extFilename;
    } else {
      return true;  // parameters of no meaning to a form are ignored
    }
    if (*seen) return false;
    *seen = true;
    *into = std::move(text);
    return true;
  };
  *why = nullptr;
  if (!ReadParameters(value.substr(typeEnd), take, why)) return MERO_ERR_REQUEST_MALFORMED;
  if (!haveName) {
    *why = "a part without a name";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  if (part->field.size() > MERO_CGI_UPLOAD_MAX_NAME_BYTES) {
    *why = "a field name over the length limit";
    return MERO_ERR_REQUEST_TOO_LARGE;
  }
  part->isFile = haveFilename || haveExtFilename;
  if (haveExtFilename && !DecodeExtValue(extFilename, &part->sentName)) {
    *why = "a filename* that is not percent-encoded UTF-8";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  if (!haveExtFilename) part->sentName = std::move(filename);
  return MERO_ERR_NONE;
}

}  // namespace

int BoundaryOf(std::string_view contentType, std::string* boundary, const char** why) {
  size_t typeEnd = 0;
  while (typeEnd < contentType.size() && contentType[typeEnd] != ';' &&
         !IsBlank(contentType[typeEnd]))
    ++typeEnd;
  if (!EqualsIgnoringCase(contentType.substr(0, typeEnd), "multipart/form-data")) {
    *why = "a content type other than multipart/form-data";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  bool found = false;
  auto take = [&](std::string_view name, std::string value) {
    if (!EqualsIgnoringCase(name, "boundary")) return true;
    if (found) return false;
    found = true;
    *boundary = std::move(value);
    return true;
  };
  *why = nullptr;
  if (!ReadParameters(contentType.substr(typeEnd), take, why)) return MERO_ERR_REQUEST_MALFORMED;
  bool control = false;
  for (char c : *boundary) control = control || IsControl(c);
  if (!found || boundary->empty() || boundary->size() > kMaxBoundaryBytes || control) {
    *why = "no usable boundary";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  return MERO_ERR_NONE;
}

int ParsePartHeaders(std::string_view block, PartInfo* part, const char** why) {
  *part = PartInfo();
  bool haveDisposition = false, haveType = false;
  while (!block.empty()) {
    const size_t lineEnd = std::min(block.find('\n'), block.size());
    std::string_view line = block.substr(0, lineEnd);
    block.remove_prefix(std::min(lineEnd + 1, block.size()));
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    for (char c : line) {
      if (IsControl(c) && c != '\t') {
        *why = "a control byte in a part header";
        return MERO_ERR_REQUEST_MALFORMED;
      }
    }
    if (line.empty() || IsBlank(line.front())) {
      *why = "a folded or empty part header line";
      return MERO_ERR_REQUEST_MALFORMED;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
      *why = "a part header line without a colon";
      return MERO_ERR_REQUEST_MALFORMED;
    }
    const std::string_view name = Trim(line.substr(0, colon));
    const std::string_view value = Trim(line.substr(colon + 1));
    if (EqualsIgnoringCase(name, "Content-Disposition")) {
      if (haveDisposition) {
        *why = "a repeated Content-Disposition";
        return MERO_ERR_REQUEST_MALFORMED;
      }
      haveDisposition = true;
      if (const int refused = ParseDisposition(value, part, why)) return refused;
    } else if (EqualsIgnoringCase(name, "Content-Type")) {
      if (haveType) {
        *why = "a repeated Content-Type";
        return MERO_ERR_REQUEST_MALFORMED;
      }
      haveType = true;
      if (value.size() > MERO_CGI_UPLOAD_MAX_NAME_BYTES) {
        *why = "a part's Content-Type over the length limit";
        return MERO_ERR_REQUEST_TOO_LARGE;
      }
      part->contentType.assign(value);
    }
  }
  if (!haveDisposition) {
    *why = "a part without Content-Disposition";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  return MERO_ERR_NONE;
}

int StoredUploadName(std::string_view sentName, std::string* stored, const char** why) {
  const size_t lastSeparator = sentName.find_last_of("/\\");
  if (lastSeparator != std::string_view::npos) sentName.remove_prefix(lastSeparator + 1);
  if (sentName.empty() || sentName == "." || sentName == "..") {
    *why = "an empty, \".\" or \"..\" file name";
    return MERO_ERR_REQUEST_MALFORMED;
  }
  for (char c : sentName) {
    if (IsControl(c)) {
      *why = "a control byte in a file name";
      return MERO_ERR_REQUEST_MALFORMED;
    }
  }
  if (sentName.size() > MERO_CGI_UPLOAD_MAX_NAME_BYTES) {
    *why = "a file name over the length limit";
    return MERO_ERR_REQUEST_TOO_LARGE;
  }
  stored->assign(sentName);
  return MERO_ERR_NONE;
}

}  // namespace merocgi
