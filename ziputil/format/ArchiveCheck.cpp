#include "ziputil/ArchiveCheck.h"

#include "ziputil/format/ArchiveLayout.h"

namespace ziputil {

void checkArchiveLayout(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI) {
  tal::P<tal::IInOutStream> stream =
      fileSystem->openStream(archiveURI, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags);
  checkArchiveRecords(*stream, archiveURI);
  stream->close();
}

std::vector<EntryLayoutProblem> checkArchiveEntries(tal::IFileSystem* fileSystem, tal::CURI const& archiveURI) {
  tal::P<tal::IInOutStream> stream =
      fileSystem->openStream(archiveURI, tal::IFileSystem::AccessRead, tal::IFileSystem::OpenNoFlags);
  std::vector<EntryLayoutProblem> problems = findEntryLayoutProblems(*stream, archiveURI);
  stream->close();
  return problems;
}

} // namespace ziputil
