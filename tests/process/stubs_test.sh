#!/usr/bin/env bash
# sarvode --stubs: the Python type stubs of the host modules, and what a type
# checker makes of them. Cases that run mypy are skipped (status 77) when the
# Python that the build embeds has no mypy.
# Usage: stubs_test.sh SARVODE PYTHON CASE TMPDIR EXAMPLES
set -uo pipefail
sarvode=$1
python=${SARVODE_PYTHON:-$2} # the Python sarvode runs with: the one chosen for this run, else the build's
case_name=$3
examples=$5
source "$(dirname "${BASH_SOURCE[0]}")/test_folder.sh"
enter_test_folder "$4" stubs

write_stubs() {
  "$sarvode" --stubs "$tmp/stubs" >"$tmp/written" 2>"$tmp/err" || fail "--stubs exited $? ($(cat "$tmp/err"))"
}

needs_mypy() {
  if ! "$python" -m mypy --version >/dev/null 2>&1; then
    echo "mypy is not installed for $python: skipped"
    exit 77
  fi
}

# mypy FILES...: sets $out and $status; the stubs are found through MYPYPATH.
mypy() {
  out=$(MYPYPATH="$tmp/stubs" "$python" -m mypy --no-incremental --cache-dir=/dev/null "$@" 2>&1)
  status=$?
}

case $case_name in
demo-module)
  # kest.demo is a module beside kest's own, which is a package holding it.
  write_stubs
  demo=$tmp/stubs/kest/demo.pyi
  [[ -f $demo ]] || demo=$tmp/stubs/kest/demo/__init__.pyi
  [[ -f $demo ]] || fail "no stub of kest.demo; written: $(cat "$tmp/written")"
  grep -qx "from . import demo as demo" "$tmp/stubs/kest/__init__.pyi" || fail "kest does not hold demo"
  grep -q "^python" "$tmp/written" && fail "Python's own modules were written: $(cat "$tmp/written")"
  text=$(cat "$demo")
  for line in \
    'class Shape:' \
    '    def __init__(self, kind: str, size: float, name: str = ...) -> None:' \
    '    size: float' \
    '    position: Vector' \
    '    def kind(self) -> str:' \
    '    def describe(self, prefix: str = ..., suffix: str = ...) -> str:' \
    '    def explode(self) -> _typing.NoReturn:' \
    'class Palette(_typing.MutableMapping[_typing.Any, _typing.Any]):' \
    'class Drawing(_typing.MutableSequence[_typing.Any]):' \
    'class Countdown(_typing.Iterator[_typing.Any]):' \
    'class Vector(kest.I_Immutable, _typing.Sequence[_typing.Any]):' \
    '    def __truediv__(self, other: _typing.Any) -> _typing.Any: ...' \
    'class DemoError(kest.Error):' \
    'def greet(name: str, greeting: str = ...) -> str:' \
    'def numbers(n: int) -> kest.List[_typing.Any]:' \
    'def tally(text: str, counts: _typing.MutableMapping[_typing.Any, _typing.Any]) -> _typing.Any:' \
    "    \"\"\"A greeting; greeting defaults to 'Hello'.\"\"\""; do
    grep -qxF -- "$line" <<<"$text" || fail "kest.demo's stub lacks [$line]:"$'\n'"$text"
  done
  grep -qx 'Error = RuntimeError' "$tmp/stubs/kest/__init__.pyi" || fail "kest.Error is not RuntimeError"
  ;;
unwritable-folder)
  # A folder that cannot be made: a clear message and status 1, nothing on standard output.
  touch "$tmp/file"
  out=$("$sarvode" --stubs "$tmp/file/stubs" 2>"$tmp/err")
  status=$?
  err=$(cat "$tmp/err")
  [[ $status == 1 ]] || fail "status $status"
  [[ -z $out ]] || fail "stdout [$out]"
  [[ $err == "sarvode: --stubs: cannot create the folder $tmp/file/stubs/kest: Not a directory" ]] || fail "stderr [$err]"
  ;;
mypy-checks-calls)
  # A correct script passes, even under --strict (no needless marks in the
  # stubs either); wrong calls are reported where they are.
  needs_mypy
  write_stubs
  cat >good.py <<'EOF'
import kest
import kest.demo
from kest.demo import Countdown, Drawing, Palette, Scaler, Shape, Vector, greet

shape = Shape("circle", 1.0, name="sun")
area: float = shape.area()
drawing = Drawing()
drawing.append(shape)
drawing += [Shape("square", 2.0)]
palette = Palette()
palette["red"] = "#ff0000"
text: str = greet("you", greeting="Hi")
count: int = len(kest.demo.numbers(3))
total = sum(value for value in Countdown(3))
print(Scaler(2.0)(21), Vector(1, 2) + Vector(3, 4), kest.display(shape), area, text, count, total)
try:
    kest.demo.fail("boom")
except kest.demo.DemoError as error:
    print(error.kest)
ints = kest.List[kest.Integer]([3, 1])
ints.sort()
first: int = ints[0]
table = kest.HashMap({"a": 1}, b=2)
colours = kest.HashSet(["red"]) | {"blue"}
print(first, dict(table), palette.get("red", "#000000"), sorted(colours), table.keys())
EOF
  mypy --strict good.py
  [[ $status == 0 ]] || fail "mypy rejected a correct script: $out"
  cat >bad.py <<'EOF'
import kest.demo

kest.demo.greet(1, 2)
kest.demo.Shape("circle", "big")
kest.demo.numbers()
kest.List[kest.Integer]([1]).append("x")
EOF
  mypy bad.py
  echo "$out"
  [[ $status == 1 ]] || fail "mypy status $status"
  [[ $out == *'bad.py:3: error: Argument 1 to "greet" has incompatible type "int"; expected "str"'* ]] || fail "greet(1, 2) not reported"
  [[ $out == *'bad.py:4: error: Argument 2 to "Shape" has incompatible type "str"; expected "float"'* ]] || fail "Shape(..., 'big') not reported"
  [[ $out == *'bad.py:5: error: Missing positional argument "n" in call to "numbers"'* ]] || fail "numbers() not reported"
  [[ $out == *'bad.py:6: error: Argument 1 to "append" of "MutableSequence" has incompatible type "str"; expected "int"'* ]] ||
    fail "a str appended to a List[kest.Integer] not reported"
  ;;
mypy-over-examples)
  # The examples type-check with the stubs, with mypy's defaults.
  needs_mypy
  write_stubs
  mypy "$examples"/*.py
  echo "$out"
  [[ $status == 0 ]] || fail "mypy over the examples: status $status"
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
