#include "FcgiProtocol.h"

#include <string>

namespace merocgi::fcgi {

namespace {

// A length is one byte below 128, else four with the top bit set.
bool ReadLength(std::string_view stream, size_t* at, size_t* length) {
  if (*at >= stream.size()) return false;
  const auto first = static_cast<unsigned char>(stream[*at]);
  if (!(first & 0x80)) {
    *length = first;
    *at += 1;
    return true;
  }
  if (stream.size() - *at < 4) return false;
  const auto byte = [&](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(stream[*at + i])); };
  *length = ((first & 0x7fu) << 24) | (byte(1) << 16) | (byte(2) << 8) | byte(3);
  *at += 4;
  return true;
}

void AppendLength(std::string& stream, size_t length) {
  if (length < 0x80) {
    stream += static_cast<char>(length);
    return;
  }
  stream += static_cast<char>(0x80 | ((length >> 24) & 0x7f));
  stream += static_cast<char>((length >> 16) & 0xff);
  stream += static_cast<char>((length >> 8) & 0xff);
  stream += static_cast<char>(length & 0xff);
}

}  // namespace

bool DecodeHeader(const unsigned char (&bytes)[kHeaderBytes], RecordHeader* header) {
  if (bytes[0] != kVersion) return false;
  header->type = bytes[1];
  header->requestId = static_cast<uint16_t>((bytes[2] << 8) | bytes[3]);
  header->contentLength = static_cast<uint16_t>((bytes[4] << 8) | bytes[5]);
  header->paddingLength = bytes[6];
  return true;
}

void EncodeHeader(const RecordHeader& header, unsigned char (&bytes)[kHeaderBytes]) {
  bytes[0] = kVersion;
  bytes[1] = header.type;
  bytes[2] = static_cast<unsigned char>(header.requestId >> 8);
  bytes[3] = static_cast<unsigned char>(header.requestId & 0xff);
  bytes[4] = static_cast<unsigned char>(header.contentLength >> 8);
  bytes[5] = static_cast<unsigned char>(header.contentLength & 0xff);
  bytes[6] = header.paddingLength;
  bytes[7] = 0;
}

bool DecodeBeginRequest(std::string_view body, uint16_t* role, uint8_t* flags) {
  if (body.size() != 8) return false;
  *role = static_cast<uint16_t>((static_cast<unsigned char>(body[0]) << 8) |
                                static_cast<unsigned char>(body[1]));
  *flags = static_cast<uint8_t>(body[2]);
  return true;
}

void EncodeEndRequest(uint32_t appStatus, ProtocolStatus status, unsigned char (&bytes)[8]) {
  bytes[0] = static_cast<unsigned char>(appStatus >> 24);
  bytes[1] = static_cast<unsigned char>((appStatus >> 16) & 0xff);
  bytes[2] = static_cast<unsigned char>((appStatus >> 8) & 0xff);
  bytes[3] = static_cast<unsigned char>(appStatus & 0xff);
  bytes[4] = status;
  bytes[5] = bytes[6] = bytes[7] = 0;
}

bool ForEachPair(std::string_view stream,
                 const std::function<bool(std::string_view name, std::string_view value)>& pair) {
  size_t at = 0;
  while (at < stream.size()) {
    size_t nameLength = 0;
    size_t valueLength = 0;
    if (!ReadLength(stream, &at, &nameLength) || !ReadLength(stream, &at, &valueLength)) return false;
    if (nameLength > stream.size() - at || valueLength > stream.size() - at - nameLength) return false;
    if (!pair(stream.substr(at, nameLength), stream.substr(at + nameLength, valueLength))) return true;
    at += nameLength + valueLength;
  }
  return true;
}

void AppendPair(std::string& stream, std::string_view name, std::string_view value) {
  AppendLength(stream, name.size());
  AppendLength(stream, value.size());
  stream.append(name).append(value);
}

}  // namespace merocgi::fcgi
