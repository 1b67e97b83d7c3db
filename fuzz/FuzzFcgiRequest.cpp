// Everything a web server sends on one connection, read as a request's child
// reads it: the request, its whole body in reads of varying size, a small
// response and the end. Properties: the parameters and the body are the ones
// an independent reading of the records finds, parameters only from a whole,
// well-formed stream; ReadBody never returns more than asked; what goes back
// is whole version-1 records, the response unchanged, an answered request
// closed by its END_REQUEST. Inputs stay far below kMaxParamsBytes.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "fcgi/FcgiConnection.h"

namespace {

using namespace merocgi::fcgi;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using Start = FcgiConnection::Start;

constexpr size_t kMaxInput = 16 * 1024;
constexpr std::string_view kResponse = "Status: 200 OK\r\n\r\nfine";

struct Record {
  int type, id;
  std::string_view content;  // cut short where the input ends
  bool whole;                // content and padding all there
};

bool NextRecord(std::string_view in, size_t* at, Record* r) {
  if (*at + 8 > in.size() || in[*at] != 1) return false;
  const auto b = [&](size_t i) { return size_t(static_cast<unsigned char>(in[*at + i])); };
  const size_t length = b(4) << 8 | b(5), padding = b(6);
  *r = {int(b(1)), int(b(2) << 8 | b(3)), in.substr(*at + 8, length),
        in.size() - *at - 8 >= length + padding};
  *at += 8 + length + padding;
  return true;
}

// Pairs are read by ForEachPair, which the unit test judges.
bool DecodePairs(std::string_view s, Pairs* pairs) {
  return ForEachPair(s, [&](auto n, auto v) { return pairs->emplace_back(n, v), true; });
}

// A GET_VALUES query the connection cannot read breaks the connection.
bool BadQuery(const Record& r) {
  Pairs ignored;
  return r.id == 0 && r.type == kGetValues && !DecodePairs(r.content, &ignored);
}

struct Expected {
  Start start = Start::kBroken;
  int id = 0;
  Pairs params;
  std::string body;
};

Expected ReadWhole(std::string_view in) {
  Expected e;
  size_t at = 0;
  Record r{};
  std::string params;
  for (bool more = true; more;) {
    if (!NextRecord(in, &at, &r)) return e;
    if (e.id != 0 && r.id == e.id && r.type == kAbortRequest) return e.start = Start::kAnswered, e;
    if (!r.whole || BadQuery(r)) return e;
    if (e.id == 0 && r.type == kBeginRequest && r.id != 0) {
      if (r.content.size() != 8) return e;
      e.id = r.id;
      if (r.content.substr(0, 2) != std::string_view("\0\1", 2))
        return e.start = Start::kAnswered, e;
    } else if (r.id == e.id && e.id != 0 && r.type == kParams) {
      more = !r.content.empty();
      params += r.content;
    }
  }
  e.start = DecodePairs(params, &e.params) ? Start::kReady : Start::kAnswered;
  if (e.start != Start::kReady) return e.params.clear(), e;
  while (NextRecord(in, &at, &r)) {
    const bool stdinRecord = r.id == e.id && r.type == kStdin;
    if (stdinRecord) e.body += r.content;
    if (!r.whole || BadQuery(r) || (stdinRecord && r.content.empty()) ||
        (r.id == e.id && r.type == kAbortRequest))
      break;
  }
  return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  FUZZ_CHECK(send(ends[1], input.data(), input.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(size));
  shutdown(ends[1], SHUT_WR);
  std::string out;  // drained as it comes: many small answers would fill the socket
  std::thread reader([&out, fd = ends[1]] {
    char chunk[4096];
    for (ssize_t got; (got = read(fd, chunk, sizeof chunk)) > 0;)
      out.append(chunk, static_cast<size_t>(got));
  });

  ChildReport report;
  FcgiConnection connection(ends[0], &report, 4);
  Pairs params;
  const Start start = connection.ReadRequest(
      [&](std::string_view name, std::string_view value) { params.emplace_back(name, value); });
  std::string body;
  if (start == Start::kReady) {
    static const size_t sizes[] = {1, 5, 100, 17 * 1024};  // the last reads past the buffer
    for (size_t i = 0;; ++i) {
      const size_t asked = sizes[i % 4];
      std::vector<char> into(asked);  // exactly: writing past it is an ASan report
      const ssize_t got = connection.ReadBody(into.data(), asked);
      FUZZ_CHECK(got <= static_cast<ssize_t>(asked));
      if (got <= 0) break;
      body.append(into.data(), static_cast<size_t>(got));
    }
    FUZZ_CHECK(connection.WriteStdout(kResponse.data(), kResponse.size()) == 0);
    FUZZ_CHECK(connection.End(0));
  }
  close(ends[0]);
  reader.join();
  close(ends[1]);

  const Expected expected = ReadWhole(input);
  FUZZ_CHECK(start == expected.start);
  FUZZ_CHECK(params == expected.params);
  FUZZ_CHECK(body == expected.body);
  FUZZ_CHECK(int(report.requestId) == expected.id);

  size_t at = 0;
  Record r, last{};
  std::string response;
  while (NextRecord(out, &at, &r)) {
    FUZZ_CHECK(r.whole);
    FUZZ_CHECK(r.type == kStdout || r.type == kEndRequest || r.type == kGetValuesResult ||
               r.type == kUnknownType);
    FUZZ_CHECK(r.type != kEndRequest || r.content.size() == 8);
    if (r.type == kStdout && r.id == expected.id) response += r.content;
    last = r;
  }
  FUZZ_CHECK(at == out.size());
  if (start == Start::kReady) FUZZ_CHECK(response == kResponse);
  if (start == Start::kBroken) FUZZ_CHECK(response.empty());
  if (start != Start::kBroken) {
    FUZZ_CHECK(last.type == kEndRequest && last.id == expected.id);
    FUZZ_CHECK(report.output == kEnded);
  }
  return 0;
}
