// Operations over stock minizip's public API that the archive reader needs and
// stock minizip lacks: positioning that also fills the entry information, a
// locate that takes a name-comparison callback, and password checking.
#pragma once

#include "ziputil/minizip/unzip.h"

/// Returned by ziputil::minizip::unzOpenCurrentFilePassword when the password
/// does not open the entry.
#define ZIPUTIL_UNZ_BADPASSWORD (-106)
/// Returned by ziputil::minizip::unzOpenCurrentFile and
/// unzOpenCurrentFilePassword for an entry compressed with another method than
/// 0 (stored) or 8 (deflated), which this build cannot decompress (stock
/// minizip hands out such an entry's compressed bytes as its contents).
#define ZIPUTIL_UNZ_BADMETHOD (-107)

namespace ziputil {
namespace minizip {

/// Goes to the first entry, then fills `info` and the name, extra field and
/// comment buffers as unzGetCurrentFileInfo64 does. Returns UNZ_OK, or
/// UNZ_END_OF_LIST_OF_FILE for an archive without entries, or the failing
/// call's code.
int unzGoToFirstFile2(unzFile file, unz_file_info64* info, char* fileName, uLong fileNameBufferSize, void* extraField,
                      uLong extraFieldBufferSize, char* comment, uLong commentBufferSize);

/// Goes to the next entry and fills the buffers as unzGoToFirstFile2 does.
/// Returns UNZ_END_OF_LIST_OF_FILE after the last entry (or when not
/// positioned), leaving the position at the last entry.
///
/// The end is found even where stock minizip's entry count misleads it. The
/// end record's 16-bit count is exact only below 65,535 entries: with 0xFFFF
/// stock minizip walks past the last entry onto the end record and reports
/// UNZ_BADZIPFILE, and an archive of more than 65,535 entries without a ZIP64
/// end record holds only the count's low 16 bits. So, when the archive's count
/// is 0xFFFF or less: at the recorded count the walk probes for one more
/// central-directory header, and an UNZ_BADZIPFILE met at or beyond the
/// recorded count means the end of the list (the position is restored to the
/// last entry).
int unzGoToNextFile2(unzFile file, unz_file_info64* info, char* fileName, uLong fileNameBufferSize, void* extraField,
                     uLong extraFieldBufferSize, char* comment, uLong commentBufferSize);

/// Compares two stored entry names (NUL-terminated); 0 means equal.
typedef int (*unzFileNameComparer)(unzFile file, const char* fileName1, const char* fileName2);

/// Walks the central directory in order from the first entry and stops at the
/// first entry for which comparer(file, storedName, fileName) is 0: UNZ_OK.
/// Otherwise returns UNZ_END_OF_LIST_OF_FILE and restores the previous
/// position when there was one; another failure returns its code. Names up to
/// the format's 65,535 bytes are compared whole.
int unzLocateFile(unzFile file, const char* fileName, unzFileNameComparer comparer);

/// Opens the current entry for reading. An encrypted entry cannot be read
/// without a password: UNZ_PARAMERROR. A method other than stored or deflated:
/// ZIPUTIL_UNZ_BADMETHOD.
int unzOpenCurrentFile(unzFile file);

/// Opens the current entry for reading with a password. An entry that is not
/// encrypted is opened as it is, ignoring the password. For an encrypted entry
/// the password is checked first against the traditional PKWARE encryption
/// header: its last byte, decrypted, must be the CRC-32's high byte, the DOS
/// time's high byte (writers that stream the entry) or 0 (writers that do not
/// know the CRC in advance). A password that fails gives ZIPUTIL_UNZ_BADPASSWORD;
/// a null password for an encrypted entry gives UNZ_PARAMERROR. A method other
/// than stored or deflated gives ZIPUTIL_UNZ_BADMETHOD before anything else.
int unzOpenCurrentFilePassword(unzFile file, const char* password);

/// Addition: opens the current entry's stored data (minizip's raw mode),
/// whatever its method, for a reader that decodes it itself. An entry with
/// traditional encryption is decrypted on the way, its password checked
/// first as unzOpenCurrentFilePassword checks it (ZIPUTIL_UNZ_BADPASSWORD;
/// UNZ_PARAMERROR for a null password); the 12-byte encryption header is not
/// handed out. Every other entry, a WinZip AES one (method 99) among them,
/// gives its bytes as stored.
int unzOpenCurrentFileStored(unzFile file, const char* password);

} // namespace minizip
} // namespace ziputil
