// The framing of a multipart body read as a stream: delimiters, part header
// blocks and part data, in one fixed buffer whatever the body's size. Data
// goes to a sink piece by piece as it is read; only the bytes that could
// still begin a delimiter are held back. The delimiter rules are those of
// merocgi.h ("a delimiter is a line ...").
#ifndef MEROCGI_UPLOAD_MULTIPARTSTREAM_H
#define MEROCGI_UPLOAD_MULTIPARTSTREAM_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "mero_owners.h"

namespace merocgi {

// The request body, read through the process's request I/O, to exactly
// `length` bytes.
class BodySource {
 public:
  explicit BodySource(unsigned long long length) : length_(length) {}
  // > 0 bytes read; 0 when all `length` bytes were read; -1 on failure, with
  // error() MERO_ERR_REQUEST_INCOMPLETE (input ended early) or MERO_ERR_IO.
  ssize_t Read(char* into, size_t size);
  unsigned long long received() const { return received_; }
  unsigned long long length() const { return length_; }
  int error() const { return error_; }

 private:
  unsigned long long length_;
  unsigned long long received_ = 0;
  int error_ = 0;
};

// Where a part's data goes. Take answers false to stop reading (the sink
// keeps its own reason).
class DataSink {
 public:
  virtual bool Take(const char* data, size_t size) = 0;

 protected:
  ~DataSink() = default;
};

// Told after every read from the body; answers false to stop reading
// (MERO_ERR_CANCELLED).
class ReadObserver {
 public:
  virtual bool AfterRead() = 0;

 protected:
  ~ReadObserver() = default;
};

class MultipartStream {
 public:
  MultipartStream(BodySource* body, const std::string& boundary);
  MultipartStream(const MultipartStream&) = delete;
  MultipartStream& operator=(const MultipartStream&) = delete;

  // False when the buffer could not be allocated.
  bool ok() const { return buffer_ != nullptr; }
  void SetObserver(ReadObserver* observer) { observer_ = observer; }

  enum class Next { kPart, kEnd, kFailed };
  // Skips what is left of the current part (or the preamble), then reads
  // the delimiter and the next part's header block, which *headers views
  // (its lines with their line ends, not the empty line) until the next
  // call. kEnd after the closing delimiter; kFailed with error() set.
  Next NextPart(std::string_view* headers);

  // Gives the current part's data to `sink` (null: drops it). True at the
  // part's end; false when the body failed (error() set) or the sink
  // refused (error() 0).
  bool ReadData(DataSink* sink);

  // MERO_ERR_* of the failure, 0 when the sink or the observer stopped it.
  int error() const { return error_; }
  // What failed, for a log line (static text).
  const char* why() const { return why_; }

 private:
  enum class Tail { kOpen, kClose, kNotDelimiter, kNeedMore };
  Tail DelimiterTail(size_t at, size_t* lineEnd) const;
  bool Fill();
  bool Fail(int error, const char* why);

  BodySource* body_;
  std::string needle_;  // "\n--" boundary
  mero::UniqueCText buffer_;
  size_t capacity_;
  size_t pos_ = 0;  // first unconsumed byte
  size_t end_ = 0;  // end of the bytes read
  bool inPart_ = false;  // at data (of the preamble or of a part), not at a delimiter
  unsigned long long partBytes_ = 0;  // of the current part, handed on
  bool ended_ = false;
  ReadObserver* observer_ = nullptr;
  int error_ = 0;
  const char* why_ = "";
};

}  // namespace merocgi

#endif  // MEROCGI_UPLOAD_MULTIPARTSTREAM_H
