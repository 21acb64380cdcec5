#!/usr/bin/env bash
# Runs the libFuzzer targets of a build configured with -DSARVODE_FUZZ=ON over
# their seed corpora (tests/fuzz/corpus/<target>) for a fixed number of runs,
# one target after the other, and fails when any of them finds a crash, a
# broken rule, a timeout or runs out of memory.
#
#   scripts/run-fuzzers.sh <build-dir>
#
# New inputs go to a temporary folder that is removed afterwards; the inputs
# that failed are kept in <build-dir>/fuzz-artifacts. Overridable:
# FUZZ_RUNS_ROUND_TRIP, FUZZ_RUNS_FROM_PYTHON, FUZZ_RUNS_EVALUATE (executions),
# FUZZ_MAX_SECONDS (time cap per target), FUZZ_SEED.
set -euo pipefail

if [[ $# -ne 1 ]]; then
  echo "usage: $0 <build-dir>" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
corpus_root=$root/tests/fuzz/corpus
artifacts=$build/fuzz-artifacts
max_seconds=${FUZZ_MAX_SECONDS:-55}
seed=${FUZZ_SEED:-1}

declare -A runs=(
  [fuzz_round_trip]=${FUZZ_RUNS_ROUND_TRIP:-300000}
  [fuzz_from_python]=${FUZZ_RUNS_FROM_PYTHON:-200000}
  [fuzz_evaluate]=${FUZZ_RUNS_EVALUATE:-120000}
)
targets=(fuzz_round_trip fuzz_from_python fuzz_evaluate)

for target in "${targets[@]}"; do
  if [[ ! -x $build/bin/$target ]]; then
    echo "error: $build/bin/$target is missing (configure with clang and -DSARVODE_FUZZ=ON)" >&2
    exit 2
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/sarvode-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$artifacts"

failed=()
start_all=$SECONDS
for target in "${targets[@]}"; do
  mkdir -p "$work/$target" "$work/cwd-$target"
  log=$work/$target.log
  start=$SECONDS
  echo "==> $target: ${runs[$target]} runs (at most ${max_seconds}s)"
  set +e
  # Standard output is closed (-close_fd_mask=1): evaluated code may print.
  # Run in an empty folder, which must stay empty: evaluated code that
  # writes a file relative to it has escaped the sandbox. Leaks are judged by
  # reference counts in the targets; CPython keeps allocations until exit.
  (cd "$work/cwd-$target" && "$build/bin/$target" \
      -runs="${runs[$target]}" -max_total_time="$max_seconds" -seed="$seed" \
      -timeout=20 -rss_limit_mb=4096 -malloc_limit_mb=4096 -detect_leaks=0 \
      -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$artifacts/$target-" \
      "$work/$target" "$corpus_root/$target") </dev/null >"$log" 2>&1
  status=$?
  set -e
  executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  per_second=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
  echo "    ${executed:-?} executions in $((SECONDS - start))s, ${per_second:-?} exec/s, status $status"
  if [[ $status -eq 0 && -n $(ls -A "$work/cwd-$target") ]]; then
    echo "    files were written outside the sandbox:" $(ls -A "$work/cwd-$target")
    status=1
  fi
  if [[ $status -ne 0 ]]; then
    failed+=("$target")
    echo "---- $target failed; the end of its log:"
    tail -n 60 "$log"
    echo "---- inputs kept in $artifacts:"
    ls -1 "$artifacts" | sed -n "/^$target-/p"
  fi
done
echo "==> all targets: $((SECONDS - start_all))s"

if [[ ${#failed[@]} -ne 0 ]]; then
  echo "fuzzing failed: ${failed[*]}" >&2
  exit 1
fi
