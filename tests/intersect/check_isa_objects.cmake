# The objects built with AVX2 must define nothing that an SSE2 caller could
# end up calling: every symbol they define outside an anonymous namespace
# lives in kel::avx2 (an inline function of a shared header compiled there
# and merged by the linker would otherwise run AVX2 code on any processor),
# and they run no code at load time. (The 32-bit build's position-
# independence thunks are the compiler's own two instructions, the same in
# every build.)
find_program(NM nm REQUIRED)
find_program(OBJDUMP objdump REQUIRED)
string(REPLACE "|" ";" objects "${OBJECTS}")
set(errors)
foreach(object IN LISTS objects)
  execute_process(COMMAND ${NM} -C --defined-only ${object} OUTPUT_VARIABLE symbols)
  string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^[0-9a-f]+ [TDRBWVu] (.*)$")
      continue()
    endif()
    set(name "${CMAKE_MATCH_1}")
    if(NOT name MATCHES "^(kel::avx2::|__x86\\.get_pc_thunk\\.)")
      list(APPEND errors "${object}: ${name}")
    endif()
  endforeach()
  execute_process(COMMAND ${OBJDUMP} -h ${object} OUTPUT_VARIABLE sections)
  if(sections MATCHES "\\.init_array|\\.ctors")
    list(APPEND errors "${object}: runs code at load time")
  endif()
endforeach()
if(errors)
  string(REPLACE ";" "\n  " report "${errors}")
  message(FATAL_ERROR "AVX2 objects reachable without a processor check:\n  ${report}")
endif()
