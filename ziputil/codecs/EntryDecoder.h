// Decoders for the compression methods the reader decompresses itself, beside
// the stored and deflated entries that minizip reads: Deflate64 (9), bzip2
// (12), LZMA (14), zstd (93, and the older 20), xz (95), and stored (0) and
// deflated (8) data inside WinZip AES entries. Internal to the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace ziputil {
namespace codecs {

/// Where a decoder takes an entry's compressed bytes from.
class IByteSource {
public:
  virtual ~IByteSource() = default;
  /// Up to `size` bytes into `buffer`; 0 only at the end of the entry's
  /// compressed data. A failure of the archive's file system is thrown as it
  /// is, and goes through the decoder unchanged.
  virtual std::size_t read(unsigned char* buffer, std::size_t size) = 0;
};

/// Thrown by a decoder for data it cannot decode. `what()` is a whole English
/// sentence fragment naming the method, for example "bzip2 data is damaged
/// (BZ_DATA_ERROR)" or "the LZMA dictionary of 1024 MiB is above the limit of
/// 128 MiB"; the reader puts it into the entry's error.
class DecodeError : public std::runtime_error {
public:
  enum class Kind {
    Damaged,     ///< the data breaks the method's format, or ends before its end marker
    TooLarge,    ///< the data asks for more memory than DecoderLimits allow
    Unsupported, ///< a valid feature this build does not decode (an LZMA version it does not know, ...)
  };
  DecodeError(Kind kind, std::string const& message) : std::runtime_error(message), m_kind(kind) {}
  Kind kind() const { return m_kind; }

private:
  Kind m_kind;
};

/// Memory a decoder may use. The figure bounds a dictionary or window: an
/// entry that declares a larger one is refused with DecodeError TooLarge
/// before anything is allocated.
struct DecoderLimits {
  /// LZMA and xz dictionaries and zstd windows up to this size are decoded.
  /// 128 MiB is more than xz -9e, 7-Zip's ultra settings and zstd up to level
  /// 22 use; the decoder's whole memory is this plus a fixed amount per
  /// method (see makeEntryDecoder).
  std::uint64_t maxWindow = std::uint64_t(128) << 20;
};

/// Decodes one entry's compressed data into its bytes, in order.
class IEntryDecoder {
public:
  virtual ~IEntryDecoder() = default;
  /// Up to `size` decoded bytes into `out`; returns 0 only once the method's
  /// own end has been reached (an end marker or, for LZMA without one, the
  /// entry's uncompressed size), and then on every later call. Never returns 0
  /// for `size` > 0 before that end. Throws DecodeError when the data is
  /// damaged, including when the source ends before the method's end; the
  /// source's own exceptions pass unchanged. Always makes progress: every
  /// call either returns bytes, or consumes source bytes, or throws, so a
  /// hostile stream cannot make it loop.
  virtual std::size_t read(unsigned char* out, std::size_t size) = 0;
  /// After read() has returned 0: the number of source bytes the decoder
  /// took from the source but did not need (they lie past the method's end).
  /// With these and whatever the source still holds, the reader tells
  /// whether the compressed data ends where the method's data ends.
  virtual std::size_t unusedInput() const = 0;
};

/// Whether makeEntryDecoder takes `method`.
bool canDecode(int method);

/// The method's usual name ("stored", "deflated", "Deflate64", "bzip2",
/// "LZMA", "zstd", "xz", "PPMd", "WinZip AES", ...), or an empty string for a
/// number without one.
std::string methodName(int method);

/// A decoder for `method` reading from `source` (which must outlive it).
/// `uncompressedSize` is the entry's stored uncompressed size (LZMA without
/// an end marker stops there); `flags` the entry's general-purpose flags (bit
/// 1 for LZMA: an end-of-stream marker ends the data). Memory, beside the
/// window bound of `limits`: stored none; deflated about 50 KiB; Deflate64
/// about 200 KiB; bzip2 up to 3.8 MiB (blocks of 900 kB); LZMA the dictionary
/// plus up to 6 MiB of probabilities; xz the dictionary plus up to 1 MiB;
/// zstd the window plus about 256 KiB. Throws DecodeError Unsupported for a
/// method canDecode refuses, and as read() does for a header that cannot be
/// read (LZMA's properties are read here).
std::unique_ptr<IEntryDecoder> makeEntryDecoder(int method, IByteSource& source, std::uint64_t uncompressedSize,
                                                int flags, DecoderLimits const& limits);

} // namespace codecs
} // namespace ziputil
