# The tool's folders keep their layer order (tools/kltce/CMakeLists.txt): no file includes a header
# of a folder above its own, and the engine and testsupport/ include no tool header. The second test
# runs the same check on a tree with such includes planted (layers/planted/) and passes only when
# the check fails naming each of them.
set(kltce_layers_check ${CMAKE_CURRENT_SOURCE_DIR}/layers/check_layers.cmake)
add_test(NAME kltce_layers_order COMMAND ${CMAKE_COMMAND} -DROOT=${PROJECT_SOURCE_DIR} -P ${kltce_layers_check})
add_test(NAME kltce_layers_planted_includes_named
  COMMAND ${CMAKE_COMMAND} -DCHECK=${kltce_layers_check} -DROOT=${CMAKE_CURRENT_SOURCE_DIR}/layers/planted
          -P ${CMAKE_CURRENT_SOURCE_DIR}/layers/expect_planted.cmake)
set_tests_properties(kltce_layers_order kltce_layers_planted_includes_named PROPERTIES LABELS unit)
