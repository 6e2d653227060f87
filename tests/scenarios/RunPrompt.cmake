# Types KEYS at kivsim's prompt on a pseudo-terminal (script(1)) and fails
# unless the session saw every line: the banner, the completed command ran, a
# bad line was reported, the session went on, changes took effect without a
# settle, quit left, and the exit status says a bad line.
# The terminal's redrawing differs between terminal types, so the output is
# searched for its lines rather than compared whole.
execute_process(COMMAND ${SCRIPT} -qfec ${KIVSIM} /dev/null
  INPUT_FILE ${KEYS}
  OUTPUT_VARIABLE out
  ERROR_VARIABLE out
  RESULT_VARIABLE rc
  TIMEOUT 20)
string(REPLACE "\r" "" out "${out}")
foreach(expected
    "kivsim: the segment library in a simulated switch."
    "\nusage: settle\nrun the event loop until nothing is scheduled\n"
    "\n<stdin>:4: 'x' is not a number (VRF id)\n"
    "\nstill here\n"
    "\nred 10.9.0.0/16 routeTypeForward adj 3 id 1\n")
  string(FIND "${out}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "kivsim at the prompt: no \"${expected}\" in:\n${out}")
  endif()
endforeach()
if(NOT rc STREQUAL "2")
  message(FATAL_ERROR "kivsim at the prompt: exit status ${rc}, expected 2\n${out}")
endif()
