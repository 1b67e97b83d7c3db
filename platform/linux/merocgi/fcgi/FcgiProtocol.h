// FastCGI framing as an application sees it: record headers and the
// name-value pairs of a request's parameters. Pure functions over bytes,
// so that everything a web server (or whoever reaches the socket) sends is
// parsed in one place that can be fuzzed.
#ifndef MEROCGI_FCGI_FCGIPROTOCOL_H
#define MEROCGI_FCGI_FCGIPROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

namespace merocgi::fcgi {

constexpr size_t kHeaderBytes = 8;
constexpr size_t kMaxContentBytes = 65535;
constexpr uint8_t kVersion = 1;

enum RecordType : uint8_t {
  kBeginRequest = 1,
  kAbortRequest = 2,
  kEndRequest = 3,
  kParams = 4,
  kStdin = 5,
  kStdout = 6,
  kStderr = 7,
  kData = 8,
  kGetValues = 9,
  kGetValuesResult = 10,
  kUnknownType = 11,
};

constexpr uint16_t kRoleResponder = 1;
constexpr uint8_t kFlagKeepConnection = 1;

enum ProtocolStatus : uint8_t {
  kRequestComplete = 0,
  kCannotMultiplex = 1,
  kOverloaded = 2,
  kUnknownRole = 3,
};

struct RecordHeader {
  uint8_t type = 0;
  uint16_t requestId = 0;
  uint16_t contentLength = 0;
  uint8_t paddingLength = 0;
};

// False when the bytes are not a version 1 record header.
bool DecodeHeader(const unsigned char (&bytes)[kHeaderBytes], RecordHeader* header);
void EncodeHeader(const RecordHeader& header, unsigned char (&bytes)[kHeaderBytes]);

// The role and flags of a BEGIN_REQUEST body; false when it is not 8 bytes.
bool DecodeBeginRequest(std::string_view body, uint16_t* role, uint8_t* flags);
// The 8-byte body of an END_REQUEST.
void EncodeEndRequest(uint32_t appStatus, ProtocolStatus status, unsigned char (&bytes)[8]);

// Calls `pair` for each name-value pair of a complete parameter stream, in
// order, until it answers false. False when the stream is malformed (a
// length runs past its end); the pairs before that were delivered.
bool ForEachPair(std::string_view stream,
                 const std::function<bool(std::string_view name, std::string_view value)>& pair);
// Appends one pair in the stream's encoding.
void AppendPair(std::string& stream, std::string_view name, std::string_view value);

}  // namespace merocgi::fcgi

#endif  // MEROCGI_FCGI_FCGIPROTOCOL_H
