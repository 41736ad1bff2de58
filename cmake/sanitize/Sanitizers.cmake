# Builds everything, library, tests and programs alike, with the sanitizers
# named in KEL_SANITIZE (a ;-list such as address;undefined, or thread). A
# finding stops the program at once, so a test cannot pass over a report.
set(KEL_SANITIZE "" CACHE STRING "Sanitizers to build with (address;undefined, thread), or empty")
if(KEL_SANITIZE)
  list(JOIN KEL_SANITIZE "," kel_sanitizers)
  add_compile_options(-fsanitize=${kel_sanitizers} -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${kel_sanitizers})
  # A program that is not built with the sanitizers (the Python interpreter)
  # can load sanitized code only with the runtime preloaded, and with the C++
  # runtime beside it: ASan intercepts the C++ exceptions and operator new
  # the Python module uses. The interpreter's own allocations at exit are not
  # ours to report.
  if("address" IN_LIST KEL_SANITIZE)
    set(kel_preload)
    foreach(runtime libasan.so libstdc++.so)
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${CMAKE_CXX_FLAGS} -print-file-name=${runtime}
        OUTPUT_VARIABLE kel_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
      list(APPEND kel_preload ${kel_runtime})
    endforeach()
    list(JOIN kel_preload ":" kel_preload)
    set(KEL_UNSANITIZED_HOST_ENVIRONMENT "LD_PRELOAD=${kel_preload}" "ASAN_OPTIONS=detect_leaks=0")
  endif()
endif()

# The shared libraries are linked with no undefined symbols left, except
# under clang's sanitizers: clang links their runtime into programs only.
set(KEL_LINK_NO_UNDEFINED -Wl,-z,defs)
if(KEL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(KEL_LINK_NO_UNDEFINED)
endif()
