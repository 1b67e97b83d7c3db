#include "FcgiConnection.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "../CgiLog.h"

namespace merocgi::fcgi {

FcgiConnection::FcgiConnection(int fd, ChildReport* report, int maxConnections)
    : fd_(fd), report_(report), maxConnections_(maxConnections), owner_(getpid()) {}

// Only the request's own process reports: a process its handler forked
// shares the page, which the server hands to another request later.
void FcgiConnection::Report(OutputState state) {
  if (report_ && getpid() == owner_) report_->output.store(state, std::memory_order_release);
}

// A web server that stopped reading (its client went away) ends the
// answer; the handler's further output is dropped without a signal.
void FcgiConnection::PeerGone() {
  ended_ = true;
  Report(kPeerGone);
}

ssize_t FcgiConnection::ReadSome(char* into, size_t size) {
  if (inStart_ == inEnd_) {
    inStart_ = inEnd_ = 0;
    // A large read goes straight to its destination: the body of an upload
    // is copied once, not twice.
    const bool direct = size >= sizeof in_;
    ssize_t got;
    do got = ::read(fd_, direct ? into : in_, direct ? size : sizeof in_);
    while (got < 0 && errno == EINTR);
    if (got <= 0 || direct) return got;
    inEnd_ = static_cast<size_t>(got);
  }
  const size_t taken = std::min(size, inEnd_ - inStart_);
  std::memcpy(into, in_ + inStart_, taken);
  inStart_ += taken;
  return static_cast<ssize_t>(taken);
}

bool FcgiConnection::ReadExact(void* into, size_t size) {
  auto* at = static_cast<char*>(into);
  while (size > 0) {
    const ssize_t got = ReadSome(at, size);
    if (got <= 0) return false;
    at += got;
    size -= static_cast<size_t>(got);
  }
  return true;
}

bool FcgiConnection::Skip(size_t size) {
  char discard[256];
  while (size > 0) {
    const size_t step = std::min(size, sizeof discard);
    if (!ReadExact(discard, step)) return false;
    size -= step;
  }
  return true;
}

bool FcgiConnection::ReadHeader(RecordHeader* header) {
  unsigned char bytes[kHeaderBytes];
  if (!ReadExact(bytes, sizeof bytes)) return false;
  if (DecodeHeader(bytes, header)) return true;
  MEROCGI_LOG("refused FastCGI connection: record of version %u", bytes[0]);
  return false;
}

bool FcgiConnection::ReadContent(const RecordHeader& header, std::string* content) {
  content->resize(header.contentLength);
  return ReadExact(content->data(), content->size()) && Skip(header.paddingLength);
}

bool FcgiConnection::SendAll(const iovec* parts, int count) {
  iovec pending[4];
  std::copy(parts, parts + count, pending);
  iovec* next = pending;
  while (count > 0) {
    const ssize_t sent = ::writev(fd_, next, count);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    auto left = static_cast<size_t>(sent);
    while (count > 0 && left >= next->iov_len) {
      left -= next->iov_len;
      ++next;
      --count;
    }
    if (count > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + left;
      next->iov_len -= left;
    }
  }
  return true;
}

bool FcgiConnection::Send(uint8_t type, uint16_t requestId, const char* bytes, size_t size) {
  unsigned char header[kHeaderBytes];
  EncodeHeader({type, requestId, static_cast<uint16_t>(size), 0}, header);
  const iovec parts[] = {{header, sizeof header}, {const_cast<char*>(bytes), size}};
  return SendAll(parts, size > 0 ? 2 : 1);
}

bool FcgiConnection::HandleOther(const RecordHeader& header) {
  std::string content;
  if (!ReadContent(header, &content)) return false;
  if (ended_) return true;  // after the END_REQUEST the connection only listens
  if (header.requestId == 0 && header.type == kGetValues) {
    std::string answer;
    const std::string limit = std::to_string(maxConnections_);
    const bool wellFormed = ForEachPair(content, [&](std::string_view name, std::string_view) {
      if (name == "FCGI_MAX_CONNS" || name == "FCGI_MAX_REQS") AppendPair(answer, name, limit);
      if (name == "FCGI_MPXS_CONNS") AppendPair(answer, name, "0");
      return true;
    });
    return wellFormed && answer.size() <= kMaxContentBytes &&
           Send(kGetValuesResult, 0, answer.data(), answer.size());
  }
  if (header.requestId == 0) {
    const char unknown[8] = {static_cast<char>(header.type)};
    return Send(kUnknownType, 0, unknown, sizeof unknown);
  }
  // A repeated BEGIN_REQUEST of this request is ignored: answering it
  // would end the request twice.
  if (header.type == kBeginRequest && header.requestId != requestId_) {  // another request
    unsigned char end[8];
    EncodeEndRequest(0, kCannotMultiplex, end);
    return Send(kEndRequest, header.requestId, reinterpret_cast<const char*>(end), sizeof end);
  }
  return true;  // a record of another request, or one a responder never gets
}

FcgiConnection::Start FcgiConnection::ReadRequest(
    const std::function<void(std::string_view, std::string_view)>& param) {
  // A peer that sends half a request and waits must not hold a request
  // process for the whole request time limit; the body may then take its
  // time (an upload from a slow client).
  const timeval patience{kRequestHeadSeconds, 0};
  const timeval forever{0, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const Start start = ReadRequestHead(param);
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &forever, sizeof forever);
  return start;
}

FcgiConnection::Start FcgiConnection::ReadRequestHead(
    const std::function<void(std::string_view, std::string_view)>& param) {
  std::string params;
  for (;;) {
    RecordHeader header;
    if (!ReadHeader(&header)) return Start::kBroken;
    if (requestId_ == 0 && header.type == kBeginRequest && header.requestId != 0) {
      std::string body;
      uint16_t role = 0;
      uint8_t flags = 0;
      if (!ReadContent(header, &body) || !DecodeBeginRequest(body, &role, &flags)) return Start::kBroken;
      requestId_ = header.requestId;
      if (report_) report_->requestId.store(requestId_, std::memory_order_release);
      if (role == kRoleResponder) continue;
      MEROCGI_LOG("refused FastCGI request: role %u, not a responder", role);
      unsigned char end[8];
      EncodeEndRequest(0, kUnknownRole, end);
      ended_ = true;
      Send(kEndRequest, requestId_, reinterpret_cast<const char*>(end), sizeof end);
      Report(kEnded);
      return Start::kAnswered;
    }
    if (requestId_ != 0 && header.requestId == requestId_ && header.type == kParams) {
      if (header.contentLength == 0) {
        // Its padding too, or the body's first header would be read from it.
        if (!Skip(header.paddingLength)) return Start::kBroken;
        break;
      }
      if (params.size() + header.contentLength > kMaxParamsBytes) {
        MEROCGI_LOG("refused FastCGI request: parameters over %zu bytes", kMaxParamsBytes);
        Refuse("431 Request Header Fields Too Large", "The request's headers are too large.\n");
        return Start::kAnswered;
      }
      std::string content;
      if (!ReadContent(header, &content)) return Start::kBroken;
      params += content;
      continue;
    }
    if (requestId_ != 0 && header.requestId == requestId_ && header.type == kAbortRequest) {
      Skip(header.contentLength + header.paddingLength);
      End(0);
      return Start::kAnswered;
    }
    if (!HandleOther(header)) return Start::kBroken;
  }
  // Checked whole before any pair is used: a request is run on all of its
  // parameters or on none.
  if (!ForEachPair(params, [](std::string_view, std::string_view) { return true; })) {
    MEROCGI_LOG("refused FastCGI request: its parameters are not name-value pairs");
    Refuse("500 Internal Server Error", "The web server sent parameters that could not be read.\n");
    return Start::kAnswered;
  }
  ForEachPair(params, [&](std::string_view name, std::string_view value) {
    param(name, value);
    return true;
  });
  return Start::kReady;
}

ssize_t FcgiConnection::ReadBody(char* into, size_t size) {
  if (bodyEnded_ || size == 0) return 0;
  while (stdinLeft_ == 0) {
    RecordHeader header;
    if ((stdinPadding_ > 0 && !Skip(stdinPadding_)) || !ReadHeader(&header)) {
      bodyEnded_ = true;
      return 0;
    }
    stdinPadding_ = 0;
    if (header.requestId == requestId_ && header.type == kStdin) {
      if (header.contentLength == 0) {
        bodyEnded_ = true;
        Skip(header.paddingLength);
        return 0;
      }
      stdinLeft_ = header.contentLength;
      stdinPadding_ = header.paddingLength;
    } else if (header.requestId == requestId_ && header.type == kAbortRequest) {
      bodyEnded_ = true;
      return 0;
    } else if (!HandleOther(header)) {
      bodyEnded_ = true;
      return 0;
    }
  }
  const ssize_t got = ReadSome(into, std::min(size, stdinLeft_));
  if (got <= 0) {
    bodyEnded_ = true;
    return got;
  }
  stdinLeft_ -= static_cast<size_t>(got);
  return got;
}

int FcgiConnection::WriteStdout(const char* bytes, size_t size) {
  if (ended_) return -1;
  while (size > 0) {
    const size_t step = std::min(size, kMaxContentBytes);
    Report(kWriting);
    if (!Send(kStdout, requestId_, bytes, step)) {
      PeerGone();
      return -1;
    }
    Report(kWritten);
    bytes += step;
    size -= step;
  }
  return 0;
}

bool FcgiConnection::End(uint32_t appStatus) {
  if (ended_ || requestId_ == 0) return false;
  ended_ = true;
  unsigned char closing[kHeaderBytes], endHeader[kHeaderBytes], endBody[8];
  EncodeHeader({kStdout, requestId_, 0, 0}, closing);
  EncodeHeader({kEndRequest, requestId_, sizeof endBody, 0}, endHeader);
  EncodeEndRequest(appStatus, kRequestComplete, endBody);
  const iovec parts[] = {{closing, sizeof closing}, {endHeader, sizeof endHeader}, {endBody, sizeof endBody}};
  Report(kWriting);
  if (!SendAll(parts, 3)) {
    PeerGone();
    return false;
  }
  Report(kEnded);
  DrainBody();
  return true;
}

// A socket closed with bytes still unread resets the connection, and a
// reset can make the web server lose the answer it has not read yet: the
// rest of the body (at least the STDIN record that ends it) is read first,
// within bounds, since the web server stops sending once it has the answer.
void FcgiConnection::DrainBody() {
  if (bodyEnded_) return;
  const timeval patience{kDrainSeconds, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  char discard[16 * 1024];
  size_t drained = 0;
  for (ssize_t got; drained < kDrainBytes && (got = ReadBody(discard, sizeof discard)) > 0;)
    drained += static_cast<size_t>(got);
}

bool FcgiConnection::Refuse(const char* status, const char* text) {
  const std::string answer = std::string("Status: ") + status +
                             "\r\nContent-type: text/plain; charset=\"UTF-8\"\r\n\r\n" + text;
  return WriteStdout(answer.data(), answer.size()) == 0 && End(0);
}

bool FcgiConnection::Conclude(int fd, uint16_t requestId, bool somethingWritten,
                              const char* status, const char* text) {
  if (requestId == 0) return false;
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
  FcgiConnection connection(fd, nullptr, 0);
  connection.requestId_ = requestId;
  connection.bodyEnded_ = true;  // the server reads nothing of a request, not even to drain it
  return somethingWritten ? connection.End(1) : connection.Refuse(status, text);
}

}  // namespace merocgi::fcgi
