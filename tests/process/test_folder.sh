# Sourced by the process test scripts: a folder of the test's own, removed
# when the script ends, and the way a case fails.

# The Python a test runs on is SARVODE_PYTHON's or the build's, never that of
# a virtual environment the developer has activated.
unset VIRTUAL_ENV

# enter_test_folder PARENT PREFIX: makes PARENT/PREFIX-XXXXXX, sets $tmp and enters it.
enter_test_folder() {
  mkdir -p "$1"
  tmp=$(mktemp -d "$1/$2-XXXXXX")
  trap 'rm -rf "$tmp"' EXIT
  cd "$tmp" || exit 1
}

fail() {
  echo "FAILED: $*" >&2
  exit 1
}
