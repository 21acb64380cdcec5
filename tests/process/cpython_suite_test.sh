#!/usr/bin/env bash
# CPython's own regression tests, run inside sarvode and by the Python that
# the build embeds: the same number of tests run, skipped and failed.
# Usage: cpython_suite_test.sh SARVODE PYTHON MODULE [-m PATTERN]
set -uo pipefail
sarvode=$1
python=${SARVODE_PYTHON:-$2} # the Python sarvode runs with: the one chosen for this run, else the build's
shift 2

# The closing lines of unittest: "Ran N tests" and "OK (skipped=K)" or "FAILED (...)".
counts() {
  timeout 600 "$@" -m test -v "${suite[@]}" 2>&1 | grep -E '^(Ran [0-9]+ tests?|OK|FAILED)' | sed 's/ in [0-9.]*s$//'
}

suite=("$@")
if ! "$python" -c 'import test.support' 2>/dev/null; then
  echo "the regression tests of $python are not installed"
  exit 77 # skipped
fi
expected=$(counts "$python")
got=$(counts "$sarvode")
echo "python3: $expected"
echo "sarvode: $got"
[[ -n $expected && $got == "$expected" ]] || { echo "FAILED: the counts differ" >&2; exit 1; }
