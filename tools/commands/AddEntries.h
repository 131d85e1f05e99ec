// add: the local files, folders and symbolic links chosen for an archive
// written into it as entries, one after another or several at once.
#pragma once

#include "Commands.h"
#include "LocalPaths.h"

#include "tal/String.h"
#include "ziputil/CZipWriter.h"

#include <cstdio>
#include <vector>

namespace ziputil_tool {

/// The entry URI of `item`: its entry name as a relative path.
tal::CURI entryURIOf(SourceItem const& item);

/// The local time of `seconds` since the epoch, as an entry's time; empty
/// fields when localtime_r cannot give it.
tal::CTimeFields localTimeFields(long long seconds);

/// Writes `items` through `writer` as entries, in order, and closes it: with
/// options.jobs 1 one after another, else compressed at once by a
/// CParallelDeflater (options.jobs workers, 0: one per processor) into the
/// same bytes. A file's bytes are read once its entry is written; an item
/// that cannot be read then (a file that cannot be opened or is no regular
/// file, a link whose target cannot be read) is named on standard error and
/// left out, before its entry begins. Lines of -v (each entry added or
/// replaced) go to `messages`; the progress line to standard error. Returns
/// the exit status: 1 when an item was left out. Errors of the writer and of
/// reading a file already opened propagate.
int writeEntries(Options const& options, ziputil::CZipWriter& writer, std::vector<SourceItem> const& items,
                 FILE* messages);

} // namespace ziputil_tool
