# The installed package: a CMake config (find_package(ziputil) gives
# ziputil::ziputil and tal::tal, and finds zlib and the wxWidgets base library
# for the consumer), pkg-config files for both libraries, the licences and the
# change log, and Debian packages made by `cpack -G DEB`.
#
# Install components (one Debian package each):
#   libraries    libziputil.so.N and libtal.so.N, the licences, the change log
#   development  headers, the CMake package, the .pc files, the .so links
#   program      the ziputil program and what comes with it
include(CMakePackageConfigHelpers)
set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ziputil)
execute_process(COMMAND ${WX_CONFIG} --version OUTPUT_VARIABLE ZIPUTIL_WX_VERSION OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "^[0-9]+\\.[0-9]+" ZIPUTIL_WX_MAJOR_MINOR "${ZIPUTIL_WX_VERSION}")
string(REPLACE "." "\\\\." ZIPUTIL_WX_MAJOR_MINOR "${ZIPUTIL_WX_MAJOR_MINOR}")
configure_package_config_file(cmake/ziputilConfig.cmake.in ${PROJECT_BINARY_DIR}/ziputilConfig.cmake
  INSTALL_DESTINATION ${_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ziputilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ziputilConfig.cmake ${PROJECT_BINARY_DIR}/ziputilConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/ziputilWxBase.cmake
  DESTINATION ${_cmake_dir} COMPONENT development)

# wxWidgets has no .pc file on Debian: tal.pc carries wx-config's flags, its
# include folders as -isystem.
ziputil_wx_base_pc_flags(ZIPUTIL_WX_PC_CFLAGS ZIPUTIL_WX_PC_LIBS "${WX_CONFIG}")
# The .pc files find the prefix relative to themselves, so the installed tree
# can be moved (or installed with --prefix) without editing them.
file(RELATIVE_PATH ZIPUTIL_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(_pc tal ziputil)
  configure_file(cmake/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# Licences and change log: the project's own LICENSE, and minizip's notice
# (compiled into libziputil.so) as its headers carry it.
set(_minizip_notice "${PROJECT_BINARY_DIR}/doc/LICENSE.minizip")
string(CONCAT _notice
  "libziputil.so contains minizip from zlib 1.3.1's contrib/minizip (ioapi.c, unzip.c, zip.c),\n"
  "compiled with the changes described in the project's README. Its notices, as its headers carry them:\n")
foreach(_h ioapi.h unzip.h zip.h)
  file(READ "${_minizip_dir}/${_h}" _text)
  string(FIND "${_text}" "*/" _end)
  if(_end EQUAL -1)
    message(FATAL_ERROR "${_minizip_dir}/${_h}: no leading comment holding the licence notice")
  endif()
  math(EXPR _end "${_end} + 2")
  string(SUBSTRING "${_text}" 0 ${_end} _text)
  string(APPEND _notice "\n==> contrib/minizip/${_h} <==\n${_text}\n")
endforeach()
file(WRITE "${_minizip_notice}.tmp" "${_notice}")
configure_file("${_minizip_notice}.tmp" "${_minizip_notice}" COPYONLY)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${_minizip_notice}
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT libraries)

# cpack -G DEB (from a tree configured with -DCMAKE_INSTALL_PREFIX=/usr):
# libziputil<N> (the two libraries), libziputil-dev, ziputil (the program).
set(CPACK_PACKAGE_NAME ziputil)
set(CPACK_PACKAGE_VENDOR "the ziputil developers")
set(CPACK_PACKAGE_CONTACT "the ziputil developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: each package's synopsis is the first
# line of its component's description.
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libraries development program)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS libraries)
set(CPACK_COMPONENT_PROGRAM_DEPENDS libraries)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Stripped, as Debian ships libraries and programs.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds the project's own libraries in the build tree; the
# program's dependency on them is the component dependency above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/tal ${PROJECT_BINARY_DIR}/ziputil)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME libziputil${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
# A shlibs file (and ldconfig triggers) for the package that holds the libraries.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION "ZIP archive reading and writing for tal applications (libraries)
libziputil reads and writes ZIP archives through minizip over any tal file system;
libtal is the foundation framework it builds on.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libziputil-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers include zlib's and wxWidgets' (Debian 12 ships wx-config, wx/setup.h and the
# libwx_baseu link only in libwxgtk3.2-dev; only the base library is linked).
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "zlib1g-dev, libwxgtk3.2-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "ZIP archive reading and writing for tal applications (development files)
Headers, the CMake package (find_package(ziputil)) and the pkg-config files
(ziputil, tal).")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME ziputil)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "ZIP archive tool over libziputil
Lists, tests, extracts and adds to ZIP archives.")
include(CPack)
