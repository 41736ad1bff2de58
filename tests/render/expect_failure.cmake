# Runs PROGRAM with ARGS (a ;-list) and passes only when it exits with a
# non-zero status of its own (a crash does not count) and its stderr
# matches EXPECT.
execute_process(COMMAND ${PROGRAM} ${ARGS}
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status MATCHES "^[1-9][0-9]*$")
  message(FATAL_ERROR "expected a non-zero exit status, got '${status}'\n${err}")
endif()
if(NOT err MATCHES "${EXPECT}")
  message(FATAL_ERROR "stderr does not match '${EXPECT}':\n${err}")
endif()
