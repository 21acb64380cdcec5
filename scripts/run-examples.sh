#!/usr/bin/env bash
# Runs the examples with the built host, showing each command and its outcome.
set -uo pipefail
cd "$(dirname "$0")/.."
sarvode=${1:-build/bin/sarvode}
bin=$(dirname "$sarvode")

show() {
  echo
  echo "\$ $*"
  "$@"
  echo "(exit status $?)"
}

show "$sarvode" --version
show "$sarvode" -e "sum(range(10))"
show "$sarvode" --show-class -e "{'a': 1}['a'] * 2.5"
show "$sarvode" examples/tour.py first second
show "$sarvode" examples/demo.py
show "$sarvode" examples/python_objects.py
show "$sarvode" examples/containers.py
show "$sarvode" examples/logging_demo.py
show "$sarvode" examples/project/main.py Ada
show "$sarvode" examples/error.py
show "$sarvode" -c $'x = 1\ny = x +'
show "$sarvode" --sandbox examples/sandbox.py
show "$sarvode" --timeout 1 -c "while True: pass"
# A C++ host of its own that embeds Python through the extension (docs/embedding.md).
show "$bin/embed_python" "$bin/../lib/sarvode/extensions/sarvode_python.so"
echo
echo "\$ printf 'x = 20\\nx * 2 + 2\\n' | $sarvode -i"
printf 'x = 20\nx * 2 + 2\n' | "$sarvode" -i
exit 0
