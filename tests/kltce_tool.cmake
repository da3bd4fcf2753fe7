# The kltce tool's tests: its unit tests link the lowest layer of the tool that holds what they use
# (tools/kltce/CMakeLists.txt), and end-to-end tests run the built kltce binary as a process on the
# small files in data/kltce/ and on the shipped examples.
if(NOT TARGET kltce_cli)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tools/kltce ${PROJECT_BINARY_DIR}/tools/kltce)
endif()

# The layer each unit test links; a test not named here links the whole tool.
set(kltce_test_layers
  kltce_input_depth_test:kltce_input kltce_profile_test:kltce_input kltce_stream_line_test:kltce_input
  kltce_admission_agreement_test:kltce_analysis kltce_analysis_test:kltce_analysis kltce_check_test:kltce_analysis
  kltce_engines_concurrency_test:kltce_replay kltce_explain_test:kltce_replay kltce_replay_test:kltce_replay
  kltce_fleet_compare_test:kltce_fleet kltce_fleet_test:kltce_fleet
  kltce_html_report_test:kltce_cli kltce_state_command_test:kltce_cli)
file(GLOB kltce_tool_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/kltce_*_test.cpp)
foreach(src ${kltce_tool_tests})
  get_filename_component(name ${src} NAME_WE)
  set(layer kltce_cli)
  foreach(pair ${kltce_test_layers})
    if(pair MATCHES "^${name}:(.+)$")
      set(layer ${CMAKE_MATCH_1})
    endif()
  endforeach()
  target_link_libraries(${name} PRIVATE ${layer})
  target_compile_definitions(${name} PRIVATE KLTCE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endforeach()

set(kltce_data ${CMAKE_CURRENT_SOURCE_DIR}/data/kltce)
set(kltce_examples ${PROJECT_SOURCE_DIR}/examples)
set(kltce_scratch ${CMAKE_CURRENT_BINARY_DIR}/kltce_e2e)
file(MAKE_DIRECTORY ${kltce_scratch})

# kltce_e2e(<name> ARGS a|b|c [INPUT file] [EXPECT_OUT file] [EXPECT_RC n] [EXPECT_ERR regex] [EXPECT_OUT_REGEX regex])
function(kltce_e2e name)
  cmake_parse_arguments(E "" "ARGS;INPUT;EXPECT_OUT;EXPECT_RC;EXPECT_ERR;EXPECT_OUT_REGEX" "" ${ARGN})
  set(defs -DTOOL=$<TARGET_FILE:kltce> "-DARGS=${E_ARGS}")
  foreach(key INPUT EXPECT_OUT EXPECT_RC EXPECT_ERR EXPECT_OUT_REGEX)
    if(DEFINED E_${key})
      list(APPEND defs "-D${key}=${E_${key}}")
    endif()
  endforeach()
  add_test(NAME kltce_e2e_${name} COMMAND ${CMAKE_COMMAND} ${defs} -P ${kltce_data}/run_case.cmake)
  set_tests_properties(kltce_e2e_${name} PROPERTIES LABELS e2e)
endfunction()

set(run_small run|--document|${kltce_data}/campaigns.json|--profile|${kltce_data}/profile.json)

kltce_e2e(example_stream
  ARGS run|--document|${kltce_examples}/campaigns.json|--profile|${kltce_examples}/profile.json|--events|${kltce_examples}/events.jsonl|--fresh
  EXPECT_OUT ${kltce_data}/example.expected.jsonl)
# --explain leaves standard output as it is and explains on standard error.
kltce_e2e(example_stream_explained
  ARGS run|--document|${kltce_examples}/campaigns.json|--profile|${kltce_examples}/profile.json|--events|${kltce_examples}/events.jsonl|--fresh|--explain|--trace|${kltce_scratch}/example.trace.jsonl
  EXPECT_OUT ${kltce_data}/example.expected.jsonl
  EXPECT_ERR "summary:
  welcome_offer    fired 1 time \\(line 3\\); then blocked by the day limit")
kltce_e2e(why_not_explained
  ARGS run|--document|${kltce_examples}/why_not.json|--profile|${kltce_examples}/profile.json|--events|${kltce_examples}/events.jsonl|--fresh|--explain
  EXPECT_OUT ${kltce_data}/empty.expected.jsonl
  EXPECT_ERR "rate_app      rejected: app 2.4.1 is not GTE 3.2
  reopen_promo  0 of 1 condition held; never armed: no app_event 'open_app' in the stream")
kltce_e2e(scripted_stream_from_stdin
  ARGS ${run_small}|--fresh|--auto-shown
  INPUT ${kltce_data}/taps.jsonl EXPECT_OUT ${kltce_data}/taps.expected.jsonl)
kltce_e2e(bad_line_named_and_skipped
  ARGS ${run_small}|--fresh|--events|${kltce_data}/bad_line.jsonl
  EXPECT_OUT ${kltce_data}/bad_line.expected.jsonl
  EXPECT_ERR "kltce: line 2: not valid JSON: parse error at column [0-9]+[^\n]*\nkltce: line 3: \"t\" must be an ISO 8601 time")
kltce_e2e(bad_line_strict_stops
  ARGS ${run_small}|--fresh|--strict|--events|${kltce_data}/bad_line.jsonl
  EXPECT_RC 1 EXPECT_ERR "kltce: line 2: not valid JSON.*stopped at line 2 \\(--strict\\)")
kltce_e2e(blocked_queue_named
  ARGS run|--document|${kltce_data}/blocked.json|--profile|${kltce_data}/profile.json|--fresh|--events|${kltce_data}/taps.jsonl
  EXPECT_RC 3 EXPECT_ERR "line 1: the engine's queue is blocked for good.*campaign stuck_timer, conditions\\[0\\]\\.details\\.additional_info\\.time")
# A time of 2^70 ms is not negative: it reads as the largest interval, whose end the clock cannot hold.
kltce_e2e(blocked_queue_too_long_named
  ARGS run|--document|${kltce_data}/endless.json|--profile|${kltce_data}/profile.json|--fresh|--events|${kltce_data}/taps.jsonl
  EXPECT_RC 3 EXPECT_ERR "line 1: the engine's queue is blocked for good: a timer condition \\(idle_time or activity_time\\) with a .time. too long to ever end was armed.*campaign endless_timer, conditions\\[0\\]\\.details\\.additional_info\\.time: time 9223372036854775807 ms is too long")

# Counters persist between two runs that share --state: the second run's tap finds the cap reached.
kltce_e2e(state_first_run
  ARGS ${run_small}|--state|${kltce_scratch}/state/counters.kltstore|--fresh|--events|${kltce_data}/tap_shown.jsonl
  EXPECT_OUT ${kltce_data}/tap_shown.expected.jsonl)
kltce_e2e(state_second_run
  ARGS ${run_small}|--state|${kltce_scratch}/state/counters.kltstore|--events|${kltce_data}/tap_next_day.jsonl
  EXPECT_OUT ${kltce_data}/empty.expected.jsonl EXPECT_ERR "Action count limit exceeded")
set_tests_properties(kltce_e2e_state_first_run PROPERTIES FIXTURES_SETUP kltce_state)
set_tests_properties(kltce_e2e_state_second_run PROPERTIES FIXTURES_REQUIRED kltce_state)

kltce_e2e(check_verdicts_json
  ARGS check|--document|${kltce_data}/flawed.json|--profile|${kltce_data}/profile.json|--at|2026-11-22T09:00:00Z|--json
  EXPECT_RC 1 EXPECT_OUT ${kltce_data}/flawed.expected.json)
kltce_e2e(check_sound_document
  ARGS check|--document|${kltce_data}/campaigns.json|--profile|${kltce_data}/profile.json|--at|2026-11-22T09:00:00Z
  EXPECT_OUT_REGEX "^tap_promo: admitted\nidle_survey: admitted\n2 campaigns: 2 admitted, 0 rejected; 0 errors, 0 warnings, 0 infos\n$")
kltce_e2e(check_example_document_passes
  ARGS check|--document|${kltce_examples}/campaigns.json|--profile|${kltce_examples}/profile.json|--at|2026-11-22T09:00:00Z
  EXPECT_OUT_REGEX "^welcome_offer: admitted\nfeedback_survey: admitted\ntips_banner: admitted\n3 campaigns: 3 admitted, 0 rejected; 0 errors, 0 warnings, 0 infos\n$")
# Without --profile: the document's own mistakes, and no admission (a usage error for the options
# that need one).
kltce_e2e(check_without_profile
  ARGS check|--document|${kltce_examples}/flawed_campaigns.json
  EXPECT_RC 1 EXPECT_OUT ${kltce_data}/flawed_campaigns.no_profile.expected.txt)
kltce_e2e(check_without_profile_json
  ARGS check|--document|${kltce_data}/campaigns.json|--json
  EXPECT_OUT_REGEX "^{\"document\":..,\"campaigns\":..\"index\":0,\"id\":\"tap_promo\",\"findings\":...,{\"index\":1,\"id\":\"idle_survey\",\"findings\":....,\"admission\":\"not checked\",\"errors\":0,\"warnings\":0,\"infos\":0}\n$")
foreach(option --require-admitted --at|2026-11-22T09:00:00Z --compare|${kltce_data}/campaigns.json)
  string(REGEX REPLACE "\\|.*" "" flag "${option}")
  string(REPLACE "-" "" name "${flag}")
  kltce_e2e(check_without_profile_${name}
    ARGS check|--document|${kltce_data}/campaigns.json|${option}
    EXPECT_RC 2 EXPECT_ERR "^kltce: ${flag} needs --profile: without a profile no admission is checked\n$")
endforeach()
kltce_e2e(macros_expand
  ARGS "macros|--profile|${kltce_data}/profile.json|Hi [user_first_name(there)], [session_city(welcome)]!"
  EXPECT_OUT_REGEX "^Hi Ada, welcome!\n$")

# One clear message and a non-zero exit for files that cannot be used.
kltce_e2e(missing_document
  ARGS run|--document|${kltce_scratch}/nope.json|--profile|${kltce_data}/profile.json
  EXPECT_RC 2 EXPECT_ERR "^kltce: document: cannot read '[^']*nope.json': No such file or directory\n$")
kltce_e2e(unreadable_profile
  ARGS check|--document|${kltce_data}/campaigns.json|--profile|${kltce_data}/bad_line.jsonl
  EXPECT_RC 2 EXPECT_ERR "^kltce: profile: '[^']*bad_line.jsonl' is not valid JSON: parse error at line 2")
kltce_e2e(unwritable_state
  ARGS ${run_small}|--state|${kltce_data}/profile.json/counters.kltstore|--events|${kltce_data}/taps.jsonl
  EXPECT_RC 2 EXPECT_ERR "^kltce: cannot create the folder of the state file '[^']*': [^\n]+\n$")
kltce_e2e(missing_events
  ARGS ${run_small}|--fresh|--events|${kltce_scratch}/nope.jsonl
  EXPECT_RC 2 EXPECT_ERR "^kltce: events: cannot read '[^']*nope.jsonl': No such file or directory\n$")
