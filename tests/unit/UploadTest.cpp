// Uploads through the calls a CGI program makes, with the body on standard
// input. Bodies under tests/data/multipart/ are what curl 7.88 (-F) and
// Chromium 156 (FormData, a form with an empty file input) sent to a
// capturing server; the rest are built here. Standard input is a
// SOCK_SEQPACKET socket, so each read returns exactly one of the pieces the
// body was cut into: the same body is fed whole, cut at every byte
// position, and one byte per read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "ApplianceRootEnv.h"
#include "merocgi.h"

namespace {

namespace fs = std::filesystem;
using Texts = std::map<std::string, std::string>;

std::string DataFile(const char* name) { return webapi_test::ReadFileText(std::string(UPLOAD_DATA_DIR) + "/" + name); }

struct Outcome {
  int result = 0;
  int error = 0;
  Texts params;
  Texts files;  // every entry of the upload directory, hidden ones too
  bool operator==(const Outcome& o) const {
    return result == o.result && error == o.error && params == o.params && files == o.files;
  }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  out << "result " << outcome.result << " error " << outcome.error;
  for (const auto& [name, value] : outcome.params) out << "\n  param " << name << "=" << value;
  for (const auto& [name, value] : outcome.files) out << "\n  file " << name << " (" << value.size() << " bytes)";
  return out;
}

// Standard input fed from `pieces`, one read per piece. A few small pieces
// fit the socket's buffer and are written at once; more take a writer
// thread.
class PiecewiseStdin {
 public:
  explicit PiecewiseStdin(std::vector<std::string> pieces) : saved_(dup(STDIN_FILENO)) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    dup2(pair[0], STDIN_FILENO);
    close(pair[0]);
    auto writeAll = [](const std::vector<std::string>& all, int out) {
      for (const std::string& piece : all)
        if (!piece.empty() &&
            send(out, piece.data(), piece.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(piece.size()))
          break;
      close(out);
    };
    size_t bytes = 0;
    for (const std::string& piece : pieces) bytes += piece.size();
    if (pieces.size() <= 4 && bytes <= 4096)
      writeAll(pieces, pair[1]);
    else
      writer_ = std::thread(writeAll, std::move(pieces), pair[1]);
  }
  ~PiecewiseStdin() {
    dup2(saved_, STDIN_FILENO);  // the writer sees its reader go, should it still write
    close(saved_);
    if (writer_.joinable()) writer_.join();
  }

 private:
  int saved_;
  std::thread writer_;
};

std::vector<std::string> PiecesOf(const std::string& body, size_t size) {
  std::vector<std::string> pieces;
  for (size_t at = 0; at < body.size(); at += size) pieces.push_back(body.substr(at, size));
  return pieces;
}

struct StateOwner {
  StateOwner() { MeroCgiInit("", &state); }
  ~StateOwner() { MeroCgiFree(&state); }
  MEROCGI_STATE state;
};

class UploadTest : public webapi_test::ApplianceRootTest {
 protected:
  void SetUp() override {
    ApplianceRootTest::SetUp();
    dir_ = root() / "up";
    fs::create_directories(dir_);
    setenv("REQUEST_METHOD", "POST", 1);
  }

  void SetRequest(const std::string& contentType, size_t contentLength) {
    setenv("CONTENT_TYPE", contentType.c_str(), 1);
    setenv("CONTENT_LENGTH", std::to_string(contentLength).c_str(), 1);
  }

  // The directory's entries and contents; with `empty`, they are removed.
  Texts Files(bool empty = false) const {
    Texts files;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      files[entry.path().filename().string()] = webapi_test::ReadFileText(entry.path());
      if (empty) fs::remove_all(entry.path());
    }
    return files;
  }

  static Texts Params(const MEROCGI_STATE& state) {
    Texts params;
    for (int i = 0; state.paramTable && i < state.paramTable->slotCount; ++i)
      params[state.paramTable->slots[i].key] = state.paramTable->slots[i].value;
    return params;
  }

  // One whole-body receive; the directory is emptied again after it.
  Outcome Receive(const std::vector<std::string>& pieces) {
    PiecewiseStdin input(pieces);
    StateOwner owner;
    Outcome outcome;
    outcome.result = MeroCgiLoadUploadData(&owner.state, dir_.c_str(), 0);
    outcome.error = outcome.result < 0 ? MLIBCErrGet() : 0;
    outcome.params = Params(owner.state);
    outcome.files = Files(true);
    return outcome;
  }

  // The body in reads of at most 4 KiB.
  Outcome Receive(const std::string& body, const std::string& contentType) {
    SetRequest(contentType, body.size());
    return Receive(PiecesOf(body, 4096));
  }

  fs::path dir_;
};

// A part and the closing delimiter under boundary "b".
std::string Part(const std::string& disposition, const std::string& data, const std::string& extra = "") {
  return "--b\r\nContent-Disposition: form-data; " + disposition + "\r\n" + extra + "\r\n" + data + "\r\n";
}
std::string Close() { return "--b--\r\n"; }
const char kTypeB[] = "multipart/form-data; boundary=b";

TEST_F(UploadTest, RealBodiesGiveTheirFieldsAndFilesHoweverTheReadsFall) {
  const std::string webkit = "multipart/form-data; boundary=----WebKitFormBoundary";
  const std::string curlType = "multipart/form-data; boundary=------------------------";
  const std::string lines = "first file\r\nline two\n";
  // A delimiter line may carry MERO_CGI_UPLOAD_MAX_PADDING blanks, no more.
  const std::string overPadded = "\r\n--b" + std::string(MERO_CGI_UPLOAD_MAX_PADDING + 1, ' ') + "\r\n";
  const struct {
    const char* label;
    std::string body, contentType;
    Outcome want;
  } cases[] = {
      {"curl -F: fields, two files under one name, an empty file",
       DataFile("curl_form.body"), curlType + "b0fe11787966394a",
       {2, 0,
        {{"api", "Demo.Files"}, {"method", "upload"}, {"version", "1"}, {"note", "hello"},
         {"files", "a.txt/empty.txt"}},
        {{"a.txt", lines}, {"empty.txt", ""}}}},
      {"browser FormData: binary file, multi-line field", DataFile("browser_form.body"),
       webkit + "4uaIOu9RWDF4juzD",
       {2, 0,
        {{"api", "Demo.Files"}, {"method", "upload"}, {"version", "1"},
         {"note", "multi\r\nline \"quoted\" \xC3\xA9t\xC3\xA9"}, {"files", "a.txt/b.bin"}},
        {{"a.txt", lines}, {"b.bin", std::string("\0\1\2\xFF\r\n--", 8)}}}},
      {"browser form: file input left empty, empty file", DataFile("browser_empty.body"),
       webkit + "3s9Qh4dbwZlOW7ib",
       {1, 0, {{"api", "Demo.Files"}, {"empty", "empty.txt"}}, {{"empty.txt", ""}}}},
      {"browser: escaped names, a backslash path", DataFile("browser_names.body"),
       webkit + "MDt9jTbkWolYONYH",
       {1, 0, {{"na%22me%0D%0Ax", "v"}, {"file", "back%0Aline \xC3\xBC.txt"}},
        {{"back%0Aline \xC3\xBC.txt", "x"}}}},
      {"browser: boundary-like lines inside file data", DataFile("browser_tricky.body"),
       webkit + "Z2qsYA7Vx0mmVmUD",
       {1, 0, {{"file", "tricky.bin"}}, {{"tricky.bin", "\r\n------WebKitFormBoundary\r\n--\r\n"}}}},
      {"curl: Windows path, escaped backslash", DataFile("curl_names.body"),
       curlType + "33dbc280c7cdf707",
       {3, 0, {{"file", "qu%22ote.txt"}, {"back", "x.txt"}, {"x", "c"}},
        {{"qu%22ote.txt", "x"}, {"x.txt", lines}, {"c", lines}}}},
      {"no line end after the closing delimiter",
       Part("name=\"a\"", "1") + "--b--", kTypeB, {0, 0, {{"a", "1"}}, {}}},
      {"bare LF line ends",
       "--b\nContent-Disposition: form-data; name=\"a\"\n\nx\n--b\n"
       "Content-Disposition: form-data; name=\"f\"; filename=\"l.txt\"\n\nline1\nline2\n--b--\n",
       kTypeB, {1, 0, {{"a", "x"}, {"f", "l.txt"}}, {{"l.txt", "line1\nline2"}}}},
      {"preamble, padded delimiters, quoted boundary, epilogue",
       "preamble\r\n--a b \t\r\nContent-Disposition: form-data; name=a\r\n\r\nv\r\n--a b" +
           std::string(MERO_CGI_UPLOAD_MAX_PADDING, ' ') +
           "\r\nContent-Disposition: form-data; name=c\r\n\r\n\r\n--a b--\r\nepilogue",
       "multipart/form-data; charset=utf-8; boundary=\"a b\"", {0, 0, {{"a", "v"}, {"c", ""}}, {}}},
      {"delimiter look-alikes are data",
       Part("name=\"f\"; filename=\"t\"", "x\r\n--bx\r\n--b-y\r\n --b\n--b\t!\r\n--" + overPadded) +
           Close(),
       kTypeB,
       {1, 0, {{"f", "t"}}, {{"t", "x\r\n--bx\r\n--b-y\r\n --b\n--b\t!\r\n--" + overPadded}}}},
      {"filename* wins; a client path keeps its last component",
       Part("name=\"f\"; filename=\"fallback.txt\"; filename*=UTF-8''na%C3%AFve%20file.txt", "1") +
           Part("name=\"g\"; filename=\"C:\\Users\\me\\report.pdf\"", "2") +
           Part("name=\"h\"; filename*=utf-8'en'..%2F..%2Fetc", "3") + Close(),
       kTypeB,
       {3, 0, {{"f", "na\xC3\xAFve file.txt"}, {"g", "report.pdf"}, {"h", "etc"}},
        {{"na\xC3\xAFve file.txt", "1"}, {"report.pdf", "2"}, {"etc", "3"}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ASSERT_FALSE(c.body.empty());
    EXPECT_EQ(Receive(c.body, c.contentType), c.want);
    EXPECT_EQ(Receive(PiecesOf(c.body, 1)), c.want) << "one byte per read";
    for (size_t cut = 1; cut < c.body.size(); ++cut) {
      const Outcome got = Receive({c.body.substr(0, cut), c.body.substr(cut)});
      if (!(got == c.want)) {
        ADD_FAILURE() << "cut at " << cut << ": " << got;
        break;
      }
    }
  }
}

// A regular file on standard input fills the whole buffer at each read, so
// a delimiter, or text that looks like one for up to 70 bytes, falls across
// the buffer's edge.
TEST_F(UploadTest, FilesAcrossTheBufferEdgeArriveWhole) {
  const size_t buffer = MERO_CGI_UPLOAD_BUFFER_BYTES;
  const std::string head = "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"big\"\r\n\r\n";
  std::string varied;
  for (size_t i = 0; i < buffer + 16; ++i) varied += static_cast<char>(i * 7 % 251);
  const std::string lookAlike = "\r\n--b" + std::string(MERO_CGI_UPLOAD_MAX_PADDING, ' ') + "x";
  std::string lookAlikes;
  while (lookAlikes.size() < 2 * buffer + 4096) lookAlikes += lookAlike;
  std::vector<std::string> datas = {lookAlikes};
  // The closing delimiter at every position around the first edge.
  for (size_t size = buffer - 40 - head.size(); size < buffer + 8 - head.size(); ++size)
    datas.push_back(varied.substr(0, size));
  for (const std::string& data : datas) {
    const std::string body = head + data + "\r\n" + Close();
    const fs::path bodyFile = root() / "body";
    std::ofstream(bodyFile, std::ios::binary) << body;
    const int saved = dup(STDIN_FILENO);
    const int in = open(bodyFile.c_str(), O_RDONLY);
    dup2(in, STDIN_FILENO);
    close(in);
    SetRequest(kTypeB, body.size());
    MEROCGI_STATE state;
    MeroCgiInit("", &state);
    const int result = MeroCgiLoadUploadData(&state, dir_.c_str(), 0);
    MeroCgiFree(&state);
    dup2(saved, STDIN_FILENO);
    close(saved);
    ASSERT_EQ(result, 1) << data.size();
    const Texts files = Files(true);
    ASSERT_EQ(files.size(), 1u);
    ASSERT_TRUE(files.at("big") == data) << data.size();
  }
}

TEST_F(UploadTest, RefusedRequestsStoreNothingAtAll) {
  const std::string file = Part("name=\"f\"; filename=\"kept.txt\"", "data");
  const std::string field = Part("name=\"a\"", "1");
  auto withName = [&](const std::string& disposition) {
    return field + file + Part(disposition, "x") + Close();
  };
  std::string manyParts;
  for (int i = 0; i <= MERO_CGI_UPLOAD_MAX_PARTS; ++i) manyParts += Part("name=\"p\"", "");
  const struct {
    const char* label;
    std::string body;
    int error;
    std::string contentType = kTypeB;
  } cases[] = {
      {"no closing delimiter", field + file, MERO_ERR_REQUEST_MALFORMED},
      {"closing delimiter cut", field + file + "--b-", MERO_ERR_REQUEST_MALFORMED},
      {"name ..", withName("name=\"g\"; filename=\"..\""), MERO_ERR_REQUEST_MALFORMED},
      {"path ending in .", withName("name=\"g\"; filename=\"a/.\""), MERO_ERR_REQUEST_MALFORMED},
      {"path ending in /", withName("name=\"g\"; filename=\"../\""), MERO_ERR_REQUEST_MALFORMED},
      {"NUL through filename*", withName("name=\"g\"; filename*=UTF-8''a%00b"), MERO_ERR_REQUEST_MALFORMED},
      {"LF through filename*", withName("name=\"g\"; filename*=UTF-8''a%0Ab"), MERO_ERR_REQUEST_MALFORMED},
      {"filename* in Latin-1", withName("name=\"g\"; filename*=ISO-8859-1''a"), MERO_ERR_REQUEST_MALFORMED},
      {"name over the limit",
       withName("name=\"g\"; filename=\"" + std::string(MERO_CGI_UPLOAD_MAX_NAME_BYTES + 1, 'n') + "\""),
       MERO_ERR_REQUEST_TOO_LARGE},
      {"two files, one name", withName("name=\"g\"; filename=\"kept.txt\""), MERO_ERR_EXISTS},
      {"no name parameter", withName("filename=\"g\""), MERO_ERR_REQUEST_MALFORMED},
      {"repeated parameter", withName("name=\"g\"; name=\"h\""), MERO_ERR_REQUEST_MALFORMED},
      {"unclosed quote", withName("name=\"g"), MERO_ERR_REQUEST_MALFORMED},
      {"not form-data", field + file + "--b\r\nContent-Disposition: attachment; name=g\r\n\r\n\r\n" + Close(),
       MERO_ERR_REQUEST_MALFORMED},
      {"no Content-Disposition", field + file + "--b\r\nContent-Type: text/plain\r\n\r\nx\r\n" + Close(),
       MERO_ERR_REQUEST_MALFORMED},
      {"folded header", field + file + "--b\r\nContent-Disposition: form-data;\r\n name=g\r\n\r\nx\r\n" + Close(),
       MERO_ERR_REQUEST_MALFORMED},
      {"NUL in a field", field + file + Part("name=\"z\"", std::string("a\0b", 3)) + Close(),
       MERO_ERR_REQUEST_MALFORMED},
      {"part headers over the limit",
       field + file + Part("name=\"g\"", "x", "X-Pad: " + std::string(MERO_CGI_UPLOAD_MAX_PART_HEADER_BYTES, 'p') + "\r\n") + Close(),
       MERO_ERR_REQUEST_TOO_LARGE},
      {"a header line longer than the buffer",
       field + file + "--b\r\nX-Pad: " + std::string(MERO_CGI_UPLOAD_BUFFER_BYTES, 'p'),
       MERO_ERR_REQUEST_TOO_LARGE},
      {"too many parts", file + manyParts + Close(), MERO_ERR_REQUEST_TOO_LARGE},
      {"form fields over the limit",
       file + Part("name=\"big\"", std::string(MERO_CGI_UPLOAD_MAX_FIELD_BYTES / 2, 'v')) +
           Part("name=\"big2\"", std::string(MERO_CGI_UPLOAD_MAX_FIELD_BYTES / 2, 'v')) + Close(),
       MERO_ERR_REQUEST_TOO_LARGE},
      {"no boundary", field + file + Close(), MERO_ERR_REQUEST_MALFORMED, "multipart/form-data"},
      {"boundary given twice", field + file + Close(), MERO_ERR_REQUEST_MALFORMED,
       "multipart/form-data; boundary=b; boundary=c"},
      {"boundary over 70 bytes", field + file + Close(), MERO_ERR_REQUEST_MALFORMED,
       "multipart/form-data; boundary=" + std::string(71, 'b')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const Outcome got = Receive(c.body, c.contentType);
    EXPECT_EQ(got, (Outcome{-1, c.error, {}, {}}));
  }
  // A body cut short by the client: fewer bytes than CONTENT_LENGTH.
  const std::string whole = field + file + Close();
  SetRequest(kTypeB, whole.size());
  EXPECT_EQ(Receive(std::vector<std::string>{whole.substr(0, whole.size() - 12)}),
            (Outcome{-1, MERO_ERR_REQUEST_INCOMPLETE, {}, {}}));
  unsetenv("CONTENT_LENGTH");
  EXPECT_EQ(Receive(std::vector<std::string>{whole}), (Outcome{-1, MERO_ERR_REQUEST_MALFORMED, {}, {}}));
}

TEST_F(UploadTest, TheBodyIsReadOnceAndTheDirectoryMustExist) {
  const std::string body = Part("name=\"f\"; filename=\"x\"", "1") + Close();
  SetRequest(kTypeB, body.size());
  PiecewiseStdin input({body});
  MEROCGI_STATE state;
  MeroCgiInit("", &state);
  EXPECT_EQ(MeroCgiLoadUploadData(&state, (dir_ / "missing").c_str(), 0), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_IO);
  EXPECT_EQ(MeroCgiLoadUploadData(&state, dir_.c_str(), 0), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(MeroCgiLoadUploadParams(&state, nullptr, nullptr, nullptr, 0, nullptr, 0, nullptr, 0), -1);
  EXPECT_EQ(MeroCgiLoadUploadData(&state, dir_.c_str(), 1), -1);
  MeroCgiFree(&state);
  EXPECT_TRUE(Files().empty());
}

// ---- step by step --------------------------------------------------------

std::vector<std::pair<unsigned long long, unsigned long long>> progressCalls;
void RecordProgress(unsigned long long received, unsigned long long total) {
  progressCalls.emplace_back(received, total);
}
std::vector<std::array<unsigned long long, 3>> rateCalls;
long long RecordRate(unsigned long long fileBytes, unsigned long long received,
                     unsigned long long total) {
  rateCalls.push_back({fileBytes, received, total});
  return 0;
}
int readsBeforeCancel = 0;
BOOL CancelAfterSomeReads() { return readsBeforeCancel-- <= 0; }

TEST_F(UploadTest, StepByStepAnnouncesEachFileAndStoresTheFieldsBeforeIt) {
  const std::string body = Part("name=\"api\"", "Demo.Files") +
                           Part("name=\"f1\"; filename=\"one.txt\"", "111", "Content-Type: text/plain\r\n") +
                           Part("name=\"between\"", "2") +
                           Part("name=\"f2\"; filename=\"dir\\two.bin\"", "22") +
                           Part("name=\"f3\"; filename=\"three\"", "skipped") + Part("name=\"after\"", "3") +
                           Close();
  SetRequest(kTypeB, body.size());
  PiecewiseStdin input(PiecesOf(body, 16));
  StateOwner owner;
  MEROCGI_STATE* state = &owner.state;
  CGI_UPLOAD_PROGRESS record;
  char field[MERO_CGI_UPLOAD_TEXT_BYTES], name[MERO_CGI_UPLOAD_TEXT_BYTES], type[MERO_CGI_UPLOAD_TEXT_BYTES];
  progressCalls.clear();
  rateCalls.clear();

  ASSERT_EQ(MeroCgiLoadUploadParams(state, RecordProgress, &record, field, sizeof field, name,
                                    sizeof name, type, sizeof type), 1);
  EXPECT_EQ(std::string(field) + "|" + name + "|" + type, "f1|one.txt|text/plain");
  EXPECT_EQ(Params(*state), (Texts{{"api", "Demo.Files"}}));
  EXPECT_STREQ(record.fileName, "one.txt");
  EXPECT_EQ(record.total, body.size());
  ASSERT_FALSE(progressCalls.empty());
  EXPECT_EQ(progressCalls.back(), std::make_pair(record.received, record.total));
  for (size_t i = 1; i < progressCalls.size(); ++i)
    EXPECT_EQ(progressCalls[i].first, progressCalls[i - 1].first + 16) << i;

  ASSERT_EQ(MeroCgiLoadUploadFileBW(state, (dir_ / "first").c_str(), RecordProgress, &record, field,
                                    name, type, "100000000"), 1);
  EXPECT_EQ(std::string(field) + "|" + name + "|" + type, "f2|two.bin|");
  EXPECT_EQ(Params(*state), (Texts{{"api", "Demo.Files"}, {"between", "2"}}));
  EXPECT_EQ(record.files, 1);

  unsigned long long written = 99;
  readsBeforeCancel = 1 << 30;
  ASSERT_EQ(MeroCgiLoadUploadFileNoTruncate(state, (dir_ / "second").c_str(), RecordProgress, &record,
                                            RecordRate, field, name, type, &written,
                                            CancelAfterSomeReads), 1);
  EXPECT_EQ(written, 2u);
  EXPECT_STREQ(name, "three");
  // A null path reads the part and keeps nothing.
  ASSERT_EQ(MeroCgiLoadUploadFileBW(state, nullptr, nullptr, &record, field, name, type, ""), 0);
  EXPECT_EQ(std::string(field) + name + type, "");
  EXPECT_EQ(Params(*state), (Texts{{"api", "Demo.Files"}, {"between", "2"}, {"after", "3"}}));
  EXPECT_EQ(Files(), (Texts{{"first", "111"}, {"second", "22"}}));
  EXPECT_EQ(record.files, 2);
  EXPECT_EQ(record.received, body.size());
  ASSERT_FALSE(rateCalls.empty());
  for (const auto& call : rateCalls) {
    EXPECT_LE(call[0], 2u);
    EXPECT_EQ(call[2], body.size());
  }
  EXPECT_EQ(MeroCgiLoadUploadFileBW(state, (dir_ / "x").c_str(), nullptr, nullptr, field, name, type, ""), -1);
  EXPECT_EQ(MLIBCErrGet(), MERO_ERR_INVALID_ARGUMENT);
}

TEST_F(UploadTest, StepByStepRefusalsLeaveNothingAndEndTheUpload) {
  const std::string data(16384, 'd');
  const std::string body = Part("name=\"f\"; filename=\"one.txt\"", data) +
                           Part("name=\"g\"; filename=\"two.txt\"", "2") + Close();
  char field[MERO_CGI_UPLOAD_TEXT_BYTES], name[MERO_CGI_UPLOAD_TEXT_BYTES], type[MERO_CGI_UPLOAD_TEXT_BYTES];
  const std::string target = (dir_ / "target").string();
  auto params = [&](MEROCGI_STATE* state) {
    return MeroCgiLoadUploadParams(state, nullptr, nullptr, field, sizeof field, name, sizeof name,
                                   type, sizeof type);
  };
  unsigned long long written = 0;
  auto bw = [&](const char* bandwidth) {
    return [&, bandwidth](MEROCGI_STATE* s) {
      return MeroCgiLoadUploadFileBW(s, target.c_str(), nullptr, nullptr, field, name, type, bandwidth);
    };
  };
  auto noTruncate = [&](MEROCGI_STATE* s) {
    return MeroCgiLoadUploadFileNoTruncate(s, target.c_str(), nullptr, nullptr, nullptr, field, name,
                                           type, &written, CancelAfterSomeReads);
  };
  auto afterParams = [&](std::function<int(MEROCGI_STATE*)> call) {
    return [&, call](MEROCGI_STATE* s) { return params(s) == 1 ? call(s) : 0; };
  };
  const struct {
    const char* label;
    std::function<int(MEROCGI_STATE*)> steps;
    int error;
    const char* existing = nullptr;  // the target's text beforehand
    int reads = 1 << 30;             // before the cancel callback says yes
    size_t sent = std::string::npos;  // bytes of the body sent; CONTENT_LENGTH is always the whole
  } cases[] = {
      {"a file call first", bw(""), MERO_ERR_INVALID_ARGUMENT},
      {"a buffer too small",
       [&](MEROCGI_STATE* s) {
         return MeroCgiLoadUploadParams(s, nullptr, nullptr, field, sizeof field, name, 7, type, sizeof type);
       },
       MERO_ERR_INVALID_ARGUMENT},
      {"a bandwidth that is no number", afterParams(bw("1k")), MERO_ERR_INVALID_ARGUMENT},
      {"the target exists", afterParams(noTruncate), MERO_ERR_EXISTS, "old"},
      {"cancelled", afterParams(noTruncate), MERO_ERR_CANCELLED, nullptr, 3},
      {"cut short in the file", afterParams(noTruncate), MERO_ERR_REQUEST_INCOMPLETE, nullptr, 1 << 30, 10000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    if (c.existing) std::ofstream(target) << c.existing;
    readsBeforeCancel = c.reads;
    SetRequest(kTypeB, body.size());
    PiecewiseStdin input(PiecesOf(body.substr(0, c.sent), 256));
    StateOwner owner;
    EXPECT_EQ(c.steps(&owner.state), -1);
    EXPECT_EQ(MLIBCErrGet(), c.error);
    EXPECT_EQ(std::string(field) + name + type, "");
    EXPECT_EQ(bw("")(&owner.state), -1);
    EXPECT_EQ(Files(true), (c.existing ? Texts{{"target", c.existing}} : Texts{}));
  }
  EXPECT_GT(written, 0u);  // the cut-short case wrote part of its file before the refusal
  EXPECT_LT(written, data.size());
}

}  // namespace
