# What `cmake --install` puts under the prefix: the host library and the
# module, the host interface and the program API headers, a CMake package
# (`find_package(zok CONFIG)` gives zok::host and zok::fluxtools) and a
# pkg-config file for the host.
include(CMakePackageConfigHelpers)

set(ZOK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zok)

install(TARGETS zokhost zok_fluxtools EXPORT zokTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/zok/zok.h ${PROJECT_SOURCE_DIR}/host/host.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zok)
install(EXPORT zokTargets NAMESPACE zok:: DESTINATION ${ZOK_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zokConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zokConfig.cmake INSTALL_DESTINATION ${ZOK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zokConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zokConfig.cmake ${PROJECT_BINARY_DIR}/zokConfigVersion.cmake
  DESTINATION ${ZOK_CMAKE_DIR})

# The pkg-config file finds the prefix from where it lies, so that an install
# with `--prefix` elsewhere is still right.
file(RELATIVE_PATH ZOK_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZOK_PC_TO_PREFIX "${ZOK_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zokhost.pc.in ${PROJECT_BINARY_DIR}/zokhost.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zokhost.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
