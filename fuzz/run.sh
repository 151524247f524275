#!/usr/bin/env bash
# Runs every fuzz target of build/asan for the given number of seconds (default 20), starting
# from its seed corpus in fuzz/corpus/<target>. Inputs the fuzzer finds go to a temporary
# directory, so the repository's corpus stays small. Prints one line per target with the
# executions run; fails as soon as a target crashes or reports a disagreement.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for binary in build/asan/fuzz/fuzz_*; do
  target=${binary##*/fuzz_}
  mkdir -p "$work/$target"
  if ! "$binary" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/" \
      "$work/$target" "fuzz/corpus/$target" >"$work/$target.log" 2>&1; then
    tail -40 "$work/$target.log"
    echo "fuzz_$target FAILED"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log")
  echo "fuzz_$target: $runs executions in ${seconds}s, no crash, no disagreement"
done
