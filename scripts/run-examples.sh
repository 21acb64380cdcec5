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
# A C++ application that embeds Python (docs/embedding.md), built as any
# application is: against the installed package, with find_package(kest).
build_dir=$(cd "$bin/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo
echo "\$ cmake --install $build_dir --prefix PREFIX && cmake -S examples/embedding -DCMAKE_PREFIX_PATH=PREFIX ..."
if cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null &&
  cmake -S examples/embedding -B "$work/shop" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null &&
  cmake --build "$work/shop" >/dev/null; then
  show "$work/shop/shop"
else
  echo "(the embedding example did not build against the installed tree)"
fi
echo
echo "\$ printf 'x = 20\\nx * 2 + 2\\n' | $sarvode -i"
printf 'x = 20\nx * 2 + 2\n' | "$sarvode" -i
exit 0
