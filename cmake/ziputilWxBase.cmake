# The wxWidgets base library as an INTERFACE target, from wx-config (Debian
# ships no pkg-config or CMake file for it). Only `wx-config --libs base` is
# linked; its headers come in as system headers, so the project's and its
# users' warning flags do not reach them. Used by the build and by the
# installed CMake package alike.
#
# ziputil_wx_base(<target> <wx-config program> [IMPORTED])
function(ziputil_wx_base target wx_config)
  execute_process(COMMAND "${wx_config}" --cxxflags OUTPUT_VARIABLE cxxflags OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE cxxflags_result)
  execute_process(COMMAND "${wx_config}" --libs base OUTPUT_VARIABLE libs OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE libs_result)
  if(NOT cxxflags_result EQUAL 0 OR NOT libs_result EQUAL 0)
    message(FATAL_ERROR "${wx_config} failed: the wxWidgets base library's flags are unknown")
  endif()
  separate_arguments(cxxflags UNIX_COMMAND "${cxxflags}")
  separate_arguments(libs UNIX_COMMAND "${libs}")
  set(includes "")
  set(defines "")
  set(options "")
  foreach(flag IN LISTS cxxflags)
    if(flag MATCHES "^-I(.*)")
      list(APPEND includes "${CMAKE_MATCH_1}")
    elseif(flag MATCHES "^-D(.*)")
      list(APPEND defines "${CMAKE_MATCH_1}")
    else()
      list(APPEND options "${flag}")
    endif()
  endforeach()
  if("${ARGN}" STREQUAL "IMPORTED")
    add_library(${target} INTERFACE IMPORTED)
  else()
    add_library(${target} INTERFACE)
  endif()
  target_include_directories(${target} SYSTEM INTERFACE ${includes})
  target_compile_definitions(${target} INTERFACE ${defines})
  target_compile_options(${target} INTERFACE ${options})
  target_link_libraries(${target} INTERFACE ${libs} Threads::Threads)
endfunction()

# ziputil_wx_base_pc_flags(<cflags variable> <libs variable> <wx-config program>):
# the same flags for a pkg-config file, each include folder given with
# -isystem (joined to its folder, so that no tool splits or merges the pair).
function(ziputil_wx_base_pc_flags cflags_var libs_var wx_config)
  execute_process(COMMAND "${wx_config}" --cxxflags OUTPUT_VARIABLE cxxflags OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND "${wx_config}" --libs base OUTPUT_VARIABLE libs OUTPUT_STRIP_TRAILING_WHITESPACE
                  COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(cxxflags UNIX_COMMAND "${cxxflags}")
  set(out "")
  foreach(flag IN LISTS cxxflags)
    if(flag MATCHES "^-I(.*)")
      list(APPEND out "-isystem${CMAKE_MATCH_1}")
    else()
      list(APPEND out "${flag}")
    endif()
  endforeach()
  list(JOIN out " " out)
  string(REGEX REPLACE "[ \t]+" " " libs "${libs}")
  set(${cflags_var} "${out}" PARENT_SCOPE)
  set(${libs_var} "${libs}" PARENT_SCOPE)
endfunction()
