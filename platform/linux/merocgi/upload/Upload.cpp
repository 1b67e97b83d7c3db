// Uploads: the calls of merocgi.h over one MultipartStream per request,
// kept in the CGI state between the step-by-step calls. Whatever a call
// refuses, its files have no final name (their owners remove them) and its
// fields never reach the parameter table: they are merged into a copy that
// replaces the table only once the call has succeeded.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "../CgiLog.h"
#include "MultipartStream.h"
#include "PartHeaders.h"
#include "UploadFile.h"
#include "UploadSession.h"
#include "mero_owners.h"
#include "merocgi.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;
using ProgressFn = void (*)(unsigned long long, unsigned long long);
using RateFn = long long (*)(unsigned long long, unsigned long long, unsigned long long);
using CancelFn = BOOL (*)(void);

double NowSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Keeps reading at no more than `limit` bytes per second, counted from the
// moment the limit was last set.
class Throttle {
 public:
  void Pace(long long limit, unsigned long long received) {
    if (limit != limit_) {
      limit_ = limit;
      originSeconds_ = NowSeconds();
      originBytes_ = received;
      return;
    }
    if (limit_ <= 0) return;
    const double due = originSeconds_ + static_cast<double>(received - originBytes_) /
                                            static_cast<double>(limit_);
    const double wait = due - NowSeconds();
    if (wait <= 0) return;
    timespec pause{static_cast<time_t>(wait), static_cast<long>((wait - static_cast<double>(
                                                                       static_cast<time_t>(wait))) *
                                                                1e9)};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }

 private:
  long long limit_ = 0;
  double originSeconds_ = 0;
  unsigned long long originBytes_ = 0;
};

// Strict CONTENT_LENGTH: decimal digits, at most 2^63 - 1.
bool ParseLength(const char* text, unsigned long long* length) {
  if (!text || !*text) return false;
  unsigned long long value = 0;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9' || value > (~0ULL >> 1) / 10) return false;
    value = value * 10 + static_cast<unsigned long long>(*p - '0');
  }
  *length = value;
  return value <= (~0ULL >> 1);
}

}  // namespace

struct _tag_MEROCGI_UPLOAD final : merocgi::ReadObserver {
  _tag_MEROCGI_UPLOAD(unsigned long long length, const std::string& boundary)
      : body(length), stream(&body, boundary) {
    stream.SetObserver(this);
  }

  bool AfterRead() override {
    const unsigned long long received = body.received(), total = body.length();
    if (record) {
      record->total = total;
      record->received = received;
      record->fileBytes = fileBytes;
    }
    if (progress) progress(received, total);
    throttle.Pace(rate ? rate(fileBytes, received, total) : fixedRate, received);
    return !(cancel && cancel());
  }

  merocgi::BodySource body;
  merocgi::MultipartStream stream;
  bool over = false;  // refused, or the body has ended
  bool fileAnnounced = false;
  merocgi::PartInfo next;  // the file part announced last
  std::string nextStored;
  int parts = 0;
  size_t fieldBytes = 0;
  unsigned long long fileBytes = 0;
  Throttle throttle;
  // The callbacks of the call in progress.
  ProgressFn progress = nullptr;
  CGI_UPLOAD_PROGRESS* record = nullptr;
  RateFn rate = nullptr;
  long long fixedRate = 0;
  CancelFn cancel = nullptr;
};

namespace {

using Upload = _tag_MEROCGI_UPLOAD;

int Refuse(Upload* upload, int code, const char* why, int savedErrno = 0) {
  if (savedErrno)
    MEROCGI_LOG("refused upload: %s: %s", why, std::strerror(savedErrno));
  else
    MEROCGI_LOG("refused upload: %s", why);
  MERO_ERR_SET(code);
  if (upload) upload->over = true;
  return -1;
}

// A form field's value, bounded by the limit on all fields together.
class FieldSink : public merocgi::DataSink {
 public:
  FieldSink(Upload* upload, std::string* value) : upload_(upload), value_(value) {}
  bool Take(const char* data, size_t size) override {
    upload_->fieldBytes += size;
    if (upload_->fieldBytes > MERO_CGI_UPLOAD_MAX_FIELD_BYTES) return false;
    value_->append(data, size);
    return true;
  }

 private:
  Upload* upload_;
  std::string* value_;
};

// A file's data, into `file` (null: dropped).
class FileSink : public merocgi::DataSink {
 public:
  FileSink(Upload* upload, merocgi::UploadFile* file) : upload_(upload), file_(file) {}
  bool Take(const char* data, size_t size) override {
    if (file_ && !file_->Write(data, size)) {
      errno_ = errno;
      return false;
    }
    upload_->fileBytes += size;
    return true;
  }
  int savedErrno() const { return errno_; }

 private:
  Upload* upload_;
  merocgi::UploadFile* file_;
  int errno_ = 0;
};

int RefuseStream(Upload* upload) {
  return Refuse(upload, upload->stream.error(), upload->stream.why());
}

// Reads parts up to the next file part with a file name, collecting the
// form fields before it. 1: a file part is announced; 0: the body ended;
// -1: refused (logged).
int ReadToNextFile(Upload* upload, Fields* fields) {
  for (;;) {
    std::string_view headers;
    const merocgi::MultipartStream::Next next = upload->stream.NextPart(&headers);
    if (next == merocgi::MultipartStream::Next::kEnd) {
      upload->over = true;
      return 0;
    }
    if (next == merocgi::MultipartStream::Next::kFailed) return RefuseStream(upload);
    if (++upload->parts > MERO_CGI_UPLOAD_MAX_PARTS)
      return Refuse(upload, MERO_ERR_REQUEST_TOO_LARGE, "more parts than the limit");
    merocgi::PartInfo part;
    const char* why = "";
    if (const int refused = merocgi::ParsePartHeaders(headers, &part, &why))
      return Refuse(upload, refused, why);
    if (part.isFile) {
      if (part.sentName.empty()) continue;  // a file input left empty; its data is skipped
      std::string stored;
      if (const int refused = merocgi::StoredUploadName(part.sentName, &stored, &why))
        return Refuse(upload, refused, why);
      upload->next = std::move(part);
      upload->nextStored = std::move(stored);
      upload->fileAnnounced = true;
      if (upload->record) {
        std::memcpy(upload->record->fileName, upload->nextStored.c_str(),
                    upload->nextStored.size() + 1);
      }
      return 1;
    }
    std::string value;
    FieldSink sink(upload, &value);
    upload->fieldBytes += part.field.size();
    if (upload->fieldBytes > MERO_CGI_UPLOAD_MAX_FIELD_BYTES || !upload->stream.ReadData(&sink)) {
      if (upload->stream.error()) return RefuseStream(upload);
      return Refuse(upload, MERO_ERR_REQUEST_TOO_LARGE, "form fields over the size limit");
    }
    if (value.find('\0') != std::string::npos)
      return Refuse(upload, MERO_ERR_REQUEST_MALFORMED, "a form field holding a NUL byte");
    fields->emplace_back(std::move(part.field), std::move(value));
  }
}

// The parameter table with `fields` stored over it, as a new table (the
// state's own stays as it is until the caller swaps it in).
mero::UniqueSzHash Merged(const MLIBSZHASH* table, const Fields& fields) {
  const int old = table ? table->slotCount : 0;
  mero::UniqueSzHash merged(MLIBCSzHashAlloc(old + static_cast<int>(fields.size()) + 1));
  for (int i = 0; merged && i < old; ++i) {
    MLIBSZHASH* raw = merged.release();
    const MLIBSZHASH_SLOT& slot = table->slots[i];
    const bool stored = !slot.key || !slot.value || MLIBCSzHashSetValue(&raw, slot.key, slot.value) >= 0;
    merged.reset(raw);
    if (!stored) merged.reset();
  }
  for (const auto& [name, value] : fields) {
    if (!merged) break;
    MLIBSZHASH* raw = merged.release();
    const bool stored = MLIBCSzHashSetValue(&raw, name.c_str(), value.c_str()) >= 0;
    merged.reset(raw);
    if (!stored) merged.reset();
  }
  return merged;
}

void SwapIn(MEROCGI_STATE* state, mero::UniqueSzHash merged) {
  MLIBCSzHashFree(state->paramTable);
  state->paramTable = merged.release();
}

// The upload of `state`, begun now; null when it cannot begin (refused and
// logged; also when a body was read before).
Upload* Begin(MEROCGI_STATE* state) {
  if (state->upload) {
    Refuse(nullptr, MERO_ERR_INVALID_ARGUMENT, "the body was read before");
    return nullptr;
  }
  std::string boundary;
  const char* why = "";
  const char* type = std::getenv("CONTENT_TYPE");
  int refused = merocgi::BoundaryOf(type ? type : "", &boundary, &why);
  unsigned long long length = 0;
  if (!refused && !ParseLength(std::getenv("CONTENT_LENGTH"), &length)) {
    refused = MERO_ERR_REQUEST_MALFORMED;
    why = "CONTENT_LENGTH is missing or not a decimal number";
  }
  state->upload = new Upload(length, boundary);
  if (refused) {
    Refuse(state->upload, refused, why);
    return nullptr;
  }
  if (!state->upload->stream.ok()) {
    Refuse(state->upload, MERO_ERR_NO_MEMORY, "no memory for the upload buffer");
    return nullptr;
  }
  return state->upload;
}

// The callbacks a call passes, for the length of that call.
class CallbackScope {
 public:
  CallbackScope(Upload* upload, ProgressFn progress, CGI_UPLOAD_PROGRESS* record, RateFn rate,
                long long fixedRate, CancelFn cancel)
      : upload_(upload) {
    upload->progress = progress;
    upload->record = record;
    upload->rate = rate;
    upload->fixedRate = fixedRate;
    upload->cancel = cancel;
  }
  ~CallbackScope() {
    upload_->progress = nullptr;
    upload_->record = nullptr;
    upload_->rate = nullptr;
    upload_->cancel = nullptr;
  }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;

 private:
  Upload* upload_;
};

void ClearText(char* buffer, int size) {
  if (buffer && size > 0) buffer[0] = '\0';
}

bool FitsText(const char* buffer, int size, const std::string& text) {
  return !buffer || text.size() < static_cast<size_t>(size);
}

void CopyText(char* buffer, const std::string& text) {
  if (buffer) std::memcpy(buffer, text.c_str(), text.size() + 1);
}

struct TextBuffers {
  char* field;
  int fieldSize;
  char* fileName;
  int fileNameSize;
  char* type;
  int typeSize;

  void Clear() const {
    ClearText(field, fieldSize);
    ClearText(fileName, fileNameSize);
    ClearText(type, typeSize);
  }
  bool Fit(const Upload& upload) const {
    return FitsText(field, fieldSize, upload.next.field) &&
           FitsText(fileName, fileNameSize, upload.nextStored) &&
           FitsText(type, typeSize, upload.next.contentType);
  }
  void Fill(const Upload& upload) const {
    CopyText(field, upload.next.field);
    CopyText(fileName, upload.nextStored);
    CopyText(type, upload.next.contentType);
  }
};

// Reads on to the next file part, then stores the fields read, after
// `beforeStore` (which may still refuse) agreed. The step calls' common end.
template <typename BeforeStore>
int AnnounceNext(MEROCGI_STATE* state, Upload* upload, const TextBuffers& texts,
                 BeforeStore beforeStore) {
  Fields fields;
  const int next = ReadToNextFile(upload, &fields);
  if (next < 0) return -1;
  if (next == 1 && !texts.Fit(*upload)) {
    return Refuse(upload, MERO_ERR_INVALID_ARGUMENT,
                  "a name of the next file part does not fit the caller's buffer");
  }
  mero::UniqueSzHash merged;
  if (!fields.empty() && !(merged = Merged(state->paramTable, fields)))
    return Refuse(upload, MERO_ERR_NO_MEMORY, "no memory for the form fields");
  if (!beforeStore()) return -1;
  if (merged) SwapIn(state, std::move(merged));
  if (next == 1) texts.Fill(*upload);
  return next;
}

int ReceiveFile(MEROCGI_STATE* state, const char* path, bool replace, ProgressFn progress,
                CGI_UPLOAD_PROGRESS* record, RateFn rate, long long fixedRate, CancelFn cancel,
                const TextBuffers& texts, unsigned long long* written) {
  Upload* upload = state ? state->upload : nullptr;
  if (!upload || upload->over || !upload->fileAnnounced)
    return Refuse(upload, MERO_ERR_INVALID_ARGUMENT, "a file call without a file part announced");
  upload->fileAnnounced = false;
  upload->fileBytes = 0;
  if (record) record->fileBytes = 0;
  struct WrittenReport {
    Upload* upload;
    unsigned long long* written;
    ~WrittenReport() {
      if (written) *written = upload->fileBytes;
    }
  } report{upload, written};
  CallbackScope scope(upload, progress, record, rate, fixedRate, cancel);

  mero::UniqueFd dirFd;
  merocgi::UploadFile file;
  std::string name;
  if (path) {
    const char* slash = std::strrchr(path, '/');
    const std::string dir = slash ? std::string(path, slash == path ? 1 : slash - path) : ".";
    name = slash ? slash + 1 : path;
    if (name.empty() || name == "." || name == "..")
      return Refuse(upload, MERO_ERR_INVALID_ARGUMENT, "a target path without a file name");
    dirFd.Reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dirFd.Get() < 0) return Refuse(upload, MERO_ERR_IO, "cannot open the target directory", errno);
    struct stat existing;
    if (!replace && fstatat(dirFd.Get(), name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0)
      return Refuse(upload, MERO_ERR_EXISTS, "the target file exists");
    if (!file.Create(dirFd.Get()))
      return Refuse(upload, MERO_ERR_IO, "cannot create a file in the target directory", errno);
  }
  FileSink sink(upload, path ? &file : nullptr);
  if (!upload->stream.ReadData(&sink)) {
    if (upload->stream.error()) return RefuseStream(upload);
    return Refuse(upload, MERO_ERR_IO, "writing an uploaded file failed", sink.savedErrno());
  }
  return AnnounceNext(state, upload, texts, [&] {
    if (!path) return true;
    if (!file.Commit(name.c_str(), replace)) {
      if (errno == EEXIST)
        Refuse(upload, MERO_ERR_EXISTS, "a file appeared at the target meanwhile");
      else
        Refuse(upload, MERO_ERR_IO, "cannot name an uploaded file", errno);
      return false;
    }
    if (record) ++record->files;
    return true;
  });
}

struct Received {
  std::string field;
  std::string stored;
  merocgi::UploadFile file;
};

int LoadUploadData(MEROCGI_STATE* state, const char* dir) {
  Upload* upload = Begin(state);
  if (!upload) return -1;
  mero::UniqueFd dirFd(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dirFd.Get() < 0) return Refuse(upload, MERO_ERR_IO, "cannot open the upload directory", errno);
  Fields fields;
  std::vector<Received> files;
  for (;;) {
    const int next = ReadToNextFile(upload, &fields);
    if (next < 0) return -1;
    if (next == 0) break;
    for (const Received& earlier : files)
      if (earlier.stored == upload->nextStored)
        return Refuse(upload, MERO_ERR_EXISTS, "two files of the body have the same name");
    if (files.size() == MERO_CGI_UPLOAD_MAX_FILES)
      return Refuse(upload, MERO_ERR_REQUEST_TOO_LARGE, "more files than the limit");
    files.push_back({upload->next.field, upload->nextStored, merocgi::UploadFile()});
    upload->fileAnnounced = false;
    merocgi::UploadFile& file = files.back().file;
    if (!file.Create(dirFd.Get()))
      return Refuse(upload, MERO_ERR_IO, "cannot create a file in the upload directory", errno);
    FileSink sink(upload, &file);
    if (!upload->stream.ReadData(&sink)) {
      if (upload->stream.error()) return RefuseStream(upload);
      return Refuse(upload, MERO_ERR_IO, "writing an uploaded file failed", sink.savedErrno());
    }
  }
  // Each file field names its files; they come after the text fields, so
  // they win over a text field of the same name.
  Fields fileFields;
  for (const Received& received : files) {
    auto named = fileFields.begin();
    while (named != fileFields.end() && named->first != received.field) ++named;
    if (named == fileFields.end())
      fileFields.emplace_back(received.field, received.stored);
    else
      named->second += "/" + received.stored;
  }
  fields.insert(fields.end(), fileFields.begin(), fileFields.end());
  mero::UniqueSzHash merged;
  if (!fields.empty() && !(merged = Merged(state->paramTable, fields)))
    return Refuse(upload, MERO_ERR_NO_MEMORY, "no memory for the form fields");
  for (Received& received : files) {
    if (!received.file.Commit(received.stored.c_str(), true))
      return Refuse(upload, MERO_ERR_IO, "cannot name an uploaded file", errno);
  }
  if (merged) SwapIn(state, std::move(merged));
  return static_cast<int>(files.size());
}

}  // namespace

namespace merocgi {

void FreeUpload(_tag_MEROCGI_UPLOAD* upload) { delete upload; }

}  // namespace merocgi

extern "C" {

int MeroCgiLoadUploadData(MEROCGI_STATE* state, const char* dir, int flags) {
  if (!state || !dir || flags != 0)
    return Refuse(nullptr, MERO_ERR_INVALID_ARGUMENT, "a null state or directory, or flags");
  try {
    return LoadUploadData(state, dir);
  } catch (...) {  // the standard containers' allocations
    return Refuse(state->upload, MERO_ERR_NO_MEMORY, "out of memory");
  }
}

int MeroCgiLoadUploadParams(MEROCGI_STATE* state, ProgressFn progress,
                            CGI_UPLOAD_PROGRESS* record, char* field, int fieldSize,
                            char* fileName, int fileNameSize, char* type, int typeSize) {
  const TextBuffers texts{field, fieldSize, fileName, fileNameSize, type, typeSize};
  texts.Clear();
  if (!state) return Refuse(nullptr, MERO_ERR_INVALID_ARGUMENT, "a null state");
  try {
    Upload* upload = Begin(state);
    if (!upload) return -1;
    CallbackScope scope(upload, progress, record, nullptr, 0, nullptr);
    if (record) *record = CGI_UPLOAD_PROGRESS{};
    return AnnounceNext(state, upload, texts, [] { return true; });
  } catch (...) {
    return Refuse(state->upload, MERO_ERR_NO_MEMORY, "out of memory");
  }
}

int MeroCgiLoadUploadFileBW(MEROCGI_STATE* state, const char* path, ProgressFn progress,
                            CGI_UPLOAD_PROGRESS* record, char* field, char* fileName, char* type,
                            const char* bandwidth) {
  const TextBuffers texts{field,    MERO_CGI_UPLOAD_TEXT_BYTES, fileName,
                          MERO_CGI_UPLOAD_TEXT_BYTES, type, MERO_CGI_UPLOAD_TEXT_BYTES};
  texts.Clear();
  Upload* upload = state ? state->upload : nullptr;
  long long limit = 0;
  for (const char* p = bandwidth ? bandwidth : ""; *p; ++p) {
    if (*p < '0' || *p > '9' || limit > (1LL << 50))
      return Refuse(upload, MERO_ERR_INVALID_ARGUMENT, "a bandwidth that is not a decimal number");
    limit = limit * 10 + (*p - '0');
  }
  try {
    return ReceiveFile(state, path, true, progress, record, nullptr, limit, nullptr, texts,
                       nullptr);
  } catch (...) {
    return Refuse(upload, MERO_ERR_NO_MEMORY, "out of memory");
  }
}

int MeroCgiLoadUploadFileNoTruncate(MEROCGI_STATE* state, const char* path, ProgressFn progress,
                                    CGI_UPLOAD_PROGRESS* record, RateFn rate, char* field,
                                    char* fileName, char* type, unsigned long long* written,
                                    CancelFn cancel) {
  const TextBuffers texts{field,    MERO_CGI_UPLOAD_TEXT_BYTES, fileName,
                          MERO_CGI_UPLOAD_TEXT_BYTES, type, MERO_CGI_UPLOAD_TEXT_BYTES};
  texts.Clear();
  if (written) *written = 0;
  try {
    return ReceiveFile(state, path, false, progress, record, rate, 0, cancel, texts, written);
  } catch (...) {
    return Refuse(state ? state->upload : nullptr, MERO_ERR_NO_MEMORY, "out of memory");
  }
}

}  // extern "C"
