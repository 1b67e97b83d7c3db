// The application side of one FastCGI connection carrying one request, as
// a request's child uses it: the request's parameters, its body (STDIN
// records) read on demand, its response written as STDOUT records, and the
// END_REQUEST. A connection carries exactly one request: the child closes
// it when the request is done, whatever the web server's keep-connection
// flag asked, and answers a second BEGIN_REQUEST on it as "cannot
// multiplex".
#ifndef MEROCGI_FCGI_FCGICONNECTION_H
#define MEROCGI_FCGI_FCGICONNECTION_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "ChildReport.h"
#include "FcgiProtocol.h"

namespace merocgi::fcgi {

// Most bytes of one request's parameter stream; a web server sends a few
// KiB (the CGI variables and the request headers).
constexpr size_t kMaxParamsBytes = 256 * 1024;
// What is read of a body the handler left unread, after the answer, before
// the connection is closed.
constexpr size_t kDrainBytes = 8 * 1024 * 1024;
constexpr int kDrainSeconds = 5;
// How long the request's parameters may take to arrive.
constexpr int kRequestHeadSeconds = 30;

class FcgiConnection {
 public:
  // `fd` is the connected socket (not owned); `report` may be null;
  // `maxConnections` is what a GET_VALUES query is told.
  FcgiConnection(int fd, ChildReport* report, int maxConnections);

  enum class Start {
    kReady,     // parameters delivered; the body and the response follow
    kAnswered,  // the request was refused with an answer (unknown role, bad parameters)
    kBroken,    // no request: the stream ended or was not FastCGI
  };
  // Reads management records, the BEGIN_REQUEST and the whole parameter
  // stream, then calls `param` for each pair in order.
  Start ReadRequest(const std::function<void(std::string_view, std::string_view)>& param);

  // Body bytes from STDIN records: > 0 read, 0 at the body's end (also when
  // the web server aborted the request or the stream ended early), -1 when
  // reading failed (errno).
  ssize_t ReadBody(char* into, size_t size);
  // The response as STDOUT records: 0, or -1 when the connection failed.
  int WriteStdout(const char* bytes, size_t size);
  // The empty STDOUT record and the END_REQUEST; once only.
  bool End(uint32_t appStatus);
  // A complete answer of the connection's own (a status and a text body),
  // then End; for requests refused before any handler runs.
  bool Refuse(const char* status, const char* text);

  // For the server, once a request's child has ended without finishing:
  // a refusal when nothing of the answer went out, else only the end.
  // Never blocks.
  static bool Conclude(int fd, uint16_t requestId, bool somethingWritten, const char* status,
                       const char* text);

 private:
  Start ReadRequestHead(const std::function<void(std::string_view, std::string_view)>& param);
  bool ReadExact(void* into, size_t size);
  ssize_t ReadSome(char* into, size_t size);
  bool Skip(size_t size);
  bool ReadHeader(RecordHeader* header);
  bool ReadContent(const RecordHeader& header, std::string* content);
  // A record that belongs to no request or another one; false on failure.
  bool HandleOther(const RecordHeader& header);
  bool Send(uint8_t type, uint16_t requestId, const char* bytes, size_t size);
  bool SendAll(const iovec* parts, int count);
  void Report(OutputState state);
  void PeerGone();
  void DrainBody();

  int fd_;
  ChildReport* report_;
  int maxConnections_;
  pid_t owner_;
  uint16_t requestId_ = 0;
  size_t stdinLeft_ = 0;  // of the current STDIN record's content
  size_t stdinPadding_ = 0;
  bool bodyEnded_ = false;
  bool ended_ = false;
  char in_[16 * 1024];
  size_t inStart_ = 0;
  size_t inEnd_ = 0;
};

}  // namespace merocgi::fcgi

#endif  // MEROCGI_FCGI_FCGICONNECTION_H
