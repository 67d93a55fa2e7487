# Compiler settings shared by every target the project builds itself.
add_library(zo_warnings INTERFACE)
target_compile_options(zo_warnings INTERFACE -Wall -Wextra -Wpedantic
  $<$<BOOL:${ZO_WARNINGS_AS_ERRORS}>:-Werror>)

# The ABI may change with every minor release before 1.0, with every major release after.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(ZO_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
else()
  set(ZO_SOVERSION ${PROJECT_VERSION_MAJOR})
endif()

# zo_add_library(<target> EXPORT_NAME <name> EXPORT_MACRO <macro> EXPORT_HEADER <include path>
#                COMPONENT <install component> [SOURCES ...])
# Builds one of the installed shared libraries: hidden visibility, a generated export header
# under the build tree's include directory, and the public include directory. The headers go
# to the Common install component whatever the library's own component.
function(zo_add_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;EXPORT_HEADER;EXPORT_MACRO;COMPONENT" "SOURCES" ${ARGN})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(Zo::${ARG_EXPORT_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${ARG_EXPORT_NAME}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${ZO_SOVERSION}
    INSTALL_RPATH "$ORIGIN")
  generate_export_header(${target}
    BASE_NAME ${ARG_EXPORT_MACRO}
    EXPORT_FILE_NAME ${PROJECT_BINARY_DIR}/include/${ARG_EXPORT_HEADER})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:zo_warnings>)
  install(TARGETS ${target} EXPORT ZoProjectQtTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${ARG_COMPONENT}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${ARG_COMPONENT})
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Common)
  cmake_path(GET ARG_EXPORT_HEADER PARENT_PATH export_header_dir)
  install(FILES ${PROJECT_BINARY_DIR}/include/${ARG_EXPORT_HEADER}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${export_header_dir} COMPONENT Common)
endfunction()

# zo_add_test(<name> SOURCES ... LIBRARIES ... [TIMEOUT seconds])
# One GoogleTest executable with the shared test main (it creates a QCoreApplication). Each
# test may take 120 seconds unless TIMEOUT says otherwise.
function(zo_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zo_test_main zo_warnings ${ARG_LIBRARIES})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

# <zo/project/version.h>, beside the generated export headers.
configure_file(cmake/version.h.in ${PROJECT_BINARY_DIR}/include/zo/project/version.h @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/include/zo/project/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zo/project COMPONENT Common)
