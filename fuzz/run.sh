#!/usr/bin/env bash
# Runs every fuzz target for a bounded time, starting from its checked-in seeds (fuzz/corpus/<target>/),
# and prints each target's executions. Inputs found along the way go to the work folder, never into
# the checked-in seeds; a crash leaves its input there too and makes the script fail.
# Usage: fuzz/run.sh [seconds per target, default 25] [build folder, default build/fuzz]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-25}"
build="${2:-build/fuzz}"
status=0
for target in replay macros store stream_line profile campaign capi; do
  work="$build/fuzz-work/$target"
  mkdir -p "$work/corpus" "$work/artifacts"
  log="$work/log.txt"
  # Leak checks stay on: the engine keeps its rule objects reachable for the whole process.
  if ! "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" "fuzz/corpus/$target" >"$log" 2>&1; then
    echo "fuzz: $target found a crash (input in $work/artifacts/):"
    grep -A30 -m1 "==ERROR\|runtime error\|deadly signal\|Timeout\|out-of-memory" "$log" || tail -40 "$log"
    status=1
  fi
  stat() { grep -o "stat::$1: *[0-9]*" "$log" | grep -o '[0-9]*$' || echo '?'; }
  echo "fuzz: $target: $(stat number_of_executed_units) executions in ${seconds} s," \
       "$(stat average_exec_per_sec) exec/s, $(stat new_units_added) new inputs, peak $(stat peak_rss_mb) MB"
done
exit "$status"
