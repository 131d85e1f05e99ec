#include "ziputil/EntryInfo.h"

#include "tal/Error.h"
#include "ziputil/CZipReader.h"
#include "ziputil/Names.h"

namespace ziputil {

EntryInfo describeCurrentEntry(CZipReader const& reader) {
  tal::CURI const uri = reader.getCurrentFileRelativeURI();
  if (uri.isEmpty()) {
    throw tal::CError(tal::String("CZipReader not positioned at a file."), tal::String(), -1, tal::CProps(), nullptr);
  }
  EntryInfo info;
  info.name = entryName(uri);
  info.rawName = reader.getCurrentFileRawName();
  info.nameIsUTF8 = reader.isCurrentFileNameUTF8();
  info.isDirectory = reader.isCurrentFileDirectory();
  info.isSymbolicLink = reader.isCurrentFileSymbolicLink();
  info.isEncrypted = reader.isCurrentFileEncrypted();
  info.size = reader.getCurrentFileUncompressedSize();
  info.compressedSize = reader.getCurrentFileCompressedSize();
  info.crc32 = reader.getCurrentFileCRC32();
  info.method = reader.getCurrentFileMethod();
  info.realMethod = reader.getCurrentFileRealMethod();
  info.encryption = reader.getCurrentFileEncryption();
  info.modified = reader.getCurrentFileModifiedTimeFields();
  info.unixMode = reader.getCurrentFileUnixMode();
  info.externalAttributes = reader.getCurrentFileExternalAttributes();
  info.versionMadeBy = reader.getCurrentFileVersionMadeBy();
  info.comment = reader.getCurrentFileComment();
  info.extraField = reader.getCurrentFileExtraField();
  return info;
}

} // namespace ziputil
