// Encoders for the entries the writer compresses itself instead of minizip:
// zstd entries, and the data inside WinZip AES entries (stored, deflated or
// zstd). Internal to the library.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace ziputil {
namespace codecs {

/// Where an encoder's output goes, in pieces.
using EncodedSink = std::function<void(unsigned char const* data, std::size_t size)>;

/// Compresses one entry's bytes.
class IEntryEncoder {
public:
  virtual ~IEntryEncoder() = default;
  /// Compresses `size` bytes; what is ready goes to `sink` (perhaps nothing yet).
  virtual void write(unsigned char const* data, std::size_t size, EncodedSink const& sink) = 0;
  /// Ends the method's data; the rest goes to `sink`.
  virtual void finish(EncodedSink const& sink) = 0;
};

/// An encoder for `method`: 0 (stored: the bytes as they are), 8 (raw
/// deflate, zlib's levels -1 to 9) or 93 (zstd, levels 1 to 22; -1 for zstd's
/// default, 3). Throws std::invalid_argument for another method or a level
/// outside those ranges, std::bad_alloc when the library cannot start.
std::unique_ptr<IEntryEncoder> makeEntryEncoder(int method, int level);

} // namespace codecs
} // namespace ziputil
