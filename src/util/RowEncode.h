// Byte-by-byte encoding through a table of fixed-size rows, shared by the
// URL and HTML encoders: each byte copies its whole row (itself or its
// replacement, padded to the row size) into a stack chunk and moves on by
// the row's length, so the loop has no branch on the data. The result is
// sized in one pass and written once, chunk by chunk, in a second.
#ifndef WEBAPI_UTIL_ROWENCODE_H
#define WEBAPI_UTIL_ROWENCODE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>

namespace MERO {
namespace detail {

constexpr size_t kEncodeChunkBytes = 8192;

// `maxLength` is the longest row length in `lengths`.
template <size_t kRowBytes>
std::string EncodeByRows(const std::string& text,
                         const std::array<std::array<char, kRowBytes>, 256>& rows,
                         const std::array<unsigned char, 256>& lengths, size_t maxLength) {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const size_t length = text.size();
  size_t encodedLength = 0;
  for (size_t i = 0; i < length; ++i) encodedLength += lengths[in[i]];
  std::string encoded;
  encoded.reserve(encodedLength);  // reserved, not filled: written once, through the chunk
  // A row is copied whole, so the chunk has room for the last one's padding.
  char chunk[kEncodeChunkBytes + kRowBytes];
  for (size_t i = 0; i < length;) {
    const size_t stop = std::min(length, i + kEncodeChunkBytes / maxLength);
    char* out = chunk;
    for (; i < stop; ++i) {
      std::memcpy(out, rows[in[i]].data(), kRowBytes);
      out += lengths[in[i]];
    }
    encoded.append(chunk, static_cast<size_t>(out - chunk));
  }
  return encoded;
}

}  // namespace detail
}  // namespace MERO

#endif  // WEBAPI_UTIL_ROWENCODE_H
