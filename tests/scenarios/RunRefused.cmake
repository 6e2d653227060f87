# Runs kivsim with ARGS (separated by '|') from WORKDIR and fails unless it
# exits with status 2, prints nothing on standard output, says ERROR on
# standard error, and leaves GUARD (a scenario it must not touch) as it was.
string(REPLACE "|" ";" args "${ARGS}")
file(SHA256 ${GUARD} before)
execute_process(COMMAND ${KIVSIM} ${args}
  WORKING_DIRECTORY ${WORKDIR}
  INPUT_FILE /dev/null
  OUTPUT_VARIABLE out
  ERROR_VARIABLE errors
  RESULT_VARIABLE rc)
file(SHA256 ${GUARD} after)
if(NOT rc STREQUAL "2")
  message(FATAL_ERROR "kivsim ${args}: exit status ${rc}, expected 2\n${out}${errors}")
endif()
if(NOT out STREQUAL "")
  message(FATAL_ERROR "kivsim ${args}: printed a run's output:\n${out}")
endif()
if(NOT errors STREQUAL "${ERROR}\n")
  message(FATAL_ERROR "kivsim ${args}: standard error '${errors}', expected '${ERROR}'")
endif()
if(NOT before STREQUAL after)
  message(FATAL_ERROR "kivsim ${args}: ${GUARD} was changed")
endif()
