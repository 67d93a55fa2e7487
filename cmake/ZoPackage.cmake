# The installed CMake package and pkg-config file, named after the Qt they were built with.
# They belong to the QtLibrary component with the Qt library itself: installing that component
# of a second Qt build beside a complete install of the first adds only files of its own.
set(ZO_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${ZO_PACKAGE_NAME})

install(EXPORT ZoProjectQtTargets
  NAMESPACE Zo::
  FILE ${ZO_PACKAGE_NAME}Targets.cmake
  DESTINATION ${ZO_CMAKE_INSTALL_DIR}
  COMPONENT QtLibrary)

configure_package_config_file(cmake/ZoProjectQtConfig.cmake.in
  ${PROJECT_BINARY_DIR}/${ZO_PACKAGE_NAME}Config.cmake
  INSTALL_DESTINATION ${ZO_CMAKE_INSTALL_DIR})
# Before 1.0 a minor release may break the API, so only the same minor version is compatible.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(ZO_COMPATIBILITY SameMinorVersion)
else()
  set(ZO_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${ZO_PACKAGE_NAME}ConfigVersion.cmake
  COMPATIBILITY ${ZO_COMPATIBILITY})
install(FILES
  ${PROJECT_BINARY_DIR}/${ZO_PACKAGE_NAME}Config.cmake
  ${PROJECT_BINARY_DIR}/${ZO_PACKAGE_NAME}ConfigVersion.cmake
  DESTINATION ${ZO_CMAKE_INSTALL_DIR}
  COMPONENT QtLibrary)

file(RELATIVE_PATH ZO_PKGCONFIG_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZO_PKGCONFIG_TO_PREFIX "${ZO_PKGCONFIG_TO_PREFIX}")
set(ZO_PKGCONFIG_NAME zoproject-qt${ZO_QT_SUFFIX})
configure_file(cmake/zoproject-qt.pc.in ${PROJECT_BINARY_DIR}/${ZO_PKGCONFIG_NAME}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/${ZO_PKGCONFIG_NAME}.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT QtLibrary)

install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Common)
