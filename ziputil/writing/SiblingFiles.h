// Internal: temporary sibling files of an archive.
#pragma once

#include "tal/Stream.h"

namespace ziputil {

/// A sibling of `uri` that does not exist yet: "<path>.tmp-<16 hex digits>"
/// (same scheme, authority and query; no fragment).
tal::CURI freshSibling(tal::IFileSystem* fileSystem, tal::CURI const& uri);

/// Removes `uri`, ignoring any failure (for files given up after another error).
void removeQuietly(tal::IFileSystem* fileSystem, tal::CURI const& uri) noexcept;

} // namespace ziputil
