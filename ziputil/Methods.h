// ziputil::compressionMethodName and canReadMethod: ZIP's compression methods by number.
#pragma once

#include <string>

namespace ziputil {

/// Addition: the usual name of a ZIP compression method ("stored",
/// "deflated", "Deflate64", "bzip2", "LZMA", "zstd", "xz", "PPMd", "WinZip
/// AES", ...); empty for a number without one.
std::string compressionMethodName(int method);

/// Addition: whether CZipReader reads entries whose data has method `method`
/// (as CZipReader::getCurrentFileRealMethod gives it): stored, deflated,
/// Deflate64, bzip2, LZMA, zstd (93 and 20) and xz.
bool canReadMethod(int method);

} // namespace ziputil
