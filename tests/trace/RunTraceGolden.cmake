# Runs kivsim on SCENARIO with the text trace at LEVEL and fails unless it
# exits with status 0 and the trace equals EXPECTED byte for byte.
execute_process(COMMAND ${KIVSIM} --trace ${ACTUAL} --trace-level ${LEVEL} ${SCENARIO}
  INPUT_FILE /dev/null
  OUTPUT_VARIABLE out
  ERROR_VARIABLE errors
  RESULT_VARIABLE rc)
if(NOT rc STREQUAL "0")
  message(FATAL_ERROR "kivsim ${SCENARIO}: exit status ${rc}\n${out}${errors}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${ACTUAL} ${EXPECTED}
  RESULT_VARIABLE different)
if(different)
  execute_process(COMMAND diff -u ${EXPECTED} ${ACTUAL} OUTPUT_VARIABLE diff)
  message(FATAL_ERROR "trace of ${SCENARIO} at level ${LEVEL} differs from ${EXPECTED} "
    "(new trace: ${ACTUAL}):\n${diff}")
endif()
