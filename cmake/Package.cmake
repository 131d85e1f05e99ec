# The installed package: a CMake config (find_package(ziputil) gives
# ziputil::ziputil and tal::tal) and pkg-config files for both libraries.
include(CMakePackageConfigHelpers)
set(_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ziputil)
configure_package_config_file(cmake/ziputilConfig.cmake.in ${PROJECT_BINARY_DIR}/ziputilConfig.cmake
  INSTALL_DESTINATION ${_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ziputilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ziputilConfig.cmake ${PROJECT_BINARY_DIR}/ziputilConfigVersion.cmake
  DESTINATION ${_cmake_dir})

execute_process(COMMAND ${WX_CONFIG} --cxxflags OUTPUT_VARIABLE ZIPUTIL_WX_CFLAGS OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${WX_CONFIG} --libs base OUTPUT_VARIABLE ZIPUTIL_WX_LIBS OUTPUT_STRIP_TRAILING_WHITESPACE)
# The .pc files find the prefix relative to themselves, so the installed tree
# can be moved (or installed with --prefix) without editing them.
file(RELATIVE_PATH ZIPUTIL_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
foreach(_pc tal ziputil)
  configure_file(cmake/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
