# kltce's HTML reports opened in headless Chromium (tests/browser/, playwright-core from npm, both
# installed by scripts/setup.sh): the shipped fleet's report, its comparison's and the why-not
# example's against the JSON, planted faults that the checks must catch, and a 1,000-campaign report's size and opening
# time. A test without Chromium, node or playwright-core is skipped (exit 77), saying why.
# Under the sanitizers the reports are the same bytes and the browser would add only time.
if(NOT TARGET kltce OR CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
  return()
endif()
find_program(KLTCE_NODE node)
set(browser_out ${CMAKE_BINARY_DIR}/browser)
foreach(check fleet_report compare_report explain_report planted_faults large_report)
  set(name kltce_browser_${check})
  if(KLTCE_NODE)
    add_test(NAME ${name} COMMAND ${KLTCE_NODE} ${PROJECT_SOURCE_DIR}/tests/browser/${check}_test.mjs
      --kltce $<TARGET_FILE:kltce> --source ${PROJECT_SOURCE_DIR} --out ${browser_out})
  else()
    add_test(NAME ${name} COMMAND sh -c "echo 'SKIP: node is not installed (scripts/setup.sh installs it)'; exit 77")
  endif()
  # One browser at a time; the opening time is measured with nothing else running.
  set_tests_properties(${name} PROPERTIES LABELS browser SKIP_RETURN_CODE 77 RESOURCE_LOCK chromium TIMEOUT 300)
endforeach()
set_tests_properties(kltce_browser_large_report PROPERTIES RUN_SERIAL TRUE)
