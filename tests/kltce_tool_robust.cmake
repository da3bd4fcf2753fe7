# The kltce tool when the machine misbehaves: output that cannot be written, streams that cannot be
# read, mistakes on the command line. Each case runs the tool from a shell (kltce_shell) so that
# its standard streams can be closed or sent to a full device.
if(NOT TARGET kltce)
  return()
endif()

# kltce_shell(<name> <sh command line, $TOOL the tool> <exit status> <standard error regex>)
function(kltce_shell name script rc err)
  add_test(NAME kltce_e2e_${name} COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:kltce> "-DSCRIPT=${script}"
    -DEXPECT_RC=${rc} "-DEXPECT_ERR=${err}" -P ${kltce_data}/shell_case.cmake)
  set_tests_properties(kltce_e2e_${name} PROPERTIES LABELS e2e)
endfunction()

set(doc ${kltce_examples}/campaigns.json)
set(prof ${kltce_examples}/profile.json)
set(run_kept "\"$TOOL\" run --document ${doc} --profile ${prof}")
set(run "${run_kept} --fresh")
set(fleet "\"$TOOL\" fleet --document ${doc} --fleet ${kltce_examples}/fleet/fleet.jsonl --workers 1")
set(unwritten "kltce: writing standard output failed")

# Every command's output: to a full device, or to a closed standard output.
kltce_shell(full_stdout_run "${run} --events ${kltce_examples}/events.jsonl >/dev/full" 4 "${unwritten} \\(is the device full")
kltce_shell(closed_stdout_check "\"$TOOL\" check --document ${doc} --profile ${prof} >&-" 4 "${unwritten}: standard output is closed")
kltce_shell(full_stdout_macros "\"$TOOL\" macros --profile ${prof} hello >/dev/full" 4 "${unwritten}")
kltce_shell(full_stdout_fleet "${fleet} >/dev/full" 4 "${unwritten}")
kltce_shell(full_stdout_merge "\"$TOOL\" fleet merge ${kltce_examples}/fleet/summary.json >/dev/full" 4 "${unwritten}")
kltce_shell(full_trace "${run} --events ${kltce_examples}/events.jsonl --trace /dev/full >/dev/null" 4 "kltce: --trace: writing '/dev/full' failed")
kltce_shell(full_csv "${fleet} --csv /dev/full >/dev/null" 4 "kltce: fleet: --csv: writing '/dev/full' failed")
kltce_shell(full_csv_workers "\"$TOOL\" fleet --document ${doc} --fleet ${kltce_examples}/fleet/fleet.jsonl --workers 2 --csv /dev/full >/dev/null" 4
  "kltce: fleet: --csv: writing '/dev/full' failed: No space left on device")
# An event stream that cannot be read.
kltce_shell(events_folder "${run} --events ${kltce_examples}" 2 "kltce: events: '[^']*' is a folder")
kltce_shell(events_closed_stdin "${run} <&-" 2 "kltce: events: standard input is closed")
# Without a place for the per-user store, the run says that its counters are not kept.
kltce_shell(no_state_location "env -u HOME -u XDG_STATE_HOME -u KLTCE_STATE_DIR ${run_kept} --events ${kltce_examples}/events.jsonl >/dev/null"
  0 "kltce: note: KLTCE_STATE_DIR, XDG_STATE_HOME and HOME are all unset: the counters of this run are not kept")
# Out of memory is status 4 with one line, not an abort. (Not under the sanitizers: their shadow
# memory does not fit a limit on the address space.)
if(KLTCE_MIMALLOC)
  kltce_shell(out_of_memory "ulimit -v 400000; head -c 300000000 /dev/zero | \"$TOOL\" macros --profile ${prof} >/dev/null"
    4 "kltce: out of memory")
endif()
# A pipe where a file is needed is refused at once, never opened (opening it would wait for a writer).
set(fifo ${kltce_scratch}/fifo)
set(make_fifo "rm -rf ${fifo} && mkdir -p ${fifo} && mkfifo ${fifo}/p && echo '{\"action\": \"parse\", \"file\": \"p\"}' > ${fifo}/events.jsonl")
foreach(row "document|\"$TOOL\" check --document ${fifo}/p --profile ${prof}|2|kltce: document: cannot read '[^']*p': it is not a regular file"
            "profile|\"$TOOL\" check --document ${doc} --profile ${fifo}/p|2|kltce: profile: cannot read '[^']*p': it is not a regular file"
            "state|${run_kept} --state ${fifo}/p --events ${kltce_examples}/events.jsonl|2|kltce: the state path '[^']*p' is not a regular file"
            "parse_file|${run} --events ${fifo}/events.jsonl|0|kltce: line 1: cannot read '[^']*p': it is not a regular file")
  string(REPLACE "|" ";" row "${row}")
  list(GET row 0 name)
  list(GET row 1 command)
  list(GET row 2 rc)
  list(GET row 3 err)
  kltce_shell(fifo_${name} "${make_fifo} && ${command}" ${rc} "${err}")
  set_tests_properties(kltce_e2e_fifo_${name} PROPERTIES RESOURCE_LOCK kltce_fifo TIMEOUT 20)
endforeach()

# Mistakes on the command line: status 2 for every one (the argument library's own codes are
# 104 to 114), an unknown command named as such; --help and --version are 0.
foreach(row "unknown_command|frob|2|^kltce: unknown command 'frob' \\(commands: run, check, macros, state, fleet"
            "unknown_state_command|state|frob|2|^kltce: unknown command 'frob' of state \\(commands: show, reset"
            "missing_option|run|2|--document is required"
            "option_not_a_number|run|--document|x|--profile|y|--log-level|x|2|Could not convert: --log-level = x"
            "option_outside_its_words|fleet|--format|xml|2|--format: xml not in"
            "option_without_value|check|--document|2|--document: 1 required"
            "too_many_workers|fleet|--document|${doc}|--fleet|${doc}|--workers|257|2|--workers: 257 is more than 256"
            "help|--help|0|^$"
            "version|--version|0|^$")
  string(REPLACE "|" ";" row "${row}")
  list(POP_FRONT row name)
  list(POP_BACK row err)
  list(POP_BACK row rc)
  string(REPLACE ";" "|" args "${row}")
  kltce_e2e(cli_${name} ARGS ${args} EXPECT_RC ${rc} EXPECT_ERR "${err}")
endforeach()

# The generator refuses counts that are not whole numbers of 0 or more (strtoull read "-1" as
# 2^64 - 1 and went on for good).
foreach(args "--devices|-1" "--events|-5" "--devices|99999999999999999999999" "--seed|x")
  string(REPLACE "|" "_" name "${args}")
  add_test(NAME gen_fleet_refuses${name} COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:gen_fleet> "-DARGS=${args}"
    -DEXPECT_RC=2 "-DEXPECT_ERR=^usage: gen_fleet" -P ${kltce_data}/run_case.cmake)
  set_tests_properties(gen_fleet_refuses${name} PROPERTIES LABELS e2e TIMEOUT 20)
endforeach()

# A second writer of a state file is refused at once while the first holds it (flock(1) stands
# for the first run), and the file is left to the first.
set(writers ${kltce_scratch}/writers)
kltce_shell(second_writer_refused "rm -rf ${writers} && mkdir -p ${writers} && \
flock ${writers}/counters.kltstore.lock ${run_kept} --state ${writers}/counters.kltstore --events ${kltce_examples}/events.jsonl"
  2 "^kltce: the state file '[^']*counters.kltstore' is in use: another process is writing")

# What kltce check says of a repeated _id, the replay shows: both items stay registered and both
# are dispatched when their conditions hold (line 3), sharing one set of counters.
kltce_e2e(repeated_id_dispatches_both
  ARGS run|--document|${kltce_data}/repeated_id.json|--profile|${prof}|--events|${kltce_examples}/events.jsonl|--fresh
  EXPECT_OUT_REGEX "^[^\n]*\"id\":\"welcome_offer\"[^\n]*\"line\":3}\n[^\n]*\"id\":\"welcome_offer\"[^\n]*\"line\":3}\n")
kltce_e2e(repeated_id_checked
  ARGS check|--document|${kltce_data}/repeated_id.json|--profile|${prof}|--at|2026-11-22T09:00:00Z
  EXPECT_OUT_REGEX "the earlier item stays registered, and each is dispatched when its conditions hold")
