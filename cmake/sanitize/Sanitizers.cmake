# Builds everything, library, tests and programs alike, with the sanitizers
# named in KEL_SANITIZE (a ;-list such as address;undefined, or thread). A
# finding stops the program at once, so a test cannot pass over a report.
set(KEL_SANITIZE "" CACHE STRING "Sanitizers to build with (address;undefined, thread), or empty")
if(KEL_SANITIZE)
  list(JOIN KEL_SANITIZE "," kel_sanitizers)
  add_compile_options(-fsanitize=${kel_sanitizers} -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${kel_sanitizers})
endif()

# The shared libraries are linked with no undefined symbols left, except
# under clang's sanitizers: clang links their runtime into programs only.
set(KEL_LINK_NO_UNDEFINED -Wl,-z,defs)
if(KEL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(KEL_LINK_NO_UNDEFINED)
endif()
