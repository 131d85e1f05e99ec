// The one place where a failed minizip call becomes a thrown tal error
// (internal to libziputil; not installed).
#pragma once

#include "tal/Error.h"

namespace ziputil {

/// Properties of an error about a failed minizip call: "uri" (the URI as
/// toString(true) text) and "result" (minizip's return code in decimal).
tal::CProps minizipFailureProps(tal::CURI const& uri, int result);

/// Throws after a failed minizip call. When minizip reported an I/O failure
/// (result -1) and the bridge recorded what failed underneath, that error is
/// rethrown unchanged (throwClone), so the caller sees the file system's own
/// error. Otherwise `fallback`, the caller's own error, is thrown as its class.
[[noreturn]] void throwMinizipFailure(tal::P<tal::CError> const& bridgeError, int result, tal::CError const& fallback);

/// The failure of a minizip call that writes, or null when it succeeded:
/// `before` and `after` are the bridge's last error before and after the call
/// (the bridge keeps its newest failure, so an error is new when it is another
/// object). A failure that minizip absorbed (it answered ZIP_OK although a
/// file-system call failed underneath) is the new bridge error; otherwise the
/// rule of throwMinizipFailure picks between the bridge's error and `fallback`.
tal::P<tal::CError> writeFailure(tal::P<tal::CError> const& before, tal::P<tal::CError> const& after, int result,
                                 tal::CError const& fallback);

/// Throws after a minizip open returned no handle: the bridge's recorded error
/// unchanged when there is one, otherwise `fallback`.
[[noreturn]] void throwOpenFailure(tal::P<tal::CError> const& bridgeError, tal::CError const& fallback);

} // namespace ziputil
