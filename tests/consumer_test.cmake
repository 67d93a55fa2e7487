# Installs BUILD_DIR into a fresh prefix, then configures, builds and runs the consumer project
# against that prefix only.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(installed
    include/zo/log.h include/zo/zo_export.h include/zo/project/project.h
    include/zo/project/exceptions.h include/zo/project/fileutils.h
    lib/cmake/ZoProjectQt/ZoProjectQtConfig.cmake
    lib/cmake/ZoProjectQt/ZoProjectQtConfigVersion.cmake
    lib/pkgconfig/zoproject-qt.pc bin/zoproject)
  if(NOT EXISTS ${prefix}/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_FLAGS=${CXX_FLAGS})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
run(${prefix}/bin/zoproject --version)
