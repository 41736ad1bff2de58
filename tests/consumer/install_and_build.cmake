# Run by ctest: install BUILD_DIR into WORK_DIR/prefix, then build and run the
# consumer with find_package and with pkg-config, with the target's C flags
# (-m32 for i386).
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
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
foreach(file IN ITEMS include/kelr.h include/kelcore.h)
  if(NOT file IN_LIST installed)
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
file(GLOB_RECURSE pc_files ${prefix}/*/kelrt7.pc)
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
  message(FATAL_ERROR "expected one kelrt7.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir ${pc_files} DIRECTORY)
get_filename_component(libdir ${pc_dir} DIRECTORY)
foreach(name IN ITEMS libkelrt7.so libkelrt7.so.5.2 libkelcore.so libkelcore.so.5.2)
  if(NOT EXISTS ${libdir}/${name})
    message(FATAL_ERROR "not installed: ${libdir}/${name}")
  endif()
endforeach()

# find_package
run(${CMAKE_COMMAND} -S ${PROJECT_DIR} -B ${WORK_DIR}/cmake
  -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_C_COMPILER=${C_COMPILER}
  "-DCMAKE_C_FLAGS=${C_FLAGS}"
  "-DCMAKE_EXE_LINKER_FLAGS=${C_FLAGS}"
  -DCMAKE_LIBRARY_ARCHITECTURE=${LIBRARY_ARCHITECTURE})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake)
run(${WORK_DIR}/cmake/consumer)
message(STATUS "find_package: ${run_output}")

# pkg-config
find_program(PKG_CONFIG NAMES pkgconf pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
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
