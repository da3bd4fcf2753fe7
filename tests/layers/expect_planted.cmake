# Runs check_layers.cmake on the planted tree (layers/planted/) and fails unless the check fails
# naming every planted include, and only those: a check that stopped finding them, or that flagged
# an include the order allows, fails this test.
#   cmake -DCHECK=<check_layers.cmake> -DROOT=<planted tree> -P expect_planted.cmake
set(expected
  "tools/kltce/input/planted.h:5: input includes tools/kltce/replay/replay.h, a layer above it"
  "tools/kltce/fleet/planted.cpp:3: fleet includes tools/kltce/cli/fleet_options.h, a layer above it"
  "tools/kltce/cli/planted.cpp:2: tools/kltce/json_text.h is in no layer's folder"
  "tools/kltce/extras/planted.h: folder 'extras' is not in the layer table"
  "tools/kltce/planted.cpp:2: includes the tool's tools/kltce/input/json_text.h, above this folder"
  "testsupport/Planted.h:4: includes the tool's tools/kltce/input/stream_line.h, above this folder")
set(allowed "analysis/kept.cpp" "input/planted.h:4:" "fleet/planted.cpp:2:")

execute_process(COMMAND ${CMAKE_COMMAND} -DROOT=${ROOT} -P ${CHECK} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE out)
set(failures "")
if(rc EQUAL 0)
  list(APPEND failures "the check passed a tree with wrong includes")
endif()
foreach(line IN LISTS expected)
  string(FIND "${out}" "${line}" at)
  if(at EQUAL -1)
    list(APPEND failures "not named: ${line}")
  endif()
endforeach()
foreach(text IN LISTS allowed)
  string(FIND "${out}" "${text}" at)
  if(NOT at EQUAL -1)
    list(APPEND failures "named though allowed: ${text}")
  endif()
endforeach()
if(failures)
  list(JOIN failures "\n" text)
  message(FATAL_ERROR "${text}\n--- the check printed:\n${out}")
endif()
