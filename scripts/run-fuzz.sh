#!/usr/bin/env bash
# Fuzzes each libFuzzer target of the fuzz build for the given number of seconds, starting from
# the inputs checked into fuzz/corpus (new inputs go to a working copy under the build directory).
# Usage: run-fuzz.sh BUILD_DIR SECONDS TARGET...
# Prints the executions per target; fails when a target reports a crash, a leak, a sanitizer
# finding or a time-out (the input is kept as <build>/fuzz-artifacts/<target>-crash-...).
set -uo pipefail

build=$1 seconds=$2
shift 2
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$build/fuzz-corpus" "$build/fuzz-artifacts"
# Leaks inside third-party libraries that the agent cannot free (see the file).
export LSAN_OPTIONS="suppressions=$src/fuzz/lsan.supp${LSAN_OPTIONS:+:$LSAN_OPTIONS}"
failed=()
for t in "$@"; do
  bin="$build/fuzz/fuzz_$t"
  work="$build/fuzz-corpus/$t"
  log="$build/fuzz-$t.log"
  mkdir -p "$work"
  echo "== fuzz_$t for ${seconds}s (log: $log)"
  # -timeout: one input taking over 10 s is a hang; -rss_limit_mb bounds a runaway allocation.
  "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
         -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/$t-" \
         "$work" "$src/fuzz/corpus/$t" >"$log" 2>&1
  rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  echo "   exit=$rc executions=${execs:-?} corpus=$(ls "$work" | wc -l)"
  if [ $rc -ne 0 ]; then
    failed+=("$t")
    grep -m1 -E 'ERROR: |runtime error|==[0-9]+==' "$log" || tail -5 "$log"
  fi
done
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing found problems in: ${failed[*]}" >&2
  exit 1
fi
