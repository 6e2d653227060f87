# Runs kivsim with the trace at level 8 on every scenario in DIRS (folders
# separated by '|'; each run from the scenario's folder) but the scale runs,
# and fails if a trace line starts with a routine ROUTINES does not list.
# Every scenario runs; the strange lines are reported together, with the
# scenario they came from.
file(STRINGS ${ROUTINES} known REGEX "^[^#]")
string(REPLACE "|" ";" dirs "${DIRS}")
set(scenarios "")
foreach(dir IN LISTS dirs)
  file(GLOB found ${dir}/*.kiv)
  list(APPEND scenarios ${found})
endforeach()
set(strange "")
set(lines 0)
foreach(scenario IN LISTS scenarios)
  get_filename_component(name ${scenario} NAME)
  if(name MATCHES "^(scale|capacity)")
    continue()
  endif()
  get_filename_component(dir ${scenario} DIRECTORY)
  set(trace ${WORK}/${name}.trace)
  execute_process(COMMAND ${KIVSIM} --trace ${trace} --trace-level 8 ${scenario}
    WORKING_DIRECTORY ${dir}
    INPUT_FILE /dev/null
    OUTPUT_QUIET ERROR_QUIET)
  file(STRINGS ${trace} traced)
  foreach(line IN LISTS traced)
    math(EXPR lines "${lines} + 1")
    if(line MATCHES "^(virtual )?void Kiv::[A-Za-z]+::([A-Za-z_]+)\\(\\)")
      set(routine ${CMAKE_MATCH_2})
    else()
      string(REGEX REPLACE " .*" "" routine "${line}")
    endif()
    list(FIND known "${routine}" at)
    if(at EQUAL -1)
      string(APPEND strange "\n${name}: ${line}")
    endif()
  endforeach()
endforeach()
if(strange)
  message(FATAL_ERROR "trace lines naming a routine not in ${ROUTINES}:${strange}")
endif()
message(STATUS "${lines} trace lines, each naming a known routine")
