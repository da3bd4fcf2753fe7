# Checks the installed pkg-config file of the C interface: installs the built library into a
# scratch prefix, compiles tests/consumer_c/main.c with nothing but
# `pkg-config --static --cflags --libs kltce` and runs it.
#
# Included from tests/CMakeLists.txt it registers the ctest test; run as a script (cmake -P) by
# that test it does the work, with the build's C compiler and flags (a sanitizer build links its
# consumer with the same runtime).

if(NOT CMAKE_SCRIPT_MODE_FILE)
  find_program(KLTCE_PKG_CONFIG pkg-config)
  if(KLTCE_PKG_CONFIG)
    add_test(NAME pkgconfig_consumer
      COMMAND ${CMAKE_COMMAND}
        -DKLTCE_BUILD_DIR=${CMAKE_BINARY_DIR}
        -DKLTCE_SOURCE=${CMAKE_CURRENT_LIST_DIR}/consumer_c/main.c
        -DKLTCE_WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/pkgconfig_consumer
        -DKLTCE_CONFIG=$<CONFIG>
        -DKLTCE_C_COMPILER=${CMAKE_C_COMPILER}
        -DKLTCE_PKG_CONFIG=${KLTCE_PKG_CONFIG}
        "-DKLTCE_C_FLAGS=${CMAKE_C_FLAGS}"
        "-DKLTCE_EXE_LINKER_FLAGS=${CMAKE_EXE_LINKER_FLAGS}"
        -P ${CMAKE_CURRENT_LIST_FILE})
    set_tests_properties(pkgconfig_consumer PROPERTIES LABELS unit TIMEOUT 300)
  endif()
  return()
endif()

set(prefix ${KLTCE_WORK_DIR}/prefix)
file(REMOVE_RECURSE ${KLTCE_WORK_DIR})
file(MAKE_DIRECTORY ${KLTCE_WORK_DIR})
set(config_args)
if(KLTCE_CONFIG)
  set(config_args --config ${KLTCE_CONFIG})
endif()

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message(STATUS "pkgconfig_consumer: ${what}\n${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkgconfig_consumer: ${what} failed (${rc})")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

run_step("install" ${CMAKE_COMMAND} --install ${KLTCE_BUILD_DIR} --prefix ${prefix} ${config_args})
file(GLOB_RECURSE pc_file ${prefix}/*/kltce.pc)
if(NOT pc_file)
  message(FATAL_ERROR "pkgconfig_consumer: kltce.pc was not installed")
endif()
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run_step("pkg-config" ${KLTCE_PKG_CONFIG} --static --cflags --libs kltce)
string(STRIP "${step_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(c_flags UNIX_COMMAND "${KLTCE_C_FLAGS}")
separate_arguments(link_flags UNIX_COMMAND "${KLTCE_EXE_LINKER_FLAGS}")
set(program ${KLTCE_WORK_DIR}/consumer_c)
run_step("compile and link" ${KLTCE_C_COMPILER} -std=c99 -pedantic -Wall -Werror ${c_flags} ${KLTCE_SOURCE}
  -o ${program} ${flags} ${link_flags})
run_step("run" ${program})
if(NOT step_output MATCHES "consumer: ok")
  message(FATAL_ERROR "pkgconfig_consumer: the consumer did not report success")
endif()
file(REMOVE_RECURSE ${KLTCE_WORK_DIR})
