# The reference manual: the docs target runs Doxygen over the public headers, then fails on a
# warning about a header of ZO_DOCS_CHECKED (an undocumented public symbol, a broken reference).
# The manual is installed under the documentation directory.
find_package(Doxygen 1.9 REQUIRED)

set(ZO_DOCS_HEADERS_DIRS base/include project/include qt/include)
set(ZO_DOCS_CHECKED ${ZO_DOCS_HEADERS_DIRS})

set(ZO_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
list(TRANSFORM ZO_DOCS_HEADERS_DIRS PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE roots)
set(ZO_DOCS_INCLUDE_ROOTS "${roots};${PROJECT_BINARY_DIR}/include")
list(JOIN ZO_DOCS_INCLUDE_ROOTS " " ZO_DOCS_INCLUDE_ROOTS)
set(ZO_DOCS_INPUT "${roots};${PROJECT_BINARY_DIR}/include/zo/project/version.h;${PROJECT_SOURCE_DIR}/README.md")
list(JOIN ZO_DOCS_INPUT " " ZO_DOCS_INPUT)
configure_file(docs/Doxyfile.in ${ZO_DOCS_OUTPUT}/Doxyfile @ONLY)

list(TRANSFORM ZO_DOCS_CHECKED PREPEND ${PROJECT_SOURCE_DIR}/)
list(TRANSFORM roots APPEND /*.h OUTPUT_VARIABLE header_patterns)
file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${header_patterns})
add_custom_command(OUTPUT ${ZO_DOCS_OUTPUT}/html/index.html
  COMMAND ${CMAKE_COMMAND} -E rm -f ${ZO_DOCS_OUTPUT}/warnings.log
  COMMAND Doxygen::doxygen ${ZO_DOCS_OUTPUT}/Doxyfile
  COMMAND ${CMAKE_COMMAND} -DLOG=${ZO_DOCS_OUTPUT}/warnings.log
    "-DCHECKED=${ZO_DOCS_CHECKED};${PROJECT_BINARY_DIR}/include;${PROJECT_SOURCE_DIR}/README.md"
    -DSTRICT=${ZO_WARNINGS_AS_ERRORS}
    -P ${PROJECT_SOURCE_DIR}/cmake/ZoDocsCheck.cmake
  DEPENDS ${headers} ${ZO_DOCS_OUTPUT}/Doxyfile ${PROJECT_SOURCE_DIR}/README.md
    ${PROJECT_BINARY_DIR}/include/zo/project/version.h ${PROJECT_SOURCE_DIR}/cmake/ZoDocsCheck.cmake
  COMMENT "Building the reference manual"
  VERBATIM)
add_custom_target(docs ALL DEPENDS ${ZO_DOCS_OUTPUT}/html/index.html)
install(DIRECTORY ${ZO_DOCS_OUTPUT}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Common)
