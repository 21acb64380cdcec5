#!/usr/bin/env bash
# The errors that sarvode prints, kind by kind, beside python3's on the same
# code: as a script (FILE), as -c, as --exec and, for expressions, as -e. The first line
# reads "FILE:LINE: error: TYPE: MESSAGE", where "TYPE: MESSAGE" is the last
# line python3 prints; the rest is python3's traceback (source lines and
# carets aside: python3 shows them for -c from 3.13 on).
# Usage: error_lines_test.sh SARVODE PYTHON CASE TMPDIR
set -uo pipefail
sarvode=$1
python=${SARVODE_PYTHON:-$2} # the Python sarvode runs with: the one chosen for this run, else the build's
case_name=$3
source "$(dirname "${BASH_SOURCE[0]}")/test_folder.sh"
enter_test_folder "$4" err

# run PROGRAM ARGS...: sets out, err (standard error) and status.
run() {
  out=$("$@" 2>"$tmp/err" </dev/null)
  status=$?
  err=$(cat "$tmp/err")
}

last_line() { printf '%s\n' "$1" | tail -n 1; }
first_line() { printf '%s\n' "$1" | head -n 1; }
after_first() { printf '%s\n' "$1" | tail -n +2; }
# The traceback without source lines and carets (lines indented by four spaces).
frames() { printf '%s\n' "$1" | grep -v '^    '; }

# check MODE LINE ARGS...: runs sarvode ARGS and python3 ARGS (for -e and
# --exec, python3 gets -c); the statuses agree, sarvode's first line names LINE of FILE and
# python3's last line, and the frames after it are python3's.
check() {
  local mode=$1 line=$2
  shift 2
  local where
  case $mode in
  file) where="$tmp/$1" ;;
  *) where="<string>" ;;
  esac
  run "$sarvode" "$@"
  local s_err=$err s_status=$status
  local p_args=("$@")
  [[ $mode == e || $mode == exec ]] && p_args[0]=-c
  run "$python" "${p_args[@]}"
  local p_err=$err p_status=$status
  [[ $s_status == "$p_status" ]] || fail "$mode: status $s_status, python3 $p_status ($s_err)"
  local expected
  expected="$where:$line: error: $(last_line "$p_err")"
  [[ $(first_line "$s_err") == "$expected"* ]] || fail "$mode: first line [$(first_line "$s_err")], not [$expected]"
  [[ $(last_line "$s_err") == "$(last_line "$p_err")" ]] || fail "$mode: last line [$(last_line "$s_err")], python3 [$(last_line "$p_err")]"
  [[ $(frames "$(after_first "$s_err")") == "$(frames "$p_err")" ]] ||
    fail "$mode: traceback"$'\n'"$(after_first "$s_err")"$'\n'"python3:"$'\n'"$p_err"
}

# every LINE CODE: the code as a script, as -c and as --exec.
every() {
  printf '%s\n' "$2" >case.py
  check file "$1" case.py
  check c "$1" -c "$2"
  check exec "$1" --exec "$2"
}

case $case_name in
builtin-exceptions)
  every 2 $'x = 1\ny = x / 0'
  every 1 "{}['x']"
  check e 1 -e "{}['x']"
  every 3 $'a = 1\n\nundefined_name'
  every 1 'len(5)'
  every 1 "int('x')"
  check e 1 -e '[][1]'
  ;;
library-errors)
  every 3 $'import json\n\njson.loads("{bad")'
  every 2 $'from fractions import Fraction\nFraction("x/y")'
  check e 1 -e "__import__('json').loads('{bad')"
  ;;
own-lineno-and-depth)
  every 3 $'class E(Exception):\n    lineno = 42\nraise E("own")'
  every 4 $'def f():\n    return g()\ndef g():\n    return 1 / 0\nf()'
  every 4 $'try:\n    1 / 0\nexcept Exception as e:\n    raise ValueError("v") from e'
  ;;
syntax-errors)
  printf 'x = = 1\n' >case.py
  run "$sarvode" case.py
  [[ $status == 1 && $(first_line "$err") == "$tmp/case.py:1:5: error: SyntaxError: invalid syntax" ]] ||
    fail "script: $status [$err]"
  for mode in -c --exec; do
    run "$sarvode" $mode $'a = 1\nb = 1 +\nc = 3'
    [[ $status == 1 && $(first_line "$err") == "<string>:2:8: error: SyntaxError: invalid syntax" ]] || fail "$mode middle: [$err]"
    run "$sarvode" $mode $'x = 1\nif x:'
    [[ $status == 1 && $(first_line "$err") == "<string>:2:"*": error: IndentationError: expected an indented block after 'if' statement on line 2" ]] ||
      fail "$mode end: [$err]"
  done
  run "$sarvode" -e '1 +'
  [[ $status == 1 && $(first_line "$err") == "<string>:1:"*": error: SyntaxError: invalid syntax" ]] || fail "-e: [$err]"
  ;;
host-errors)
  # No python3 runs these: they need the host modules.
  printf 'import kest.demo\nx = 1\nkest.demo.fail("boom")\n' >host.py
  run "$sarvode" host.py
  [[ $status == 1 && $(first_line "$err") == "$tmp/host.py:3: error: kest.demo.DemoError: boom" &&
     $(last_line "$err") == "kest.demo.DemoError: boom" ]] || fail "script: [$err]"
  run "$sarvode" --exec $'x = 1\n\nkest.demo.Shape("circle", "big")'
  [[ $status == 1 && $(first_line "$err") == "<string>:3: error: kest.BadArgument: Argument 2 (size) must be kest.Float, not kest.String." &&
     $err == *$'File "<string>", line 3, in <module>'* ]] || fail "--exec: [$err]"
  run "$sarvode" -c $'import kest.demo\n\nkest.demo.Shape("circle", "big")'
  [[ $status == 1 && $(first_line "$err") == "<string>:3: error: kest.BadArgument: Argument 2 (size) must be kest.Float, not kest.String." &&
     $err == *$'File "<string>", line 3, in <module>'* ]] || fail "-c: [$err]"
  run "$sarvode" -e "kest.member(kest.demo.Palette(), 'get')('x', 0)"
  [[ $status == 1 && $(last_line "$err") == "kest.BadArgument: Too many arguments for kest.demo.Palette.get: it takes 1, 2 given." ]] ||
    fail "-e: [$err]"
  printf 'import kest.demo\ntry:\n    kest.demo.fail("boom")\nexcept kest.demo.DemoError as e:\n    print(str(e), repr(e), e.args, e.kest.message)\n' >caught.py
  run "$sarvode" caught.py
  [[ $status == 0 && $out == "boom DemoError('boom') ('boom',) boom" ]] || fail "caught: $status [$out] [$err]"
  ;;
sandbox-errors)
  for mode in -c --exec; do
    run "$sarvode" --sandbox $mode $'x = 1\nopen("never-written", "w")'
    [[ $status == 1 && $(first_line "$err") == "<string>:2: error: PermissionError: write blocked: read-only sandbox" &&
       $err == *$'File "<string>", line 2, in <module>'* && ! -e never-written ]] || fail "$mode: [$err]"
  done
  ;;
own-excepthook)
  printf 'import sys\nsys.excepthook = lambda t, v, tb: print("hook:", v, file=sys.stderr)\nraise KeyError("k")\n' >hook.py
  run "$sarvode" hook.py
  local_s="$err $status"
  run "$python" hook.py
  [[ $local_s == "$err $status" ]] || fail "sarvode [$local_s], python3 [$err $status]"
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
echo "ok: $case_name"
