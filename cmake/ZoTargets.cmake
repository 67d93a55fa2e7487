# Compiler settings shared by every target the project builds itself.
add_library(zo_warnings INTERFACE)
target_compile_options(zo_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

# zo_add_library(<target> EXPORT_NAME <name> EXPORT_HEADER <include path> SOURCES ...)
# Builds one of the installed shared libraries: hidden visibility, a generated export header
# under the build tree's include directory, and the public include directory.
function(zo_add_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;EXPORT_HEADER;EXPORT_MACRO" "SOURCES" ${ARGN})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(Zo::${ARG_EXPORT_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${ARG_EXPORT_NAME}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  generate_export_header(${target}
    BASE_NAME ${ARG_EXPORT_MACRO}
    EXPORT_FILE_NAME ${PROJECT_BINARY_DIR}/include/${ARG_EXPORT_HEADER})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:zo_warnings>)
  install(TARGETS ${target} EXPORT ZoProjectQtTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  cmake_path(GET ARG_EXPORT_HEADER PARENT_PATH export_header_dir)
  install(FILES ${PROJECT_BINARY_DIR}/include/${ARG_EXPORT_HEADER}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${export_header_dir})
endfunction()

# zo_add_test(<name> SOURCES ... LIBRARIES ...)
# One GoogleTest executable with the shared test main (it creates a QCoreApplication).
function(zo_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zo_test_main zo_warnings ${ARG_LIBRARIES})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
