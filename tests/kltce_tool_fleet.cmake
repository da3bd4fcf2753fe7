# `kltce fleet` end to end on the shipped fleet (examples/fleet/): its summary, worker processes,
# shards merged, MPI ranks, per-device outcomes against `kltce run`, and fleet files out of order.
if(NOT TARGET kltce)
  return()
endif()
set(fleet_dir ${PROJECT_SOURCE_DIR}/examples/fleet)
set(fleet_args fleet|--document|${PROJECT_SOURCE_DIR}/examples/campaigns.json|--fleet|${fleet_dir}/fleet.jsonl)
kltce_e2e(fleet_summary ARGS ${fleet_args}|--workers|1|--format|json EXPECT_OUT ${fleet_dir}/summary.json)
kltce_e2e(fleet_two_workers ARGS ${fleet_args}|--workers|2|--format|json EXPECT_OUT ${fleet_dir}/summary.json)
kltce_e2e(fleet_table ARGS ${fleet_args}|--workers|2
  EXPECT_OUT_REGEX "^60 devices, 826 events, 900 lines\n.*\nwelcome_offer +60 +28 +32 +8 +10 +1.25 ")
kltce_e2e(fleet_interleaved ARGS fleet|--document|${kltce_examples}/campaigns.json|--fleet|${kltce_data}/fleet_interleaved.jsonl
  EXPECT_RC 2 EXPECT_ERR "^kltce: fleet: line 4: device 'a' begins without its profile line")
kltce_e2e(fleet_merge_bad ARGS fleet|merge|${kltce_data}/campaigns.json
  EXPECT_RC 2 EXPECT_ERR "^kltce: fleet: merge: '[^']*campaigns.json': \"devices\" must be a count")

set(fleet_case ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:kltce> -DDOCUMENT=${PROJECT_SOURCE_DIR}/examples/campaigns.json
    -DFLEET=${fleet_dir}/fleet.jsonl -DEXPECT=${fleet_dir}/summary.json)
add_test(NAME kltce_e2e_fleet_per_device COMMAND ${fleet_case} -DMODE=per_device -DSCRATCH=${kltce_scratch}/fleet_devices
  -DGENERATOR=$<TARGET_FILE:gen_fleet> "-DGEN_ARGS=--devices|60|--events|15|--seed|11" -P ${kltce_data}/fleet_case.cmake)
add_test(NAME kltce_e2e_fleet_shards COMMAND ${fleet_case} -DMODE=shards -DSCRATCH=${kltce_scratch}/fleet_shards
  -P ${kltce_data}/fleet_case.cmake)
add_test(NAME kltce_e2e_fleet_workers COMMAND ${fleet_case} -DMODE=workers -DSCRATCH=${kltce_scratch}/fleet_workers
  -DEXPECT_CSV=${kltce_data}/fleet_rows.csv -P ${kltce_data}/fleet_case.cmake)
set_tests_properties(kltce_e2e_fleet_per_device kltce_e2e_fleet_shards kltce_e2e_fleet_workers PROPERTIES LABELS e2e)

# Two MPI ranks on this machine. Open MPI refuses root and counts slots by cores unless told;
# its shared-memory single copy needs ptrace rights that containers often lack. Open MPI's own
# allocations outlive MPI_Finalize, which a leak check under AddressSanitizer would report.
if(TARGET kltce_fleet_mpi AND MPIEXEC_EXECUTABLE)
  add_test(NAME kltce_e2e_fleet_mpi COMMAND ${fleet_case} -DMODE=mpi -DSCRATCH=${kltce_scratch}/fleet_mpi
    "-DMPI_RUN=${MPIEXEC_EXECUTABLE}|${MPIEXEC_NUMPROC_FLAG}|2|$<TARGET_FILE:kltce_fleet_mpi>" -P ${kltce_data}/fleet_case.cmake)
  set_tests_properties(kltce_e2e_fleet_mpi PROPERTIES LABELS e2e ENVIRONMENT
    "ASAN_OPTIONS=detect_leaks=0;OMPI_ALLOW_RUN_AS_ROOT=1;OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1;OMPI_MCA_rmaps_base_oversubscribe=1;OMPI_MCA_plm_rsh_agent=;OMPI_MCA_btl_vader_single_copy_mechanism=none")
endif()

# --compare: the shipped fleet replayed with the old document (examples/campaigns.json) and the new
# (examples/fleet/campaigns_v2.json): one run, two workers, three shards merged and two MPI ranks
# give the same JSON, and one run and three workers the same CSV rows; the table is the
# walk-through's; a merge refuses a plain summary among comparisons.
set(compare_old ${PROJECT_SOURCE_DIR}/examples/campaigns.json)
set(compare_args fleet|--document|${fleet_dir}/campaigns_v2.json|--compare|${compare_old}|--fleet|${fleet_dir}/fleet.jsonl)
kltce_e2e(fleet_compare ARGS ${compare_args}|--workers|1|--format|json EXPECT_OUT ${fleet_dir}/compare.json)
kltce_e2e(fleet_compare_two_workers ARGS ${compare_args}|--workers|2|--format|json EXPECT_OUT ${fleet_dir}/compare.json)
kltce_e2e(fleet_compare_table ARGS ${compare_args}|--workers|2 EXPECT_OUT ${kltce_data}/fleet_compare_table.txt)
kltce_e2e(fleet_compare_merge_mixed ARGS fleet|merge|${fleet_dir}/compare.json|${fleet_dir}/summary.json
  EXPECT_RC 2 EXPECT_ERR "^kltce: fleet: merge: '[^']*summary.json': not a comparison")
# A timer that never ends in the old document stops the comparison at the device that arms it.
kltce_e2e(fleet_compare_blocked ARGS fleet|--document|${compare_old}|--compare|${kltce_data}/endless.json|--fleet|${kltce_data}/fleet_tap.jsonl
  EXPECT_RC 3 EXPECT_ERR "^kltce: fleet: line 3: device 'b': the engine's queue is blocked for good; its replay says:\nkltce: line 1:")
kltce_e2e(check_compare ARGS check|--document|${fleet_dir}/campaigns_v2.json|--compare|${compare_old}|--profile|${kltce_examples}/profile.json
  EXPECT_OUT_REGEX "^feedback_survey: removed from configs\\[1\\]; was admitted
.*welcome_offer: edited; admitted as before
  /conditions/1/count_config/count: 2 -> 1
4 campaigns: 1 added, 1 removed, 2 edited, 0 unchanged")
set(compare_case ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:kltce> -DDOCUMENT=${fleet_dir}/campaigns_v2.json
    -DFLEET=${fleet_dir}/fleet.jsonl -DEXPECT=${fleet_dir}/compare.json "-DEXTRA=--compare|${compare_old}")
add_test(NAME kltce_e2e_fleet_compare_shards COMMAND ${compare_case} -DMODE=shards -DSCRATCH=${kltce_scratch}/fleet_compare_shards
  -P ${kltce_data}/fleet_case.cmake)
add_test(NAME kltce_e2e_fleet_compare_csv COMMAND ${compare_case} -DMODE=csv -DSCRATCH=${kltce_scratch}/fleet_compare_csv
  -DEXPECT_CSV=${kltce_data}/fleet_compare.csv -P ${kltce_data}/fleet_case.cmake)
set_tests_properties(kltce_e2e_fleet_compare_shards kltce_e2e_fleet_compare_csv PROPERTIES LABELS e2e)
if(TARGET kltce_fleet_mpi AND MPIEXEC_EXECUTABLE)
  add_test(NAME kltce_e2e_fleet_compare_mpi COMMAND ${compare_case} -DMODE=mpi -DSCRATCH=${kltce_scratch}/fleet_compare_mpi
    "-DMPI_RUN=${MPIEXEC_EXECUTABLE}|${MPIEXEC_NUMPROC_FLAG}|2|$<TARGET_FILE:kltce_fleet_mpi>" -P ${kltce_data}/fleet_case.cmake)
  set_tests_properties(kltce_e2e_fleet_compare_mpi PROPERTIES LABELS e2e ENVIRONMENT
    "ASAN_OPTIONS=detect_leaks=0;OMPI_ALLOW_RUN_AS_ROOT=1;OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1;OMPI_MCA_rmaps_base_oversubscribe=1;OMPI_MCA_plm_rsh_agent=;OMPI_MCA_btl_vader_single_copy_mechanism=none")
endif()
