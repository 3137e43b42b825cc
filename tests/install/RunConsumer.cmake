# cmake -DVFS_BUILD_DIR=... -DCONSUMER_SOURCE_DIR=... -DWORK_DIR=... -DGENERATOR=... -DCXX_COMPILER=...
#       [-DMAKE_PROGRAM=...] [-DBUILD_TYPE=...] [-DCXX_FLAGS=...] [-DEXE_LINKER_FLAGS=...] [-DDEB=ON]
#       -P RunConsumer.cmake
#
# Installs VFS_BUILD_DIR into a scratch prefix, then configures, builds and runs the consumer
# project against that prefix. With DEB, the build is packaged by `cpack -G DEB` and the package's
# files are unpacked (dpkg-deb -x) as the prefix instead, and the packaged tool is run from there,
# which it can only do by finding the library beside it. Any failing step fails the script with
# the step's output.
foreach(required VFS_BUILD_DIR CONSUMER_SOURCE_DIR WORK_DIR GENERATOR CXX_COMPILER)
  if(NOT ${required})
    message(FATAL_ERROR "RunConsumer.cmake: ${required} is not set")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/build)
file(REMOVE_RECURSE ${WORK_DIR})

function(run_step name)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${name} failed (${result}):\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

if(DEB)
  run_step(package cpack -G DEB --config ${VFS_BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}/package)
  file(GLOB debs ${WORK_DIR}/package/*.deb)
  list(LENGTH debs count)
  if(NOT count EQUAL 1)
    message(FATAL_ERROR "cpack made ${count} .deb files: ${debs}")
  endif()
  run_step(unpack dpkg-deb -x ${debs} ${WORK_DIR}/root)
  run_step(fields dpkg-deb -f ${debs} Depends)
  message(STATUS "package depends on: ${step_output}")
  set(prefix ${WORK_DIR}/root/usr)
  file(GLOB_RECURSE private_headers ${prefix}/include/*/detail/*)
  if(private_headers)
    message(FATAL_ERROR "the package holds private headers: ${private_headers}")
  endif()
  run_step(tool ${prefix}/bin/vfs stat mem://scratch/)
else()
  run_step(install ${CMAKE_COMMAND} --install ${VFS_BUILD_DIR} --prefix ${prefix})
endif()

set(configure_args
  -S ${CONSUMER_SOURCE_DIR} -B ${consumer_build} -G ${GENERATOR}
  -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
  -DCMAKE_PREFIX_PATH=${prefix}
  # Only the scratch prefix may satisfy find_package(vfs), never a registry entry or the build tree.
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF
  "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}"
  "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
  "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}")
if(MAKE_PROGRAM)
  list(APPEND configure_args -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()
run_step(configure ${CMAKE_COMMAND} ${configure_args})

file(STRINGS ${consumer_build}/CMakeCache.txt found_dir REGEX "^vfs_DIR:")
string(REGEX REPLACE "^vfs_DIR:[A-Z]+=" "" found_dir "${found_dir}")
file(REAL_PATH "${found_dir}" found_dir)
file(REAL_PATH "${prefix}" real_prefix)
string(FIND "${found_dir}" "${real_prefix}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "find_package(vfs) used ${found_dir}, not the installed package under ${real_prefix}")
endif()

run_step(build ${CMAKE_COMMAND} --build ${consumer_build})
run_step(run ${consumer_build}/app)
message(STATUS "consumer: ${step_output}")
