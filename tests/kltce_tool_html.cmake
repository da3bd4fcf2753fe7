# --html end to end: the display output stays byte for byte that of a run without it (a comparison's
# table and JSON too), a page that
# cannot be written stops the command before any replay, and --html asks for --explain (refused as
# the argument parser refuses any option, with its own exit code). (The pages
# themselves are checked in a browser by browser_reports.cmake.)
if(NOT TARGET kltce)
  return()
endif()
set(html_run run|--document|${kltce_examples}/campaigns.json|--profile|${kltce_examples}/profile.json|--events|${kltce_examples}/events.jsonl|--fresh)
kltce_e2e(html_explained ARGS ${html_run}|--explain|--html|${kltce_scratch}/example.html
  EXPECT_OUT ${kltce_data}/example.expected.jsonl)
kltce_e2e(html_unwritable ARGS ${html_run}|--explain|--html|${kltce_scratch}/no/such/dir/r.html
  EXPECT_RC 2 EXPECT_ERR "^kltce: --html: cannot write '[^']*/no/such/dir/r.html'")
kltce_e2e(html_needs_explain ARGS ${html_run}|--html|${kltce_scratch}/example.html
  EXPECT_RC 2 EXPECT_ERR "--html requires --explain")
kltce_e2e(fleet_html_unwritable
  ARGS fleet|--document|${kltce_examples}/campaigns.json|--fleet|${kltce_examples}/fleet/fleet.jsonl|--html|${kltce_scratch}/no/such/dir/f.html
  EXPECT_RC 2 EXPECT_ERR "^kltce: fleet: --html: cannot write '[^']*/no/such/dir/f.html'")
kltce_e2e(fleet_html_summary
  ARGS fleet|--document|${kltce_examples}/campaigns.json|--fleet|${kltce_examples}/fleet/fleet.jsonl|--workers|2|--format|json|--html|${kltce_scratch}/fleet.html
  EXPECT_OUT ${kltce_examples}/fleet/summary.json)
set(compare_html_args fleet|--document|${kltce_examples}/fleet/campaigns_v2.json|--compare|${kltce_examples}/campaigns.json|--fleet|${kltce_examples}/fleet/fleet.jsonl)
kltce_e2e(fleet_compare_html_table ARGS ${compare_html_args}|--workers|2|--html|${kltce_scratch}/compare.html
  EXPECT_OUT ${kltce_data}/fleet_compare_table.txt)
kltce_e2e(fleet_compare_html_json ARGS ${compare_html_args}|--workers|1|--format|json|--html|${kltce_scratch}/compare.html
  EXPECT_OUT ${kltce_examples}/fleet/compare.json)
