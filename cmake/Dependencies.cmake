# Third-party dependencies: zlib, the wxWidgets base library (through
# wx-config) and minizip, compiled from zlib 1.3.1's contrib/minizip.

find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)

# wxWidgets base library. Only `wx-config --libs base` is linked.
find_program(WX_CONFIG wx-config REQUIRED)
include(${CMAKE_CURRENT_LIST_DIR}/ziputilWxBase.cmake)
ziputil_wx_base(wxbase "${WX_CONFIG}")

# minizip: the zlib 1.3.1 source tree that holds contrib/minizip.
# -DZIPUTIL_ZLIB_SOURCE_DIR=<unpacked zlib 1.3.1 source> builds without
# network: configuring then never downloads, and a missing or wrong tree is an
# error. Without it, the tree is third_party/zlib-src (ignored by git), which
# scripts/setup.sh fills through scripts/fetch-minizip.sh; configuring fetches
# it there too when it is missing.
set(_zlib_default_source_dir "${CMAKE_CURRENT_SOURCE_DIR}/third_party/zlib-src")
if(NOT DEFINED CACHE{ZIPUTIL_ZLIB_SOURCE_DIR})
  set(_ZIPUTIL_ZLIB_SOURCE_DIR_DEFAULTED ON CACHE INTERNAL "ZIPUTIL_ZLIB_SOURCE_DIR was not given")
endif()
set(ZIPUTIL_ZLIB_SOURCE_DIR "${_zlib_default_source_dir}" CACHE PATH
    "Unpacked zlib 1.3.1 source tree holding contrib/minizip (given: configuring never downloads)")
set(_minizip_dir "${ZIPUTIL_ZLIB_SOURCE_DIR}/contrib/minizip")
set(_minizip_files ioapi.c ioapi.h unzip.c unzip.h zip.c zip.h)
function(_ziputil_check_zlib_source dir result)
  if(NOT IS_DIRECTORY "${dir}")
    set(${result} "no such folder" PARENT_SCOPE)
    return()
  endif()
  set(missing "")
  foreach(f zlib.h ${_minizip_files})
    if(f STREQUAL "zlib.h")
      set(path "${dir}/zlib.h")
    else()
      set(path "${dir}/contrib/minizip/${f}")
    endif()
    if(NOT EXISTS "${path}")
      list(APPEND missing "${path}")
    endif()
  endforeach()
  if(missing)
    list(JOIN missing ", " missing)
    set(${result} "it lacks ${missing}" PARENT_SCOPE)
    return()
  endif()
  file(STRINGS "${dir}/zlib.h" version_line REGEX "^#define ZLIB_VERSION \"[^\"]*\"")
  if(NOT version_line MATCHES "\"([^\"]*)\"")
    set(${result} "its zlib.h defines no ZLIB_VERSION" PARENT_SCOPE)
  elseif(NOT CMAKE_MATCH_1 STREQUAL "1.3.1")
    set(${result} "it is zlib ${CMAKE_MATCH_1}, not 1.3.1" PARENT_SCOPE)
  else()
    set(${result} "" PARENT_SCOPE)
  endif()
endfunction()
_ziputil_check_zlib_source("${ZIPUTIL_ZLIB_SOURCE_DIR}" _zlib_source_problem)
if(_zlib_source_problem AND _ZIPUTIL_ZLIB_SOURCE_DIR_DEFAULTED
   AND ZIPUTIL_ZLIB_SOURCE_DIR STREQUAL _zlib_default_source_dir AND NOT EXISTS "${_minizip_dir}/unzip.c")
  message(STATUS "minizip sources missing: fetching them")
  execute_process(COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/scripts/fetch-minizip.sh" "${ZIPUTIL_ZLIB_SOURCE_DIR}"
                  COMMAND_ERROR_IS_FATAL ANY)
  _ziputil_check_zlib_source("${ZIPUTIL_ZLIB_SOURCE_DIR}" _zlib_source_problem)
endif()
if(_zlib_source_problem)
  message(FATAL_ERROR "ZIPUTIL_ZLIB_SOURCE_DIR=${ZIPUTIL_ZLIB_SOURCE_DIR} is not an unpacked zlib 1.3.1 source tree: "
          "${_zlib_source_problem}. Give the path of an unpacked zlib 1.3.1 source (scripts/fetch-minizip.sh DIR "
          "fetches one) with -DZIPUTIL_ZLIB_SOURCE_DIR=DIR.")
endif()
# The public headers include minizip's headers as "ziputil/minizip/<name>.h":
# the build gives them that path through a folder of its own, as the installed
# package does under its include folder, so `#include <zip.h>` in a program
# that uses ziputil still names whatever zip.h that program means (libzip's).
set(ZIPUTIL_GENERATED_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
foreach(_h ioapi.h unzip.h zip.h)
  configure_file("${_minizip_dir}/${_h}" "${ZIPUTIL_GENERATED_INCLUDE_DIR}/ziputil/minizip/${_h}" COPYONLY)
endforeach()
# The build compiles copies of unzip.c and zip.c written into the build tree,
# each with a small, checked change; the sources themselves stay untouched.
# ziputil_patch_source(<input> <output> <text> <replacement> ...): each text is
# replaced literally and must occur exactly once, or configuring fails.
function(ziputil_patch_source input output)
  file(READ "${input}" text)
  # The pairs are read as ARGV<n>: C text holds semicolons, which lists would split.
  math(EXPR last "${ARGC} - 1")
  foreach(i RANGE 2 ${last} 2)
    math(EXPR j "${i} + 1")
    set(old "${ARGV${i}}")
    string(FIND "${text}" "${old}" first)
    string(FIND "${text}" "${old}" final REVERSE)
    if(first EQUAL -1 OR NOT first EQUAL final)
      message(FATAL_ERROR "${input}: the text to change does not occur exactly once: ${old}")
    endif()
    string(REPLACE "${old}" "${ARGV${j}}" text "${text}")
  endforeach()
  file(WRITE "${output}.tmp" "${text}")
  configure_file("${output}.tmp" "${output}" COPYONLY)
endfunction()

# unzip.c switches decryption off unconditionally (it defines NOUNCRYPT
# itself): without that definition it reads encrypted entries.
set(_unzip_crypt "${CMAKE_CURRENT_BINARY_DIR}/minizip/unzip_crypt.c")
# Its unzClose also ignores whether closing the file failed: the copy reports
# UNZ_ERRNO then, so the reader can raise the file system's error. Its readers
# of 2-, 4- and 8-byte fields answer a short read with UNZ_EOF, which equals
# UNZ_OK, so a record cut short read as zeros (a damaged end record gave an
# empty archive): the copy answers UNZ_BADZIPFILE, and stops reading a central
# header whose signature is wrong (the walk probes past the last one), and counts
# an encryption header against the compressed bytes left (a stored encrypted
# entry could be read on into the next record). And it adds
# ziputil_unzReadPastEnd (MiniZipExtras.h), with which the reader finds an
# entry whose data goes on past its stored size, and
# ziputil_unzGetCurrentFileInfoName, which gives the entry information that
# positioning has just parsed instead of parsing the header a second time.
# Its local header check accepts every compression method (raw reads copy
# entries of any method).
ziputil_patch_source("${_minizip_dir}/unzip.c" "${_unzip_crypt}"
  "#ifndef NOUNCRYPT\n        #define NOUNCRYPT\n#endif\n" ""
  "    ZCLOSE64(s->z_filefunc, s->filestream);\n    free(s);\n    return UNZ_OK;"
  "    int closed = ZCLOSE64(s->z_filefunc, s->filestream);\n    free(s);\n    return closed == 0 ? UNZ_OK : UNZ_ERRNO;"
  # A record cut short is damage: its missing bytes are not zeros (UNZ_EOF equals UNZ_OK).
  "            return UNZ_EOF;\n    }\n}\n\nlocal int unz64local_getLong("
  "            return UNZ_BADZIPFILE;\n    }\n}\n\nlocal int unz64local_getLong("
  "            return UNZ_EOF;\n    }\n}\n\n\nlocal int unz64local_getLong64("
  "            return UNZ_BADZIPFILE;\n    }\n}\n\n\nlocal int unz64local_getLong64("
  "            return UNZ_EOF;\n    }\n}\n\n/* My own strcmpi"
  "            return UNZ_BADZIPFILE;\n    }\n}\n\n/* My own strcmpi"
  # A central header without its signature is not read on (past the last one lies the end record,
  # whose fields may run past the end of the file).
  "            err=UNZ_BADZIPFILE;\n    }\n\n    if (unz64local_getShort(&s->z_filefunc, s->filestream,&file_info.version) != UNZ_OK)"
  "            err=UNZ_BADZIPFILE;\n    }\n    if (err!=UNZ_OK)\n        return err;\n\n    if (unz64local_getShort(&s->z_filefunc, s->filestream,&file_info.version) != UNZ_OK)"
  # The 12-byte encryption header counts against the compressed bytes left to read (a stored entry read on
  # into the next record).
  "        s->pfile_in_zip_read->pos_in_zipfile+=12;\n        s->encrypted=1;"
  "        if (s->pfile_in_zip_read->rest_read_compressed < 12)\n            return UNZ_BADZIPFILE;\n        s->pfile_in_zip_read->pos_in_zipfile+=12;\n        s->pfile_in_zip_read->rest_read_compressed-=12;\n        s->encrypted=1;"
  # ziputil_unzGetCurrentFileInfoName: the current entry's information as positioning parsed it, and its name.
  "extern int ZEXPORT unzGetCurrentFileInfo64(unzFile file,\n                                           unz_file_info64 * pfile_info,"
  "extern int ZEXPORT ziputil_unzGetCurrentFileInfoName(unzFile file, unz_file_info64* pfile_info,\n                                                    char* szFileName, uLong fileNameBufferSize) {\n    unz64_s* s;\n    uLong uSizeRead;\n    if (file == NULL)\n        return UNZ_PARAMERROR;\n    s = (unz64_s*)file;\n    if (!s->current_file_ok)\n        return UNZ_END_OF_LIST_OF_FILE;\n    if (pfile_info != NULL)\n        *pfile_info = s->cur_file_info;\n    if (szFileName == NULL)\n        return UNZ_OK;\n    uSizeRead = s->cur_file_info.size_filename < fileNameBufferSize ? s->cur_file_info.size_filename : fileNameBufferSize;\n    if (s->cur_file_info.size_filename < fileNameBufferSize)\n        *(szFileName + s->cur_file_info.size_filename) = '\\0';\n    if (uSizeRead > 0) {\n        if (ZSEEK64(s->z_filefunc, s->filestream, s->pos_in_central_dir + s->byte_before_the_zipfile + SIZECENTRALDIRITEM, ZLIB_FILEFUNC_SEEK_SET) != 0)\n            return UNZ_ERRNO;\n        if (ZREAD64(s->z_filefunc, s->filestream, szFileName, uSizeRead) != uSizeRead)\n            return UNZ_ERRNO;\n    }\n    return UNZ_OK;\n}\n\nextern int ZEXPORT unzGetCurrentFileInfo64(unzFile file,\n                                           unz_file_info64 * pfile_info,"
  # ziputil_unzReadPastEnd: what an open entry's data holds beyond its stored size.
  "extern int ZEXPORT unzReadCurrentFile(unzFile file, voidp buf, unsigned len) {"
  "extern int ZEXPORT unzReadCurrentFile(unzFile file, voidp buf, unsigned len);\n\nextern int ZEXPORT ziputil_unzReadPastEnd(unzFile file, voidp buf, unsigned len) {\n    file_in_zip64_read_info_s* p;\n    int read;\n    if (file == NULL)\n        return UNZ_PARAMERROR;\n    p = ((unz64_s*)file)->pfile_in_zip_read;\n    if (p == NULL || p->rest_read_uncompressed != 0)\n        return UNZ_PARAMERROR;\n    p->rest_read_uncompressed = len;\n    read = unzReadCurrentFile(file, buf, len);\n    p->rest_read_uncompressed = 0;\n    return read;\n}\n\nextern int ZEXPORT unzReadCurrentFile(unzFile file, voidp buf, unsigned len) {"
  # Opening an entry accepts every method in its local header check, so that an entry's stored bytes can be
  # read raw (and copied) whatever its method; the reader refuses to decompress other methods than stored and
  # deflated before minizip is asked (MiniZipAdapter.h).
  "    if ((err==UNZ_OK) && (s->cur_file_info.compression_method!=0) &&\n/* #ifdef HAVE_BZIP2 */\n                         (s->cur_file_info.compression_method!=Z_BZIP2ED) &&\n/* #endif */\n                         (s->cur_file_info.compression_method!=Z_DEFLATED))\n        err=UNZ_BADZIPFILE;\n"
  "")
# Reading through ISA-L (ZIPUTIL_WITH_ISAL, on by default on x86-64): a second
# copy of unzip.c calls ziputil/InflateIsal.h's inflate and CRC-32 in place of
# zlib's, and hands that decoder a way to read an entry's compressed data again
# from its start (decrypted), with which zlib answers for damaged data exactly
# as it would have alone. Without ISA-L installed the build inflates with zlib.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(_isal_default ON)
else()
  set(_isal_default OFF)
endif()
option(ZIPUTIL_WITH_ISAL "Inflate and check CRC-32 with Intel's ISA-L when reading (zlib alone when OFF or absent)"
       ${_isal_default})
# ZIPUTIL_INFLATE_ISAL tells what this configuration does (scripts/test.sh checks it in the cache).
set(ZIPUTIL_INFLATE_ISAL OFF CACHE INTERNAL "Reading inflates with ISA-L")
if(ZIPUTIL_WITH_ISAL)
  find_path(ISAL_INCLUDE_DIR isa-l/igzip_lib.h)
  find_library(ISAL_LIBRARY isal)
  if(ISAL_INCLUDE_DIR AND ISAL_LIBRARY)
    set(ZIPUTIL_INFLATE_ISAL ON CACHE INTERNAL "Reading inflates with ISA-L")
    message(STATUS "Reading inflates with ISA-L: ${ISAL_LIBRARY}")
  else()
    message(STATUS "ISA-L not found (libisal-dev): reading inflates with zlib alone")
  endif()
endif()
set(_unzip_source "${_unzip_crypt}")
if(ZIPUTIL_INFLATE_ISAL)
  set(_unzip_source "${CMAKE_CURRENT_BINARY_DIR}/minizip/unzip_isal.c")
  ziputil_patch_source("${_unzip_crypt}" "${_unzip_source}"
    # The inflate and CRC-32 calls go to the ISA-L decoder.
    "#include \"unzip.h\"\n"
    "#include \"unzip.h\"\n#include \"ziputil/InflateIsal.h\"\n#undef inflateInit2\n#define inflateInit2(strm, windowBits) ziputil_inflateIsalInit2((strm), (windowBits))\n#define inflate(strm, flush) ziputil_inflateIsal((strm), (flush))\n#define inflateEnd(strm) ziputil_inflateIsalEnd(strm)\n#define crc32(crc, buf, len) ziputil_crc32Isal((crc), (buf), (len))\n"
    # Where an entry's data starts, and the decryption keys there, to read it again.
    "    int   raw;\n} file_in_zip64_read_info_s;"
    "    int   raw;\n    ZPOS64_T ziputil_data_start;\n    unsigned long ziputil_keys_start[3];\n    unsigned long ziputil_keys[3];\n} file_in_zip64_read_info_s;"
    "extern int ZEXPORT unzOpenCurrentFile3(unzFile file, int* method,"
    "/* Reads an open entry's compressed data again, decrypted, for the ISA-L decoder (offsets in order from 0). */\nstatic int ziputil_unzReadAgain(void* opaque, unsigned long long offset, void* buf, unsigned len) {\n    unz64_s* s = (unz64_s*)opaque;\n    file_in_zip64_read_info_s* p = s->pfile_in_zip_read;\n    if (p == NULL)\n        return -1;\n    if (ZSEEK64(p->z_filefunc, p->filestream, p->ziputil_data_start + p->byte_before_the_zipfile + offset, ZLIB_FILEFUNC_SEEK_SET) != 0)\n        return -1;\n    if (ZREAD64(p->z_filefunc, p->filestream, buf, len) != len)\n        return -1;\n    if (s->encrypted) {\n        unsigned i;\n        if (offset == 0)\n            memcpy(p->ziputil_keys, p->ziputil_keys_start, sizeof p->ziputil_keys);\n        for (i = 0; i < len; i++)\n            ((char*)buf)[i] = (char)zdecode(p->ziputil_keys, s->pcrc_32_tab, ((char*)buf)[i]);\n    }\n    return 0;\n}\n\nextern int ZEXPORT unzOpenCurrentFile3(unzFile file, int* method,"
    "    }\n#    endif\n\n\n    return UNZ_OK;\n}\n\nextern int ZEXPORT unzOpenCurrentFile(unzFile file) {"
    "    }\n#    endif\n\n    if (s->pfile_in_zip_read->stream_initialised == Z_DEFLATED) {\n        s->pfile_in_zip_read->ziputil_data_start = s->pfile_in_zip_read->pos_in_zipfile;\n        if (s->encrypted)\n            memcpy(s->pfile_in_zip_read->ziputil_keys_start, s->keys, sizeof s->keys);\n        ziputil_inflateIsalSetSource(&s->pfile_in_zip_read->stream, ziputil_unzReadAgain, s,\n                                     s->pfile_in_zip_read->rest_read_compressed);\n    }\n\n    return UNZ_OK;\n}\n\nextern int ZEXPORT unzOpenCurrentFile(unzFile file) {")
endif()
# zip.c leaks on two failure paths, which the fault-injection tests reach:
# zipOpen3 in add mode drops the open file (unless the header check closed it)
# and the central directory read so far when reading the central directory fails; zipOpenNewFileInZip4_64 drops
# the central header it allocated (and the deflate state) when writing the
# local header fails. The copy releases them. It also keeps write failures that
# zip.c overwrites or ignores (the values of a local header's Zip64 extra
# field; the Zip64 end record and its locator in zipClose) and fails where a
# failed tell would otherwise record offset 2^64-1 in a header or end record.
# Finishing an entry keeps a failed write of deflate's last output (the next
# deflate result overwrote it); the local header's Zip64 extra field receives
# the entry's sizes also below 4 GiB (it kept zeros, which other tools report
# as a header error); an entry written with general-purpose bit 3 (streamed)
# is followed by a data descriptor (Zip64 sizes when it has a Zip64 extra
# field) instead of having its local header rewritten; Zip64 sizes no longer
# overwrite the system that made the entry (the high byte of version made by);
# in raw mode (data written as stored) any compression method is accepted;
# ziputil_zipDiscard (MiniZipExtras.h) releases a handle
# without writing anything more, so that a failed writer can put the file back
# as it was; ziputil_zipMarkEntry and ziputil_zipUndoEntry take the handle back
# to where an entry began (its place in the file, the central directory and
# the count), so that a failed entry leaves nothing of itself behind; and
# ziputil_zipFileStream gives the writer the file stream, so that it can read
# the archive's end and old central directory through the one stream minizip
# opened and cut off what the old central directory left behind.
set(_zip_fixed "${CMAKE_CURRENT_BINARY_DIR}/minizip/zip_fixed.c")
ziputil_patch_source("${_minizip_dir}/zip.c" "${_zip_fixed}"
  # The functions it adds are declared in ziputil/MiniZipExtras.h.
  "#include \"zip.h\"\n"
  "#include \"zip.h\"\n#include \"ziputil/MiniZipExtras.h\"\n"
  "    ZCLOSE64(pziinit->z_filefunc, pziinit->filestream);\n    return ZIP_ERRNO;"
  "    ZCLOSE64(pziinit->z_filefunc, pziinit->filestream);\n    pziinit->filestream = NULL;\n    return ZIP_ERRNO;"
  "free(ziinit.globalcomment);"
  "free(ziinit.globalcomment);\n        free_linkedlist(&ziinit.central_dir);\n        if (ziinit.filestream != NULL)\n            ZCLOSE64(ziinit.z_filefunc, ziinit.filestream);"
  "zi->in_opened_file_inzip = 1;"
  "zi->in_opened_file_inzip = 1;\n    else {\n        if (zi->ci.stream_initialised && zi->ci.method == Z_DEFLATED)\n            deflateEnd(&zi->ci.stream);\n        zi->ci.stream_initialised = 0;\n        free(zi->ci.central_header);\n        zi->ci.central_header = NULL;\n    }"
  "      err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)DataSize,2);"
  "      if (err==ZIP_OK) err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)DataSize,2);"
  "      err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)UncompressedSize,8);"
  "      if (err==ZIP_OK) err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)UncompressedSize,8);"
  "      err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)CompressedSize,8);"
  "      if (err==ZIP_OK) err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)CompressedSize,8);"
  "      Write_Zip64EndOfCentralDirectoryRecord(zi, size_centraldir, centraldir_pos_inzip);"
  "      if (err==ZIP_OK) err = Write_Zip64EndOfCentralDirectoryRecord(zi, size_centraldir, centraldir_pos_inzip);"
  "      Write_Zip64EndOfCentralDirectoryLocator(zi, Zip64EOCDpos);"
  "      if (err==ZIP_OK) err = Write_Zip64EndOfCentralDirectoryLocator(zi, Zip64EOCDpos);"
  "    zi->ci.pos_local_header = ZTELL64(zi->z_filefunc,zi->filestream);"
  "    zi->ci.pos_local_header = ZTELL64(zi->z_filefunc,zi->filestream);\n    if (zi->ci.pos_local_header == (ZPOS64_T)-1)\n        return ZIP_ERRNO;"
  "      zi->ci.pos_zip64extrainfo = ZTELL64(zi->z_filefunc,zi->filestream);"
  "      zi->ci.pos_zip64extrainfo = ZTELL64(zi->z_filefunc,zi->filestream);\n      if (zi->ci.pos_zip64extrainfo == (ZPOS64_T)-1)\n        err = ZIP_ERRNO;"
  "      err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)HeaderID,2);"
  "      if (err==ZIP_OK) err = zip64local_putValue(&zi->z_filefunc, zi->filestream, (ZPOS64_T)HeaderID,2);"
  "        ZPOS64_T cur_pos_inzip = ZTELL64(zi->z_filefunc,zi->filestream);"
  "        ZPOS64_T cur_pos_inzip = ZTELL64(zi->z_filefunc,zi->filestream);\n        if (cur_pos_inzip == (ZPOS64_T)-1)\n            err = ZIP_ERRNO;"
  "    centraldir_pos_inzip = ZTELL64(zi->z_filefunc,zi->filestream);"
  "    centraldir_pos_inzip = ZTELL64(zi->z_filefunc,zi->filestream);\n    if (centraldir_pos_inzip == (ZPOS64_T)-1 && err == ZIP_OK)\n        err = ZIP_ERRNO;"
  "      ZPOS64_T Zip64EOCDpos = ZTELL64(zi->z_filefunc,zi->filestream);"
  "      ZPOS64_T Zip64EOCDpos = ZTELL64(zi->z_filefunc,zi->filestream);\n      if (Zip64EOCDpos == (ZPOS64_T)-1 && err == ZIP_OK)\n        err = ZIP_ERRNO;"
  # Finishing an entry: a failed write of deflate's output is not overwritten by the next deflate result.
  "                                uTotalOutBefore = zi->ci.stream.total_out;\n                                err=deflate(&zi->ci.stream,  Z_FINISH);"
  "                                if (err != ZIP_OK)\n                                        break;\n                                uTotalOutBefore = zi->ci.stream.total_out;\n                                err=deflate(&zi->ci.stream,  Z_FINISH);"
  # The local header's Zip64 extra field gets the entry's real sizes below 4 GiB too (it held zeros).
  "        else\n        {\n          if (err==ZIP_OK) /* compressed size, unknown */\n              err = zip64local_putValue(&zi->z_filefunc,zi->filestream,compressed_size,4);\n\n          if (err==ZIP_OK) /* uncompressed size, unknown */\n              err = zip64local_putValue(&zi->z_filefunc,zi->filestream,uncompressed_size,4);\n        }"
  "        else\n        {\n          if (err==ZIP_OK) /* compressed size, unknown */\n              err = zip64local_putValue(&zi->z_filefunc,zi->filestream,compressed_size,4);\n\n          if (err==ZIP_OK) /* uncompressed size, unknown */\n              err = zip64local_putValue(&zi->z_filefunc,zi->filestream,uncompressed_size,4);\n\n          if (err==ZIP_OK && zi->ci.pos_zip64extrainfo > 0)\n          {\n            if (ZSEEK64(zi->z_filefunc,zi->filestream, zi->ci.pos_zip64extrainfo + 4,ZLIB_FILEFUNC_SEEK_SET)!=0)\n              err = ZIP_ERRNO;\n            if (err==ZIP_OK)\n              err = zip64local_putValue(&zi->z_filefunc, zi->filestream, uncompressed_size, 8);\n            if (err==ZIP_OK)\n              err = zip64local_putValue(&zi->z_filefunc, zi->filestream, compressed_size, 8);\n          }\n        }"
  # Zip64 sizes raise the version needed, not the system that made the entry (the high byte).
  "      zip64local_putValue_inmemory(zi->ci.central_header+4,(uLong)45,2);"
  "      zip64local_putValue_inmemory(zi->ci.central_header+4,(uLong)45 | ((uLong)(unsigned char)zi->ci.central_header[5] << 8),2);"
  # A streamed entry (general-purpose bit 3) is followed by a data descriptor; its local header keeps zeros.
  "    if (err==ZIP_OK)\n    {\n        // Update the LocalFileHeader with the new values."
  "    if (err==ZIP_OK && (zi->ci.flag & 8))\n    {\n        err = zip64local_putValue(&zi->z_filefunc,zi->filestream,(uLong)0x08074b50,4);\n        if (err==ZIP_OK)\n            err = zip64local_putValue(&zi->z_filefunc,zi->filestream,crc32,4);\n        if (err==ZIP_OK)\n            err = zip64local_putValue(&zi->z_filefunc,zi->filestream,compressed_size,zi->ci.pos_zip64extrainfo > 0 ? 8 : 4);\n        if (err==ZIP_OK)\n            err = zip64local_putValue(&zi->z_filefunc,zi->filestream,uncompressed_size,zi->ci.pos_zip64extrainfo > 0 ? 8 : 4);\n    }\n    else if (err==ZIP_OK)\n    {\n        // Update the LocalFileHeader with the new values."
  # ziputil_zipDiscard releases a handle without writing anything more, so a writer can undo its changes;
  # ziputil_zipMarkEntry and ziputil_zipUndoEntry take the handle back to where an entry began, so that a
  # failed entry leaves nothing of itself in the archive.
  "extern int ZEXPORT zipClose(zipFile file, const char* global_comment) {"
  "/* Releases the entry being written, if any, without finishing it. */\nlocal void ziputil_zipDropEntry(zip64_internal* zi) {\n    if (zi->in_opened_file_inzip == 1)\n    {\n        if (zi->ci.stream_initialised && zi->ci.method == Z_DEFLATED && !zi->ci.raw)\n            deflateEnd(&zi->ci.stream);\n        zi->ci.stream_initialised = 0;\n        free(zi->ci.central_header);\n        zi->ci.central_header = NULL;\n        zi->in_opened_file_inzip = 0;\n    }\n}\n\nextern int ZEXPORT ziputil_zipMarkEntry(zipFile file, ziputil_zipMark* mark) {\n    zip64_internal* zi;\n    if (file == NULL || mark == NULL)\n        return ZIP_PARAMERROR;\n    zi = (zip64_internal*)file;\n    if (zi->in_opened_file_inzip == 1)\n        return ZIP_PARAMERROR;\n    mark->offset = ZTELL64(zi->z_filefunc,zi->filestream);\n    if (mark->offset == (ZPOS64_T)-1)\n        return ZIP_ERRNO;\n    mark->entries = zi->number_entry;\n    mark->lastBlock = zi->central_dir.last_block;\n    mark->lastBlockFilled = zi->central_dir.last_block == NULL ? 0 : zi->central_dir.last_block->filled_in_this_block;\n    return ZIP_OK;\n}\n\nextern int ZEXPORT ziputil_zipUndoEntry(zipFile file, const ziputil_zipMark* mark) {\n    zip64_internal* zi;\n    linkedlist_datablock_internal* last;\n    if (file == NULL || mark == NULL)\n        return ZIP_PARAMERROR;\n    zi = (zip64_internal*)file;\n    ziputil_zipDropEntry(zi);\n    last = (linkedlist_datablock_internal*)mark->lastBlock;\n    if (last == NULL)\n        free_linkedlist(&zi->central_dir);\n    else\n    {\n        free_datablock(last->next_datablock);\n        last->next_datablock = NULL;\n        last->filled_in_this_block = mark->lastBlockFilled;\n        last->avail_in_this_block = SIZEDATA_INDATABLOCK - mark->lastBlockFilled;\n        zi->central_dir.last_block = last;\n    }\n    zi->number_entry = mark->entries;\n    if (ZSEEK64(zi->z_filefunc,zi->filestream,mark->offset,ZLIB_FILEFUNC_SEEK_SET) != 0)\n        return ZIP_ERRNO;\n    return ZIP_OK;\n}\n\nextern int ZEXPORT ziputil_zipDiscard(zipFile file) {\n    zip64_internal* zi;\n    int err = ZIP_OK;\n    if (file == NULL)\n        return ZIP_PARAMERROR;\n    zi = (zip64_internal*)file;\n    ziputil_zipDropEntry(zi);\n    free_linkedlist(&(zi->central_dir));\n    if (ZCLOSE64(zi->z_filefunc,zi->filestream) != 0)\n        err = ZIP_ERRNO;\n#ifndef NO_ADDFILEINEXISTINGZIP\n    free(zi->globalcomment);\n#endif\n    free(zi);\n    return err;\n}\n\nextern voidpf ZEXPORT ziputil_zipFileStream(zipFile file) {\n    return file == NULL ? NULL : ((zip64_internal*)file)->filestream;\n}\n\nextern int ZEXPORT zipClose(zipFile file, const char* global_comment) {"
  # In raw mode any method is accepted: the data comes as stored, so an entry of a method this build cannot
  # compress (bzip2, LZMA, AES-encrypted, ...) can still be copied from one archive into another.
  "    if ((method!=0) && (method!=Z_DEFLATED))\n      return ZIP_PARAMERROR;"
  "    if ((method!=0) && (method!=Z_DEFLATED) && !raw)\n      return ZIP_PARAMERROR;"
  # In raw mode the CRC-32 of the bytes written is never used: zipCloseFileInZipRaw64 records the caller's.
  "    zi->ci.crc32 = crc32(zi->ci.crc32,buf,(uInt)len);"
  "    if (!zi->ci.raw)\n        zi->ci.crc32 = crc32(zi->ci.crc32,buf,(uInt)len);")
set(ZIPUTIL_MINIZIP_INCLUDE_DIR "${_minizip_dir}")
set(ZIPUTIL_MINIZIP_HEADERS "${_minizip_dir}/ioapi.h" "${_minizip_dir}/unzip.h" "${_minizip_dir}/zip.h")
add_library(minizip STATIC "${_minizip_dir}/ioapi.c" "${_unzip_source}" "${_zip_fixed}")
set_target_properties(minizip PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
target_include_directories(minizip SYSTEM PUBLIC "$<BUILD_INTERFACE:${_minizip_dir}>")
target_include_directories(minizip PRIVATE "${_minizip_dir}")
# zip_fixed.c includes ziputil/MiniZipExtras.h (which includes minizip's headers as ziputil/minizip/<name>.h),
# unzip_isal.c ziputil/InflateIsal.h; the decoder itself is linked in ziputil/CMakeLists.txt.
target_include_directories(minizip PRIVATE "${PROJECT_SOURCE_DIR}" "${ZIPUTIL_GENERATED_INCLUDE_DIR}")
target_compile_options(minizip PRIVATE -w)
target_link_libraries(minizip PUBLIC ZLIB::ZLIB)
