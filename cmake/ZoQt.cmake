# The Qt the project builds against. ZO_QT names Qt's package and target namespace (Qt5, Qt6).
# Built against Qt 6, the Qt library, its CMake package and its pkg-config file carry the
# suffix "6" (ZO_QT_SUFFIX), so that both builds can be installed into one prefix; the
# Qt 5 names stay as they were.
if(ZO_QT_MAJOR_VERSION STREQUAL "5")
  set(ZO_QT_MINIMUM_VERSION 5.15)
  set(ZO_QT_SUFFIX "")
elseif(ZO_QT_MAJOR_VERSION STREQUAL "6")
  set(ZO_QT_MINIMUM_VERSION 6.4)
  set(ZO_QT_SUFFIX 6)
else()
  message(FATAL_ERROR "ZO_QT_MAJOR_VERSION is 5 or 6, not \"${ZO_QT_MAJOR_VERSION}\"")
endif()
set(ZO_QT Qt${ZO_QT_MAJOR_VERSION})
set(ZO_PACKAGE_NAME ZoProjectQt${ZO_QT_SUFFIX})
find_package(${ZO_QT} ${ZO_QT_MINIMUM_VERSION} REQUIRED COMPONENTS Core)
