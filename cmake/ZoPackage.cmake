# The installed CMake package and pkg-config file.
set(ZO_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZoProjectQt)

install(EXPORT ZoProjectQtTargets
  NAMESPACE Zo::
  FILE ZoProjectQtTargets.cmake
  DESTINATION ${ZO_CMAKE_INSTALL_DIR})

configure_package_config_file(cmake/ZoProjectQtConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZoProjectQtConfig.cmake
  INSTALL_DESTINATION ${ZO_CMAKE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZoProjectQtConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZoProjectQtConfig.cmake
  ${PROJECT_BINARY_DIR}/ZoProjectQtConfigVersion.cmake
  DESTINATION ${ZO_CMAKE_INSTALL_DIR})

file(RELATIVE_PATH ZO_PKGCONFIG_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZO_PKGCONFIG_TO_PREFIX "${ZO_PKGCONFIG_TO_PREFIX}")
configure_file(cmake/zoproject-qt.pc.in ${PROJECT_BINARY_DIR}/zoproject-qt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zoproject-qt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
