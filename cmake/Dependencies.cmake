# Third-party dependencies: zlib, the wxWidgets base library (through
# wx-config) and minizip, compiled from zlib 1.3.1's contrib/minizip.

find_package(ZLIB REQUIRED)
find_package(Threads REQUIRED)

# wxWidgets base library. Only `wx-config --libs base` is linked.
find_program(WX_CONFIG wx-config REQUIRED)
execute_process(COMMAND ${WX_CONFIG} --cxxflags OUTPUT_VARIABLE _wx_cxxflags OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${WX_CONFIG} --libs base OUTPUT_VARIABLE _wx_libs OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(_wx_cxxflags UNIX_COMMAND "${_wx_cxxflags}")
separate_arguments(_wx_libs UNIX_COMMAND "${_wx_libs}")
set(_wx_includes "")
set(_wx_defines "")
set(_wx_options "")
foreach(flag IN LISTS _wx_cxxflags)
  if(flag MATCHES "^-I(.*)")
    list(APPEND _wx_includes "${CMAKE_MATCH_1}")
  elseif(flag MATCHES "^-D(.*)")
    list(APPEND _wx_defines "${CMAKE_MATCH_1}")
  else()
    list(APPEND _wx_options "${flag}")
  endif()
endforeach()
add_library(wxbase INTERFACE)
target_include_directories(wxbase SYSTEM INTERFACE ${_wx_includes})
target_compile_definitions(wxbase INTERFACE ${_wx_defines})
target_compile_options(wxbase INTERFACE ${_wx_options})
target_link_libraries(wxbase INTERFACE ${_wx_libs} Threads::Threads)

# minizip: fetched on demand into third_party/ (ignored by git).
set(ZIPUTIL_ZLIB_SOURCE_DIR "${CMAKE_CURRENT_SOURCE_DIR}/third_party/zlib-src" CACHE PATH
    "zlib 1.3.1 source tree holding contrib/minizip")
set(_minizip_dir "${ZIPUTIL_ZLIB_SOURCE_DIR}/contrib/minizip")
if(NOT EXISTS "${_minizip_dir}/unzip.c")
  message(STATUS "minizip sources missing: fetching them")
  execute_process(COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/scripts/fetch-minizip.sh" "${ZIPUTIL_ZLIB_SOURCE_DIR}"
                  COMMAND_ERROR_IS_FATAL ANY)
endif()
# Stock unzip.c switches decryption off unconditionally (it defines NOUNCRYPT
# itself); a copy in the build tree without that definition reads encrypted
# entries. Nothing else is changed.
file(READ "${_minizip_dir}/unzip.c" _unzip_c)
string(REGEX REPLACE "#ifndef NOUNCRYPT[ \t\r\n]+#define NOUNCRYPT[ \t\r\n]+#endif" "" _unzip_c_crypt "${_unzip_c}")
if(_unzip_c_crypt STREQUAL _unzip_c)
  message(FATAL_ERROR "unzip.c: the NOUNCRYPT definition to remove was not found")
endif()
set(_unzip_crypt "${CMAKE_CURRENT_BINARY_DIR}/minizip/unzip_crypt.c")
file(WRITE "${_unzip_crypt}.tmp" "${_unzip_c_crypt}")
configure_file("${_unzip_crypt}.tmp" "${_unzip_crypt}" COPYONLY)
set(ZIPUTIL_MINIZIP_INCLUDE_DIR "${_minizip_dir}")
set(ZIPUTIL_MINIZIP_HEADERS "${_minizip_dir}/ioapi.h" "${_minizip_dir}/unzip.h" "${_minizip_dir}/zip.h")
add_library(minizip STATIC "${_minizip_dir}/ioapi.c" "${_unzip_crypt}" "${_minizip_dir}/zip.c")
set_target_properties(minizip PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
target_include_directories(minizip SYSTEM PUBLIC "$<BUILD_INTERFACE:${_minizip_dir}>")
target_include_directories(minizip PRIVATE "${_minizip_dir}")
target_compile_options(minizip PRIVATE -w)
target_link_libraries(minizip PUBLIC ZLIB::ZLIB)
