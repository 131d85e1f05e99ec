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
# The build compiles copies of unzip.c and zip.c, patched in the build tree;
# the source tree stays untouched. Each change to minizip is a patch file in
# third_party/minizip/patches/ (a unified diff against contrib/minizip, with a
# header saying what it changes, why, and which tests show it), applied in the
# order its `series` file gives; `series.isal` adds the ISA-L decoder's hook to
# a further copy of unzip.c. A patch that does not apply exactly (no fuzz)
# stops configuring with its name. Editing a patch or a series file makes the
# next build configure again.
find_program(ZIPUTIL_PATCH_PROGRAM patch)
if(NOT ZIPUTIL_PATCH_PROGRAM)
  message(FATAL_ERROR "GNU patch is needed to apply minizip's patches (Debian: apt-get install patch)")
endif()
set(_minizip_patches "${PROJECT_SOURCE_DIR}/third_party/minizip/patches")
# ziputil_apply_minizip_series(<dir> <series file>): applies the series' patches, in order, to the files in <dir>.
function(ziputil_apply_minizip_series dir series)
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_minizip_patches}/${series}")
  file(STRINGS "${_minizip_patches}/${series}" names REGEX "^[^#]")
  foreach(name IN LISTS names)
    set(patch_file "${_minizip_patches}/${name}")
    if(NOT EXISTS "${patch_file}")
      message(FATAL_ERROR "minizip patch ${name}, listed in ${series}, does not exist")
    endif()
    set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${patch_file}")
    execute_process(
      COMMAND "${ZIPUTIL_PATCH_PROGRAM}" --batch --forward --fuzz=0 --no-backup-if-mismatch --reject-file=- -p1
              -d "${dir}" -i "${patch_file}"
      RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "minizip patch ${name} (${series}) does not apply to ${_minizip_dir}:\n${output}")
    endif()
  endforeach()
endfunction()
# Patched copies of unzip.c and zip.c; configure_file writes them only when they change, so an unchanged
# series compiles nothing again.
set(_minizip_work "${CMAKE_CURRENT_BINARY_DIR}/minizip/work")
file(REMOVE_RECURSE "${_minizip_work}")
file(MAKE_DIRECTORY "${_minizip_work}")
file(COPY "${_minizip_dir}/unzip.c" "${_minizip_dir}/zip.c" DESTINATION "${_minizip_work}")
ziputil_apply_minizip_series("${_minizip_work}" series)
set(_unzip_patched "${CMAKE_CURRENT_BINARY_DIR}/minizip/unzip.c")
set(_zip_patched "${CMAKE_CURRENT_BINARY_DIR}/minizip/zip.c")
configure_file("${_minizip_work}/unzip.c" "${_unzip_patched}" COPYONLY)
configure_file("${_minizip_work}/zip.c" "${_zip_patched}" COPYONLY)
# Reading through ISA-L (ZIPUTIL_WITH_ISAL, on by default on x86-64): a further
# copy of unzip.c (series.isal on top of series) calls ziputil/codecs/InflateIsal.h's
# inflate and CRC-32 in place of zlib's, and hands that decoder a way to read an
# entry's compressed data again from its start (decrypted), with which zlib
# answers for damaged data exactly as it would have alone. Without ISA-L
# installed the build inflates with zlib.
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
set(_unzip_source "${_unzip_patched}")
if(ZIPUTIL_INFLATE_ISAL)
  set(_unzip_source "${CMAKE_CURRENT_BINARY_DIR}/minizip/isal/unzip.c")
  ziputil_apply_minizip_series("${_minizip_work}" series.isal)
  configure_file("${_minizip_work}/unzip.c" "${_unzip_source}" COPYONLY)
endif()
set(ZIPUTIL_MINIZIP_INCLUDE_DIR "${_minizip_dir}")
set(ZIPUTIL_MINIZIP_HEADERS "${_minizip_dir}/ioapi.h" "${_minizip_dir}/unzip.h" "${_minizip_dir}/zip.h")
add_library(minizip STATIC "${_minizip_dir}/ioapi.c" "${_unzip_source}" "${_zip_patched}")
set_target_properties(minizip PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
target_include_directories(minizip SYSTEM PUBLIC "$<BUILD_INTERFACE:${_minizip_dir}>")
target_include_directories(minizip PRIVATE "${_minizip_dir}")
# The patched zip.c includes ziputil/bridge/MiniZipExtras.h (which includes minizip's headers as
# ziputil/minizip/<name>.h), the ISA-L copy of unzip.c ziputil/codecs/InflateIsal.h; the decoder itself is linked in
# ziputil/CMakeLists.txt.
target_include_directories(minizip PRIVATE "${PROJECT_SOURCE_DIR}" "${ZIPUTIL_GENERATED_INCLUDE_DIR}")
target_compile_options(minizip PRIVATE -w)
target_link_libraries(minizip PUBLIC ZLIB::ZLIB)

# The methods the reader decodes itself beside stored and deflated (bzip2, LZMA
# and xz, zstd; Deflate64 is the library's own), and WinZip AES encryption
# (libcrypto's PBKDF2, AES and HMAC). All are linked privately into
# libziputil.so: a consumer's link needs none of them.
find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
find_package(BZip2 REQUIRED)
find_package(LibLZMA 5.4 REQUIRED) # LZMA1 with a known size and an optional end marker came with 5.4
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd>=1.4)
