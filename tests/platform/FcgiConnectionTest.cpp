// The FastCGI connection as a web server sees it, where the fuzz target
// (whose corpus replay covers padded bodies) cannot judge: long lengths,
// the answers themselves, large responses and the server's own conclusion.
// Records are made and read here by hand.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <string>
#include <thread>

#include "fcgi/FcgiChild.h"
#include "fcgi/FcgiConnection.h"

namespace {

using merocgi::fcgi::FcgiConnection;
using Start = FcgiConnection::Start;

std::string Rec(int type, int id, const std::string& content, int padding = 0) {
  const size_t n = content.size();
  const char header[] = {
      1, char(type), char(id >> 8), char(id), char(n >> 8), char(n), char(padding), 0};
  return std::string(header, 8) + content + std::string(padding, 'p');
}
const std::string kBegin = Rec(1, 1, std::string("\0\1\0\0\0\0\0\0", 8));
const std::string kNoParams = kBegin + Rec(4, 1, "");

// What `serve` makes the connection write while the peer sends `input`.
template <typename Serve>
std::string Exchange(const std::string& input, Serve serve) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  std::thread writer([&] {
    send(ends[1], input.data(), input.size(), MSG_NOSIGNAL);
    shutdown(ends[1], SHUT_WR);
  });
  std::string out;
  std::thread reader([&] {
    char chunk[65536];
    for (ssize_t got; (got = read(ends[1], chunk, sizeof chunk)) > 0;)
      out.append(chunk, size_t(got));
  });
  serve(ends[0]);
  close(ends[0]);  // also ends a send the connection stopped reading
  writer.join();
  reader.join();
  close(ends[1]);
  return out;
}

// A line per record: STDOUT's status line or else its length, END_REQUEST's
// app and protocol status, GET_VALUES_RESULT's pairs; STDOUT's bytes go to
// `written`.
std::string Summary(const std::string& out, std::string* written = nullptr) {
  std::string lines;
  for (size_t at = 0; at + 8 <= out.size();) {
    const auto b = [&](size_t i) { return size_t(static_cast<unsigned char>(out[at + i])); };
    const size_t type = b(1);
    const std::string c = out.substr(at + 8, b(4) << 8 | b(5)),
                      id = std::to_string(b(2) << 8 | b(3));
    at += 8 + c.size() + b(6);
    if (type == 6 && written) *written += c;
    const bool status = c.rfind("Status: ", 0) == 0;
    if (type == 6)
      lines += "out" + id + " " + (status ? c.substr(0, c.find('\r')) : std::to_string(c.size()));
    if (type == 3) lines += "end" + id + " " + std::to_string(c[3]) + "/" + std::to_string(c[4]);
    for (size_t p = 0; type == 10 && p + 2 <= c.size(); p += 2 + size_t(c[p] + c[p + 1]))
      lines += c.substr(p + 2, size_t(c[p])) + "=" +
               c.substr(p + 2 + size_t(c[p]), size_t(c[p + 1])) + " ";
    lines += "\n";
  }
  return lines;
}

TEST(FcgiConnection, PairsRoundTripWithFourByteLengths) {
  std::string stream;
  merocgi::fcgi::AppendPair(stream, "n", std::string(200, 'v'));
  EXPECT_EQ(stream.substr(0, 5), std::string("\x01\x80\x00\x00\xc8", 5));
  for (size_t length : {0, 127, 128, 70000, 16777300}) {
    SCOPED_TRACE(length);
    std::string pairs, read;
    merocgi::fcgi::AppendPair(pairs, std::string(length, 'n'), "v");
    merocgi::fcgi::AppendPair(pairs, "N", std::string(length, 'x'));
    EXPECT_TRUE(merocgi::fcgi::ForEachPair(pairs, [&](auto n, auto v) {
      return read += std::string(n) + "=" + std::string(v) + ";", true;
    }));
    EXPECT_EQ(read, std::string(length, 'n') + "=v;N=" + std::string(length, 'x') + ";");
  }
}

TEST(FcgiConnection, AnswersQueriesAndRefusals) {
  std::string tooMuch = kBegin;
  for (int i = 0; i < 5; ++i) tooMuch += Rec(4, 1, std::string(60000, 'p'));
  const std::string role2 = Rec(1, 1, std::string("\0\2\0\0\0\0\0\0", 8));
  const struct { std::string input; Start start; std::string summary; } cases[] = {
      {Rec(9, 0, std::string("\x0e\0FCGI_MAX_CONNS\x0f\0FCGI_MPXS_CONNS", 33)) + kNoParams,
       Start::kReady, "FCGI_MAX_CONNS=7 FCGI_MPXS_CONNS=0 \n"},
      {role2, Start::kAnswered, "end1 0/3\n"},
      {kBegin + Rec(1, 2, kBegin.substr(8)) + Rec(4, 1, ""), Start::kReady, "end2 0/1\n"},
      {tooMuch, Start::kAnswered,
       "out1 Status: 431 Request Header Fields Too Large\nout1 0\nend1 0/0\n"},
      {kBegin + Rec(4, 1, "\x05") + Rec(4, 1, ""), Start::kAnswered,  // not a pair
       "out1 Status: 500 Internal Server Error\nout1 0\nend1 0/0\n"},
      {kBegin + Rec(2, 1, ""), Start::kAnswered, "out1 0\nend1 0/0\n"},  // aborted
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.summary);
    const std::string out = Exchange(c.input, [&](int fd) {
      EXPECT_EQ(FcgiConnection(fd, nullptr, 7).ReadRequest([](auto, auto) {}), c.start);
    });
    EXPECT_EQ(Summary(out), c.summary);
  }
}

TEST(FcgiConnection, SplitsALargeResponseIntoRecords) {
  std::string response, written;
  for (int i = 0; response.size() <= 150000; ++i) response += std::to_string(i) + ",";
  const std::string out = Exchange(kNoParams, [&](int fd) {
    FcgiConnection connection(fd, nullptr, 1);
    ASSERT_EQ(connection.ReadRequest([](auto, auto) {}), Start::kReady);
    EXPECT_EQ(connection.WriteStdout(response.data(), response.size()), 0);
    EXPECT_TRUE(connection.End(0));
  });
  const std::string rest = std::to_string(response.size() - 2 * 65535);
  EXPECT_EQ(Summary(out, &written),
            "out1 65535\nout1 65535\nout1 " + rest + "\nout1 0\nend1 0/0\n");
  EXPECT_EQ(written, response);
}

TEST(FcgiConnection, ConcludesARequestItsChildLeft) {
  const struct { bool written; const char* status; std::string summary; } cases[] = {
      {false, "504 Gateway Timeout", "out9 Status: 504 Gateway Timeout\nout9 0\nend9 0/0\n"},
      {false, "500 Internal Server Error",
       "out9 Status: 500 Internal Server Error\nout9 0\nend9 0/0\n"},
      {true, "500 Internal Server Error", "out9 0\nend9 1/0\n"},  // only the end
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.summary);
    const std::string out = Exchange("", [&](int fd) {
      EXPECT_TRUE(FcgiConnection::Conclude(fd, 9, c.written, c.status, "Gone.\n"));
    });
    EXPECT_EQ(Summary(out), c.summary);
  }
}

// Whoever reaches the socket may send any parameter; only a request's own
// variables reach the handler's environment, never the operator's.
TEST(FcgiConnection, OnlyRequestVariablesReachTheHandler) {
  std::string params;
  for (const auto& [name, value] :
       {std::pair<std::string, std::string>{"HTTP_HOST", "h"}, {"QUERY_STRING", "q"},
        {"MERO_APPLIANCE_ROOT", "/elsewhere"}, {"LD_PRELOAD", "/x.so"}})
    params += char(name.size()) + std::string(1, char(value.size())) + name + value;
  const std::string out = Exchange(kBegin + Rec(4, 1, params) + Rec(4, 1, "") + Rec(5, 1, ""), [](int fd) {
    const pid_t child = fork();  // the handler's environment and stdout are a process's
    if (child == 0) {
      setenv("MERO_APPLIANCE_ROOT", "/operator", 1);
      merocgi::fcgi::ServeConnection(
          fd, nullptr, 1,
          [](void*) {
            for (const char* name : {"HTTP_HOST", "QUERY_STRING", "MERO_APPLIANCE_ROOT", "LD_PRELOAD"})
              std::printf("%s|", std::getenv(name) ? std::getenv(name) : "-");
          },
          nullptr);
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  });
  std::string written;
  Summary(out, &written);
  EXPECT_EQ(written, "h|q|/operator|-|");
}

}  // namespace
