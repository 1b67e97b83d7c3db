// What a request's child tells the server about its answer, in memory the
// two share. The server reads it only after the child has ended, to know
// whether the request still needs an answer and under which id; a child
// may write anything here, so the server trusts none of it beyond that.
#ifndef MEROCGI_FCGI_CHILDREPORT_H
#define MEROCGI_FCGI_CHILDREPORT_H

#include <atomic>
#include <cstdint>

namespace merocgi::fcgi {

enum OutputState : uint32_t {
  kNothingWritten = 0,
  kWriting = 1,  // a record is on its way: the stream may end inside it
  kWritten = 2,  // whole records only
  kEnded = 3,    // the request's last record went out
  kPeerGone = 4, // the web server closed the connection: nothing more to send
};

struct ChildReport {
  std::atomic<uint32_t> requestId{0};  // 0 until the child read its BEGIN_REQUEST
  std::atomic<uint32_t> output{kNothingWritten};
};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared between processes");

}  // namespace merocgi::fcgi

#endif  // MEROCGI_FCGI_CHILDREPORT_H
