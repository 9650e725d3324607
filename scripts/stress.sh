#!/usr/bin/env bash
# Runs the whole test suite of a build folder RUNS times in a row with four busy loops beside it
# (a loaded machine; STRESS_BUSY sets how many), and stops at the first run that fails.
#   scripts/stress.sh BUILD_FOLDER [RUNS [CTEST_ARGUMENTS...]]
# e.g. `scripts/stress.sh build 10 -E 'devices_vm|fuzz_'` leaves out the VM and the fuzz runs.
# With STRESS_NO_SKIP=1 a run in which a test is skipped counts as failed (for the VM tests, a
# skip means no VM could be started, so nothing was tested).
set -euo pipefail
build="$1"
runs="${2:-10}"
shift $(( $# < 2 ? $# : 2 ))
jobs="$(nproc)"

busy=()
stop_busy() { [ ${#busy[@]} -eq 0 ] || kill "${busy[@]}" 2>/dev/null || true; }
trap stop_busy EXIT
for _ in $(seq 1 "${STRESS_BUSY:-4}"); do
  sh -c 'while :; do :; done' &
  busy+=($!)
done

for run in $(seq 1 "$runs"); do
  started=$(date +%s)
  if ! ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$jobs" "$@" \
      > "$build/stress-run.log" 2>&1; then
    cat "$build/stress-run.log"
    echo "stress: $build run $run of $runs failed"
    exit 1
  fi
  if [ "${STRESS_NO_SKIP:-0}" = 1 ] && grep -q '\*\*\*Skipped' "$build/stress-run.log"; then
    cat "$build/stress-run.log"
    echo "stress: $build run $run of $runs skipped tests (STRESS_NO_SKIP=1)"
    exit 1
  fi
  echo "stress: $build run $run of $runs passed ($(( $(date +%s) - started )) s)"
done
echo "stress: $build: $runs passed, 0 failed"
