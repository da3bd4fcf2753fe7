# The C interface (include/kltce/kltce.h) from C: its header compiles alone as C99 and as C++20
# without a warning; a C99 host replays the shipped example and must print what `kltce run` prints.
add_library(kltce_header_alone_c OBJECT ${CMAKE_CURRENT_LIST_DIR}/capi/header_alone.c)
set_target_properties(kltce_header_alone_c PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_include_directories(kltce_header_alone_c PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_options(kltce_header_alone_c PRIVATE -pedantic -Wall -Wextra -Werror)
add_library(kltce_header_alone_cxx OBJECT ${CMAKE_CURRENT_LIST_DIR}/capi/header_alone.cpp)
target_include_directories(kltce_header_alone_cxx PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_options(kltce_header_alone_cxx PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Werror)

find_package(PkgConfig REQUIRED)
pkg_check_modules(KLTCE_CJSON REQUIRED IMPORTED_TARGET libcjson)  # the C host reads its JSON with cJSON
add_executable(kltce_c_host ${PROJECT_SOURCE_DIR}/examples/c_host/main.c)
set_target_properties(kltce_c_host PROPERTIES C_STANDARD 99 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF)
target_compile_options(kltce_c_host PRIVATE -pedantic -Wall -Werror)
target_link_libraries(kltce_c_host PRIVATE KLTContextEvaluator PkgConfig::KLTCE_CJSON)

if(TARGET kltce)
  add_test(NAME capi_c_host_matches_kltce_run
    COMMAND ${CMAKE_COMMAND} -DKLTCE=$<TARGET_FILE:kltce> -DHOST=$<TARGET_FILE:kltce_c_host>
      -DDOCUMENT=${PROJECT_SOURCE_DIR}/examples/campaigns.json -DPROFILE=${PROJECT_SOURCE_DIR}/examples/profile.json
      -DEVENTS=${PROJECT_SOURCE_DIR}/examples/events.jsonl -P ${CMAKE_CURRENT_LIST_DIR}/capi/compare_outputs.cmake)
  set_tests_properties(capi_c_host_matches_kltce_run PROPERTIES LABELS e2e)
endif()
