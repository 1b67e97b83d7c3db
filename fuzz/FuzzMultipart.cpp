// An upload body through MeroCgiLoadUploadData, the call a CGI program
// makes, with the boundary "XyZ". Input: one byte choosing how many bytes
// each read of standard input returns (1 to 64), then the body.
// Properties: nothing is ever written outside the upload directory, and
// nothing but regular files inside it; the call succeeds exactly when an
// independent reading of the whole body (below: no streaming, no buffer)
// accepts it, and then the parameters and the files are the ones that
// reading finds; a refused body leaves no parameter and no file at all.
// The reference shares only the interpretation of one part's header block
// (PartHeaders.cpp); the framing, where streaming goes wrong, is its own.
// Inputs stay far below the part, field and file limits, so it need not
// count them.
#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "FuzzCheck.h"
#include "merocgi.h"
#include "upload/PartHeaders.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::map<std::string, std::string>;

constexpr char kBoundary[] = "XyZ";
constexpr size_t kMaxInput = 32 * 1024;

struct Reading {
  bool accepted = false;
  Texts params;
  Texts files;
};

// Where a delimiter starts at or after `from` in `text` (its '\n'): the
// kind, and the end of its line. End of text while undecided: kUndecided.
enum class Delimiter { kNone, kOpen, kClose, kUndecided };
Delimiter FindDelimiter(const std::string& text, size_t from, size_t* at, size_t* lineEnd) {
  const std::string needle = std::string("\n--") + kBoundary;
  for (size_t p = text.find(needle, from); p != std::string::npos; p = text.find(needle, p + 1)) {
    size_t q = p + needle.size();
    *at = p;
    if (q < text.size() && text[q] == '-') {
      if (q + 1 == text.size()) return Delimiter::kUndecided;
      if (text[q + 1] == '-') return Delimiter::kClose;
    }
    size_t blanks = 0;
    while (q < text.size() && (text[q] == ' ' || text[q] == '\t') && blanks <= MERO_CGI_UPLOAD_MAX_PADDING) {
      ++q;
      ++blanks;
    }
    if (blanks > MERO_CGI_UPLOAD_MAX_PADDING) continue;
    if (q == text.size()) return Delimiter::kUndecided;
    if (text[q] == '\r') {
      if (q + 1 == text.size()) return Delimiter::kUndecided;
      ++q;
    }
    if (text[q] != '\n') continue;
    *lineEnd = q + 1;
    return Delimiter::kOpen;
  }
  return Delimiter::kNone;
}

Reading ReadWhole(const std::string& body) {
  Reading reading;
  const std::string text = "\n" + body;
  size_t at = 0, lineEnd = 0;
  Delimiter next = FindDelimiter(text, 0, &at, &lineEnd);
  std::vector<std::string> stored;
  std::vector<std::pair<std::string, std::string>> fields, fileFields;
  while (next == Delimiter::kOpen) {
    // The header block: up to the first empty line.
    size_t lineStart = lineEnd, blockEnd = std::string::npos, afterBlock = 0;
    for (;;) {
      const size_t newline = text.find('\n', lineStart);
      if (newline == std::string::npos) return reading;
      if (newline + 1 - lineEnd > MERO_CGI_UPLOAD_MAX_PART_HEADER_BYTES) return reading;
      const size_t length = newline - lineStart;
      if (length == 0 || (length == 1 && text[lineStart] == '\r')) {
        blockEnd = lineStart;
        afterBlock = newline + 1;
        break;
      }
      lineStart = newline + 1;
    }
    merocgi::PartInfo part;
    const char* why = "";
    if (merocgi::ParsePartHeaders(std::string_view(text).substr(lineEnd, blockEnd - lineEnd), &part, &why))
      return reading;
    next = FindDelimiter(text, afterBlock, &at, &lineEnd);
    if (next == Delimiter::kNone || next == Delimiter::kUndecided) return reading;
    size_t dataEnd = at;
    if (dataEnd > afterBlock && text[dataEnd - 1] == '\r') --dataEnd;
    const std::string data = text.substr(afterBlock, dataEnd - afterBlock);
    if (!part.isFile) {
      if (data.find('\0') != std::string::npos) return reading;
      fields.emplace_back(part.field, data);
      continue;
    }
    if (part.sentName.empty()) continue;
    std::string name;
    if (merocgi::StoredUploadName(part.sentName, &name, &why)) return reading;
    if (reading.files.count(name)) return reading;
    reading.files[name] = data;
    bool joined = false;
    for (auto& [field, names] : fileFields) {
      if (field == part.field) {
        names += "/" + name;
        joined = true;
      }
    }
    if (!joined) fileFields.emplace_back(part.field, name);
  }
  if (next != Delimiter::kClose) return reading;
  for (const auto& [name, value] : fields) reading.params[name] = value;
  for (const auto& [name, value] : fileFields) reading.params[name] = value;
  reading.accepted = true;
  return reading;
}

struct Setup {
  fs::path root;
  fs::path dir;
};

const Setup& OnceSetUp() {
  static const Setup setup = [] {
    char root[] = "/tmp/webapi-fuzz-upload-XXXXXX";
    if (!mkdtemp(root)) std::abort();
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(OnceSetUp().root, ignored);
    });
    Setup made{root, fs::path(root) / "up"};
    fs::create_directories(made.dir);
    setenv("REQUEST_METHOD", "POST", 1);
    setenv("CONTENT_TYPE", (std::string("multipart/form-data; boundary=") + kBoundary).c_str(), 1);
    return made;
  }();
  return setup;
}

// Standard input from a socket whose every read returns one piece.
class PiecewiseStdin {
 public:
  PiecewiseStdin(const std::string& body, size_t pieceSize) : saved_(dup(STDIN_FILENO)) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
    dup2(pair[0], STDIN_FILENO);
    close(pair[0]);
    writer_ = std::thread([body, pieceSize, out = pair[1]] {
      for (size_t at = 0; at < body.size(); at += pieceSize) {
        const size_t size = std::min(pieceSize, body.size() - at);
        if (send(out, body.data() + at, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) break;
      }
      close(out);
    });
  }
  ~PiecewiseStdin() {
    dup2(saved_, STDIN_FILENO);
    close(saved_);
    writer_.join();
  }

 private:
  int saved_;
  std::thread writer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Setup& setup = OnceSetUp();
  if (size < 1 || size > kMaxInput) return 0;
  const size_t pieceSize = (data[0] & 63) + 1;
  const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  setenv("CONTENT_LENGTH", std::to_string(body.size()).c_str(), 1);

  MEROCGI_STATE state;
  MeroCgiInit("", &state);
  int result;
  {
    PiecewiseStdin input(body, pieceSize);
    result = MeroCgiLoadUploadData(&state, setup.dir.c_str(), 0);
  }
  Texts params;
  for (int i = 0; state.paramTable && i < state.paramTable->slotCount; ++i)
    params[state.paramTable->slots[i].key] = state.paramTable->slots[i].value;
  MeroCgiFree(&state);

  // Nothing outside the upload directory, nothing but files inside it.
  for (const auto& entry : fs::recursive_directory_iterator(setup.root)) {
    if (entry.path() == setup.dir) continue;
    FUZZ_CHECK(entry.path().parent_path() == setup.dir);
    FUZZ_CHECK(entry.is_regular_file() && !entry.is_symlink());
  }
  Texts files;
  for (const auto& entry : fs::directory_iterator(setup.dir)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    files[entry.path().filename().string()] = bytes.str();
    fs::remove(entry.path());
  }

  const Reading reading = ReadWhole(body);
  FUZZ_CHECK((result >= 0) == reading.accepted);
  if (result >= 0) {
    FUZZ_CHECK(static_cast<size_t>(result) == reading.files.size());
    FUZZ_CHECK(params == reading.params);
    FUZZ_CHECK(files == reading.files);
  } else {
    FUZZ_CHECK(params.empty());
    FUZZ_CHECK(files.empty());
  }
  return 0;
}
