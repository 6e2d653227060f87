# Runs kivsim on every EXAMPLES/*.kiv and fails unless each one exits with
# status 0 and prints "check: ok" as its last line. Every example runs; the
# failures are reported together.
file(GLOB examples ${EXAMPLES}/*.kiv)
if(NOT examples)
  message(FATAL_ERROR "no examples in ${EXAMPLES}")
endif()
set(failures "")
foreach(example IN LISTS examples)
  get_filename_component(name ${example} NAME)
  execute_process(COMMAND ${KIVSIM} ${example}
    INPUT_FILE /dev/null
    OUTPUT_VARIABLE out
    ERROR_VARIABLE errors
    RESULT_VARIABLE rc)
  set(why "")
  if(NOT rc STREQUAL "0")
    set(why "exit status ${rc}")
  elseif(NOT out MATCHES "(^|\n)check: ok\n$")
    set(why "the last line is not 'check: ok'")
  endif()
  if(why)
    # The end of the output says where it went wrong.
    string(LENGTH "${out}" length)
    if(length GREATER 1500)
      math(EXPR from "${length} - 1500")
      string(SUBSTRING "${out}" ${from} -1 out)
      set(out "...${out}")
    endif()
    string(APPEND failures "\n== ${name}: ${why}\n${out}${errors}")
  else()
    message(STATUS "${name}: ok")
  endif()
endforeach()
if(failures)
  message(FATAL_ERROR "examples failing:${failures}")
endif()
