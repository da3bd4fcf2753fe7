# Checks the installed package: installs the built library into a scratch prefix, then configures,
# builds and runs tests/consumer against it with find_package(KLTContextEvaluator).
#
# This file has two roles. Included from tests/CMakeLists.txt it registers the ctest test; run as
# a script (cmake -P) by that test it does the work. The consumer is built with the same compiler,
# build type and compile/link flags as this build, so that a sanitizer build links its consumer
# with the same sanitizer runtime.

if(NOT CMAKE_SCRIPT_MODE_FILE)
  add_test(NAME install_consumer
    COMMAND ${CMAKE_COMMAND}
      -DKLTCE_BUILD_DIR=${CMAKE_BINARY_DIR}
      -DKLTCE_CONSUMER_SOURCE=${CMAKE_CURRENT_LIST_DIR}/consumer
      -DKLTCE_WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install_consumer
      -DKLTCE_CONFIG=$<CONFIG>
      -DKLTCE_GENERATOR=${CMAKE_GENERATOR}
      -DKLTCE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
      "-DKLTCE_CXX_FLAGS=${CMAKE_CXX_FLAGS}"
      "-DKLTCE_EXE_LINKER_FLAGS=${CMAKE_EXE_LINKER_FLAGS}"
      -P ${CMAKE_CURRENT_LIST_FILE})
  set_tests_properties(install_consumer PROPERTIES LABELS unit TIMEOUT 600)
  return()
endif()

foreach(var KLTCE_BUILD_DIR KLTCE_CONSUMER_SOURCE KLTCE_WORK_DIR KLTCE_GENERATOR KLTCE_CXX_COMPILER)
  if(NOT ${var})
    message(FATAL_ERROR "install_consumer: ${var} is not set")
  endif()
endforeach()

set(prefix ${KLTCE_WORK_DIR}/prefix)
set(consumer_build ${KLTCE_WORK_DIR}/build)
# Start from nothing, so that a stale install or cache cannot make the check pass.
file(REMOVE_RECURSE ${KLTCE_WORK_DIR})
file(MAKE_DIRECTORY ${KLTCE_WORK_DIR})

set(config_args)
if(KLTCE_CONFIG)
  set(config_args --config ${KLTCE_CONFIG})
endif()

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message(STATUS "install_consumer: ${what}\n${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install_consumer: ${what} failed (${rc})")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

run_step("install" ${CMAKE_COMMAND} --install ${KLTCE_BUILD_DIR} --prefix ${prefix} ${config_args})
run_step("configure consumer"
  ${CMAKE_COMMAND} -S ${KLTCE_CONSUMER_SOURCE} -B ${consumer_build} -G ${KLTCE_GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_BUILD_TYPE=${KLTCE_CONFIG}
    -DCMAKE_CXX_COMPILER=${KLTCE_CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${KLTCE_CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${KLTCE_EXE_LINKER_FLAGS}")
run_step("build consumer" ${CMAKE_COMMAND} --build ${consumer_build} ${config_args})

find_program(consumer_exe NAMES consumer PATHS ${consumer_build} ${consumer_build}/${KLTCE_CONFIG} NO_DEFAULT_PATH)
if(NOT consumer_exe)
  message(FATAL_ERROR "install_consumer: the consumer program was not built")
endif()
run_step("run consumer" ${consumer_exe})
if(NOT step_output MATCHES "consumer: ok")
  message(FATAL_ERROR "install_consumer: the consumer did not report success")
endif()
file(REMOVE_RECURSE ${KLTCE_WORK_DIR})
