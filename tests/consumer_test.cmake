# Installs the build trees BUILD_DIRS into one fresh prefix, the first whole and the others
# (built against another Qt) with their QtLibrary component only, which must add files of its
# own and overwrite none. Then, for each build, configures, builds and runs the consumer
# project and a pkg-config build of it against that prefix, with Boost's and libarchive's
# headers, CMake packages and pkg-config files hidden: a consumer needs only Qt's development
# files. Hiding takes a mount namespace; where unshare is refused, the consumer builds are
# skipped.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}")
  endif()
endfunction()

# Installs a build tree into the prefix without listing every file; its manifest lists them.
function(install_build build_dir)
  execute_process(COMMAND ${CMAKE_COMMAND} --install ${build_dir} --prefix ${prefix} ${ARGN}
    OUTPUT_QUIET RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): installing ${build_dir} ${ARGN}")
  endif()
endfunction()

set(other_builds ${BUILD_DIRS})
list(POP_FRONT other_builds first_build)
install_build(${first_build})
file(STRINGS ${first_build}/install_manifest.txt installed_before)
foreach(build_dir ${other_builds})
  install_build(${build_dir} --component QtLibrary)
  file(STRINGS ${build_dir}/install_manifest_QtLibrary.txt installed)
  foreach(file ${installed})
    if(file IN_LIST installed_before)
      message(FATAL_ERROR "installed by both builds: ${file}")
    endif()
  endforeach()
  list(APPEND installed_before ${installed})
endforeach()

# Sets the build's cache entries the test needs (build_...), the suffix of its package name
# and its library directory (lib, relative; libdir, in the prefix).
macro(read_build build_dir)
  load_cache(${build_dir} READ_WITH_PREFIX build_
    ZO_QT_MAJOR_VERSION CMAKE_CXX_FLAGS CMAKE_CXX_COMPILER CMAKE_GENERATOR CMAKE_INSTALL_LIBDIR)
  if(build_ZO_QT_MAJOR_VERSION EQUAL 5)
    set(suffix "")
  else()
    set(suffix ${build_ZO_QT_MAJOR_VERSION})
  endif()
  set(lib ${build_CMAKE_INSTALL_LIBDIR})
  set(libdir ${prefix}/${lib})
endmacro()

foreach(build_dir ${BUILD_DIRS})
  read_build(${build_dir})
  foreach(installed
      include/zo/project/project.h include/zo/project/version.h
      include/zo/project/exceptions.h include/zo/project/zoprojectqt_export.h
      ${lib}/cmake/ZoProjectQt${suffix}/ZoProjectQt${suffix}Config.cmake
      ${lib}/cmake/ZoProjectQt${suffix}/ZoProjectQt${suffix}ConfigVersion.cmake
      ${lib}/pkgconfig/zoproject-qt${suffix}.pc bin/zoproject)
    if(NOT EXISTS ${prefix}/${installed})
      message(FATAL_ERROR "not installed: ${installed}")
    endif()
  endforeach()
endforeach()
run(${prefix}/bin/zoproject --version)

execute_process(COMMAND unshare --mount true RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
if(NOT rc EQUAL 0)
  message("consumer: skipped, unshare --mount is not allowed here")
  return()
endif()

# Runs a command in a mount namespace where the private dependencies' development files are
# bind-mounted over by empty ones.
file(GLOB hidden /usr/include/boost /usr/include/archive.h /usr/include/archive_entry.h
  /usr/lib/*/cmake/[Bb]oost* /usr/lib/cmake/[Bb]oost* /usr/lib/*/pkgconfig/libarchive.pc
  /usr/lib/pkgconfig/libarchive.pc /usr/share/pkgconfig/libarchive.pc)
file(MAKE_DIRECTORY ${WORK_DIR}/empty)
set(hide_script "set -e\n")
foreach(path ${hidden})
  if(IS_DIRECTORY ${path})
    string(APPEND hide_script "mount --bind '${WORK_DIR}/empty' '${path}'\n")
  else()
    string(APPEND hide_script "mount --bind /dev/null '${path}'\n")
  endif()
endforeach()
string(APPEND hide_script "exec \"$@\"\n")
file(WRITE ${WORK_DIR}/hide.sh "${hide_script}")
function(run_hidden)
  run(unshare --mount sh ${WORK_DIR}/hide.sh ${ARGN})
endfunction()

foreach(build_dir ${BUILD_DIRS})
  read_build(${build_dir})
  set(work ${WORK_DIR}/qt${build_ZO_QT_MAJOR_VERSION})
  run_hidden(${CMAKE_COMMAND} -S ${CONSUMER_SOURCE_DIR} -B ${work} -G ${build_CMAKE_GENERATOR}
    -DZO_PACKAGE=ZoProjectQt${suffix} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${build_CMAKE_CXX_COMPILER} -DCMAKE_CXX_FLAGS=${build_CMAKE_CXX_FLAGS})
  run_hidden(${CMAKE_COMMAND} --build ${work})
  run(${work}/consumer)

  # The same program through pkg-config alone.
  find_program(PKG_CONFIG pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
  execute_process(
    COMMAND unshare --mount sh ${WORK_DIR}/hide.sh
      ${PKG_CONFIG} --cflags --libs zoproject-qt${suffix}
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  separate_arguments(cxx_flags UNIX_COMMAND "${build_CMAKE_CXX_FLAGS}")
  run_hidden(${build_CMAKE_CXX_COMPILER} -std=c++17 ${cxx_flags}
    ${CONSUMER_SOURCE_DIR}/main.cpp ${flags} -Wl,-rpath,${libdir} -o ${work}/consumer-pkgconfig)
  run(${work}/consumer-pkgconfig)
endforeach()
