# Runs `kltce run` and another host on the same example and fails unless both print the same
# display events, byte for byte, and at least one. Run as a script (cmake -P) with KLTCE, HOST,
# DOCUMENT, PROFILE and EVENTS set.
foreach(var KLTCE HOST DOCUMENT PROFILE EVENTS)
  if(NOT ${var})
    message(FATAL_ERROR "compare_outputs: ${var} is not set")
  endif()
endforeach()
execute_process(COMMAND ${KLTCE} run --document ${DOCUMENT} --profile ${PROFILE} --events ${EVENTS} --fresh
  RESULT_VARIABLE rc_tool OUTPUT_VARIABLE tool ERROR_QUIET)
execute_process(COMMAND ${HOST} ${DOCUMENT} ${PROFILE} ${EVENTS}
  RESULT_VARIABLE rc_host OUTPUT_VARIABLE host ERROR_VARIABLE host_err)
if(NOT rc_tool EQUAL 0 OR NOT rc_host EQUAL 0)
  message(FATAL_ERROR "compare_outputs: kltce exited ${rc_tool}, the host ${rc_host}\n${host_err}")
endif()
if(tool STREQUAL "")
  message(FATAL_ERROR "compare_outputs: kltce printed no display event")
endif()
if(NOT tool STREQUAL host)
  message(FATAL_ERROR "compare_outputs: the outputs differ\n--- kltce run\n${tool}--- ${HOST}\n${host}")
endif()
message(STATUS "compare_outputs: the same display events\n${host}")
