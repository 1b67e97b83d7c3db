// Streaming multipart framing (RFC 2046 section 5.1.1, as merocgi.h
// narrows it). Invariant of the buffer: every byte before pos_ has been
// handed on; of the bytes read but not handed on, all but the last
// needle-length ones are known not to start a delimiter once a search
// found none, so only those few (and less than a page more) are kept back,
// and moved to the front, when more is read.
#include "MultipartStream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "merocgi.h"
#include "mero_request_io.h"

namespace merocgi {
namespace {

constexpr size_t kPageBytes = 4096;

}  // namespace

ssize_t BodySource::Read(char* into, size_t size) {
  if (received_ == length_) return 0;
  if (size > length_ - received_) size = static_cast<size_t>(length_ - received_);
  const ssize_t got = MeroCgiRequestBodyRead(into, size);
  if (got > 0) {
    received_ += static_cast<unsigned long long>(got);
    return got;
  }
  error_ = got == 0 ? MERO_ERR_REQUEST_INCOMPLETE : MERO_ERR_IO;
  return -1;
}

MultipartStream::MultipartStream(BodySource* body, const std::string& boundary)
    : body_(body),
      needle_("\n--" + boundary),
      buffer_(static_cast<char*>(std::malloc(MERO_CGI_UPLOAD_BUFFER_BYTES))),
      capacity_(MERO_CGI_UPLOAD_BUFFER_BYTES) {
  if (!buffer_) return;
  // The first delimiter may open the body: it then follows a line end as
  // every later one does.
  buffer_.get()[0] = '\n';
  end_ = 1;
  inPart_ = true;
}

bool MultipartStream::Fail(int error, const char* why) {
  error_ = error;
  why_ = why;
  return false;
}

// Keeps [pos_, end_), moved to the front, and reads more after it. False
// when the body has no more bytes or failed (error_ set), or the observer
// stopped it.
bool MultipartStream::Fill() {
  char* buffer = buffer_.get();
  if (pos_ > 0) {
    std::memmove(buffer, buffer + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
  }
  const ssize_t got = body_->Read(buffer + end_, capacity_ - end_);
  if (got == 0) return Fail(MERO_ERR_REQUEST_MALFORMED, "the body ends before its closing delimiter");
  if (got < 0) {
    return Fail(body_->error(), body_->error() == MERO_ERR_IO ? "reading the body failed"
                                                              : "the body ended before CONTENT_LENGTH");
  }
  end_ += static_cast<size_t>(got);
  if (observer_ && !observer_->AfterRead()) return Fail(MERO_ERR_CANCELLED, "cancelled");
  return true;
}

// What follows "\n--boundary" when it ends at `at`.
MultipartStream::Tail MultipartStream::DelimiterTail(size_t at, size_t* lineEnd) const {
  const char* buffer = buffer_.get();
  if (at < end_ && buffer[at] == '-') {
    if (at + 1 == end_) return Tail::kNeedMore;
    if (buffer[at + 1] == '-') return Tail::kClose;
  }
  size_t padding = 0;
  for (;; ++at, ++padding) {
    if (at == end_) return Tail::kNeedMore;
    if (buffer[at] != ' ' && buffer[at] != '\t') break;
    if (padding == MERO_CGI_UPLOAD_MAX_PADDING) return Tail::kNotDelimiter;
  }
  if (buffer[at] == '\r') {
    if (at + 1 == end_) return Tail::kNeedMore;
    ++at;
  }
  if (buffer[at] != '\n') return Tail::kNotDelimiter;
  *lineEnd = at + 1;
  return Tail::kOpen;
}

bool MultipartStream::ReadData(DataSink* sink) {
  if (error_ || !inPart_) return false;
  const size_t needleSize = needle_.size();
  size_t from = pos_;
  for (;;) {
    const char* buffer = buffer_.get();
    const void* hit = memmem(buffer + from, end_ - from, needle_.data(), needleSize);
    if (hit) {
      const size_t at = static_cast<size_t>(static_cast<const char*>(hit) - buffer);
      size_t lineEnd = 0;
      const Tail tail = DelimiterTail(at + needleSize, &lineEnd);
      if (tail == Tail::kNotDelimiter) {
        from = at + 1;
        continue;
      }
      if (tail == Tail::kNeedMore) {
        // Hand on what precedes the candidate (but the '\r' it may own),
        // so that the buffer has room for the rest of it.
        if (at > pos_ + 1) {
          if (sink && !sink->Take(buffer + pos_, at - 1 - pos_)) return false;
          partBytes_ += at - 1 - pos_;
          pos_ = at - 1;
        }
        const size_t kept = at - pos_;
        if (!Fill()) return false;
        from = pos_ + kept;
        continue;
      }
      size_t dataEnd = at;
      if (dataEnd > pos_ && buffer[dataEnd - 1] == '\r') --dataEnd;
      if (dataEnd > pos_ && sink && !sink->Take(buffer + pos_, dataEnd - pos_)) return false;
      pos_ = at;
      inPart_ = false;
      return true;
    }
    // No delimiter starts before the last needleSize - 1 bytes; one more
    // is kept for the '\r' that may precede it. What is handed on ends at
    // a page boundary of the part: a write that ends inside a fresh page
    // makes the kernel zero the rest of it, which the next write then
    // overwrites.
    size_t safe = end_ - pos_ > needleSize ? end_ - needleSize - pos_ : 0;
    safe -= std::min(safe, static_cast<size_t>((partBytes_ + safe) % kPageBytes));
    if (safe > 0) {
      if (sink && !sink->Take(buffer + pos_, safe)) return false;
      pos_ += safe;
      partBytes_ += safe;
    }
    if (!Fill()) return false;
    from = pos_;
  }
}

MultipartStream::Next MultipartStream::NextPart(std::string_view* headers) {
  if (error_ || ended_) return ended_ && !error_ ? Next::kEnd : Next::kFailed;
  if (inPart_ && !ReadData(nullptr)) return Next::kFailed;
  // pos_ is at the delimiter's '\n', and its whole line is in the buffer.
  size_t lineEnd = 0;
  if (DelimiterTail(pos_ + needle_.size(), &lineEnd) == Tail::kClose) {
    ended_ = true;
    return Next::kEnd;
  }
  pos_ = lineEnd;
  // The header block: lines up to the first empty one, all in the buffer.
  for (size_t lineStart = pos_;;) {
    const char* buffer = buffer_.get();
    const void* newline = std::memchr(buffer + lineStart, '\n', end_ - lineStart);
    if (!newline) {
      if (end_ - pos_ >= MERO_CGI_UPLOAD_MAX_PART_HEADER_BYTES) {
        Fail(MERO_ERR_REQUEST_TOO_LARGE, "part headers over the size limit");
        return Next::kFailed;
      }
      const size_t offset = lineStart - pos_;
      if (!Fill()) return Next::kFailed;
      lineStart = pos_ + offset;
      continue;
    }
    const size_t next = static_cast<size_t>(static_cast<const char*>(newline) - buffer) + 1;
    if (next - pos_ > MERO_CGI_UPLOAD_MAX_PART_HEADER_BYTES) {
      Fail(MERO_ERR_REQUEST_TOO_LARGE, "part headers over the size limit");
      return Next::kFailed;
    }
    const size_t lineBytes = next - lineStart;
    if (lineBytes == 1 || (lineBytes == 2 && buffer[lineStart] == '\r')) {
      *headers = std::string_view(buffer + pos_, lineStart - pos_);
      pos_ = next;
      inPart_ = true;
      partBytes_ = 0;
      return Next::kPart;
    }
    lineStart = next;
  }
}

}  // namespace merocgi
