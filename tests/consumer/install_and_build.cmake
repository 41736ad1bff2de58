# Run by ctest: install BUILD_DIR into WORK_DIR/prefix, after the other
# target's build (OTHER_BUILD_DIR) when that has been built, so that both
# share the prefix as they do in a system with both architectures. Then
# build and run the consumer with find_package (versions 5 and 5.2; 5.3 must
# be refused) and with pkg-config, with the target's C flags (-m32 for i386).
cmake_minimum_required(VERSION 3.21)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(GLOB other_libraries ${OTHER_BUILD_DIR}/lib/libkelrt7.so*)
if(other_libraries)
  run(${CMAKE_COMMAND} --install ${OTHER_BUILD_DIR} --prefix ${prefix})
  file(GLOB other_libdir LIST_DIRECTORIES true ${prefix}/lib/*-linux-gnu)
else()
  message(STATUS "${OTHER_BUILD_DIR} is not built: only this target is installed")
endif()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Each target's files in its own multiarch folder; neither install overwrote
# the other's.
set(libdir ${prefix}/lib/${LIBRARY_ARCHITECTURE})
foreach(dir IN LISTS libdir other_libdir)
  foreach(name IN ITEMS libkelrt7.so libkelrt7.so.5.2 libkelcore.so libkelcore.so.5.2
      pkgconfig/kelrt7.pc cmake/kelrt7/kelrt7Config.cmake)
    if(NOT EXISTS ${dir}/${name})
      message(FATAL_ERROR "not installed: ${dir}/${name}")
    endif()
  endforeach()
endforeach()
foreach(file IN ITEMS include/kelr.h include/kelcore.h)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

# find_package: any 5.x at least 5.2 is accepted, a later minor version is not
# there yet; the version file also picks this target's pointer size.
foreach(version IN ITEMS 5 5.2 5.3)
  set(build ${WORK_DIR}/cmake-${version})
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${PROJECT_DIR} -B ${build}
    -DKELRT7_VERSION=${version}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${C_COMPILER}
    "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${C_FLAGS}"
    -DCMAKE_LIBRARY_ARCHITECTURE=${LIBRARY_ARCHITECTURE}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(version STREQUAL "5.3")
    if(rc EQUAL 0)
      message(FATAL_ERROR "find_package(kelrt7 5.3) accepted version 5.2")
    endif()
    continue()
  endif()
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "find_package(kelrt7 ${version}) failed:\n${out}${err}")
  endif()
  run(${CMAKE_COMMAND} --build ${build})
  run(${build}/consumer)
  message(STATUS "find_package(kelrt7 ${version}): ${run_output}")
endforeach()

# pkg-config, as the README's recipe: the rpath lets the program start from
# a prefix outside the loader's paths.
find_program(PKG_CONFIG NAMES pkgconf pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
run(${PKG_CONFIG} --cflags --libs kelrt7)
string(STRIP "${run_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run(${PKG_CONFIG} --variable=libdir kelrt7)
string(STRIP "${run_output}" pc_libdir)
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS}")
run(${C_COMPILER} ${c_flags} ${PROJECT_DIR}/consumer.c ${pc_flags} -Wl,-rpath,${pc_libdir}
  -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)
message(STATUS "pkg-config: ${run_output}")
