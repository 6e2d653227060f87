# Runs kivsim on SCENARIO, writes its standard output to ACTUAL, and fails
# unless the exit status is STATUS and ACTUAL equals EXPECTED byte for byte;
# when EXPECTED_ERRORS exists, standard error must equal it too. An empty
# SCENARIO runs kivsim with no file. Standard input is never a terminal here,
# so that no run waits at the prompt: it is INPUT when given, else empty.
# OPTIONS (a list) go to kivsim before the scenario.
if(NOT INPUT)
  set(INPUT /dev/null)
endif()
execute_process(COMMAND ${KIVSIM} ${OPTIONS} ${SCENARIO}
  INPUT_FILE ${INPUT}
  OUTPUT_FILE ${ACTUAL}
  ERROR_VARIABLE errors
  RESULT_VARIABLE rc)
if(NOT rc STREQUAL STATUS)
  message(FATAL_ERROR "kivsim ${SCENARIO}: exit status ${rc}, expected ${STATUS}\n${errors}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${ACTUAL} ${EXPECTED}
  RESULT_VARIABLE different)
if(different)
  file(READ ${ACTUAL} actual)
  message(FATAL_ERROR "kivsim ${SCENARIO}: output differs from ${EXPECTED}:\n${actual}")
endif()
if(EXISTS ${EXPECTED_ERRORS})
  file(READ ${EXPECTED_ERRORS} expectedErrors)
  if(NOT errors STREQUAL expectedErrors)
    message(FATAL_ERROR "kivsim ${SCENARIO}: standard error differs from ${EXPECTED_ERRORS}:\n${errors}")
  endif()
endif()
