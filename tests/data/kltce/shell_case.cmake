# Runs a shell command line that starts kltce with its standard streams redirected (closed, a full
# device) and checks what it did:
#   cmake -DTOOL=<kltce> -DSCRIPT="<sh command line; $TOOL is the tool>" [-DEXPECT_RC=<n>]
#         [-DEXPECT_ERR=<regex>] -P shell_case.cmake
set(ENV{TOOL} "${TOOL}")
execute_process(COMMAND sh -c "${SCRIPT}" OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc TIMEOUT 60)
if(NOT DEFINED EXPECT_RC)
  set(EXPECT_RC 0)
endif()
set(failed "")
if(NOT "${rc}" STREQUAL "${EXPECT_RC}")
  string(APPEND failed "exit status ${rc}, expected ${EXPECT_RC}\n")
endif()
if(DEFINED EXPECT_ERR AND NOT err MATCHES "${EXPECT_ERR}")
  string(APPEND failed "standard error does not match: ${EXPECT_ERR}\n")
endif()
if(failed)
  message(FATAL_ERROR "${failed}--- command: ${SCRIPT}\n--- standard output:\n${out}--- standard error:\n${err}")
endif()
