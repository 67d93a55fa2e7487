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

# The same program through pkg-config alone.
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(
  COMMAND ${PKG_CONFIG} --cflags --libs zoproject-qt
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
run(${CXX_COMPILER} -std=c++17 ${cxx_flags} ${CONSUMER_SOURCE_DIR}/main.cpp ${flags}
  -Wl,-rpath,${prefix}/lib -o ${WORK_DIR}/consumer-pkgconfig)
run(${WORK_DIR}/consumer-pkgconfig)
run(${prefix}/bin/zoproject --version)
