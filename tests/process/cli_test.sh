#!/usr/bin/env bash
# The sarvode command line as a user meets it. Usage: cli_test.sh SARVODE CASE TMPDIR
set -uo pipefail
sarvode=$1
case_name=$2
tmp=$(mktemp -d "${3:-/tmp}/cli-XXXXXX")
trap 'rm -rf "$tmp"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# run ARGS...: sets $out, $err and $status.
run() {
  out=$("$sarvode" "$@" 2>"$tmp/stderr" <"${stdin:-/dev/null}")
  status=$?
  err=$(cat "$tmp/stderr")
}

expect() { # expect STATUS OUT ERR
  [[ $status == "$1" ]] || fail "exit status $status, expected $1 (stdout: $out; stderr: $err)"
  [[ $out == "$2" ]] || fail "stdout was [$out], expected [$2]"
  [[ $err == "$3" ]] || fail "stderr was [$err], expected [$3]"
}

case $case_name in
compiled-runner-cache)
  # The runner's compiled code is kept in the per-user folder and used by
  # the next start; a damaged file is made again; nothing is written under
  # -B; a folder that cannot be made changes nothing but the speed.
  export XDG_DATA_HOME=$tmp/data
  unset LOCALAPPDATA USERPROFILE PYTHONDONTWRITEBYTECODE
  cache=$tmp/data/Sarvode/cache
  run -B -c "print('no cache')"
  expect 0 "no cache" ""
  [[ ! -e $cache ]] || fail "-B wrote $(ls "$cache")"
  run -c "print('first')"
  expect 0 "first" ""
  files=("$cache"/_sarvode_runner-*.bin)
  [[ ${#files[@]} == 1 && -s ${files[0]} ]] || fail "cache [$(ls -la "$cache" 2>&1)]"
  printf 'not code' >"${files[0]}"
  run -c "print('second')"
  expect 0 "second" ""
  [[ $(wc -c <"${files[0]}") -gt 1000 ]] || fail "the damaged file was not made again"
  # What the file holds is what runs: code of this Python that says so.
  python=$("$sarvode" -c "import os, sys; print(os.path.realpath(sys.executable))")
  if [[ -x $python ]]; then
    "$python" -c "import marshal, sys; marshal.dump(compile('print(\"from the cache\")', '<x>', 'exec'), open(sys.argv[1], 'wb'))" "${files[0]}" ||
      fail "cannot write code with $python"
    run -c "pass"
    [[ $out == "from the cache"* ]] || fail "the cached code did not run: [$out] [$err]"
  fi
  rm -rf "$tmp/data" && mkdir -p "$tmp/data" && : >"$tmp/data/Sarvode"
  run -c "print('third')"
  expect 0 "third" ""
  ;;
timeout-exits-124)
  # The time limit interrupts a busy loop, a sleeping script and nothing else.
  run --timeout 1 --exec "while True: pass"
  [[ $status == 124 ]] || fail "status $status (stderr: $err)"
  [[ $err == "<string>: error: KeyboardInterrupt"$'\n'"sarvode: the run took longer than 1 s and was interrupted" ]] ||
    fail "stderr [$err]"
  run --timeout 1 -c "while True: pass"
  [[ $status == 124 && $err == "<string>:1: error: KeyboardInterrupt"$'\n'*$'\nKeyboardInterrupt\nsarvode: the run took longer than 1 s and was interrupted' ]] ||
    fail "-c: status $status, stderr [$err]"
  printf 'import time\ndef wait():\n    time.sleep(60)\nwait()\n' >"$tmp/slow.py"
  SECONDS=0
  run --timeout 1 "$tmp/slow.py"
  [[ $status == 124 ]] || fail "script status $status (stderr: $err)"
  ((SECONDS < 30)) || fail "the sleeping script ran ${SECONDS}s"
  [[ $err == *'slow.py", line 3, in wait'*KeyboardInterrupt* ]] || fail "script stderr [$err]"
  # A wait that only a signal can end, on the main thread.
  printf 'import threading\nthreading.Event().wait()\n' >"$tmp/waits.py"
  SECONDS=0
  run --timeout 1 "$tmp/waits.py"
  [[ $status == 124 ]] || fail "waiting script status $status (stderr: $err)"
  ((SECONDS < 30)) || fail "the waiting script ran ${SECONDS}s"
  [[ $err == *KeyboardInterrupt* ]] || fail "waiting script stderr [$err]"
  run --timeout 5 -e "6 * 7"
  expect 0 "42" ""
  run --timeout 0 -c "pass"
  [[ $status == 2 ]] || fail "a zero time limit was accepted: $status"
  ;;
python-log-records-on-standard-error)
  # In the order logged, each with its level name; debug dropped; arguments
  # formatted; a custom level shown as Python names it.
  code=$'import logging\nlogging.info("one")\nlogging.debug("hidden")\nlogging.warning("a %d", 1)\nlogging.log(25, "custom")\nlogging.getLogger("app").error("three")\nlogging.critical("four")'
  expected=$'INFO: one\nWARNING: a 1\nLevel 25: custom\nERROR: three\nCRITICAL: four'
  run --exec "$code"
  expect 0 "" "$expected"
  # A script's logging is python3's (see python-like.logging) unless
  # --host-log asks for the host log, with the script's own output untouched.
  printf '%s\nprint("out")\n' "$code" >"$tmp/logs.py"
  run --host-log "$tmp/logs.py"
  expect 0 "out" "$expected"
  run "$tmp/logs.py"
  expect 0 "out" $'WARNING:root:a 1\nERROR:app:three\nCRITICAL:root:four'
  ;;
expression-result)
  run -e "6 * 7"
  expect 0 "42" ""
  run -e "1 == 1"
  expect 0 "True" ""
  run -e "[1, 'a']"
  expect 0 "[1, 'a']" ""
  ;;
none-result-prints-nothing)
  run -e "None"
  expect 0 "" ""
  run --exec "x = 1"
  expect 0 "" ""
  run -c "x = 1"
  expect 0 "" ""
  ;;
code-and-expression-exit-statuses)
  # SystemExit and KeyboardInterrupt end -c, --exec and -e as they end python3 -c.
  for mode in -c --exec; do
    run $mode "import sys; sys.exit(3)"
    expect 3 "" ""
    run $mode "import sys; sys.exit(300)"
    expect 44 "" ""
    run $mode "import sys; sys.exit()"
    expect 0 "" ""
    run $mode "raise SystemExit('bye')"
    expect 1 "" "bye"
    run --sandbox $mode "import sys; sys.exit(7)"
    expect 7 "" ""
  done
  run -e "exit(5)"
  expect 5 "" ""
  run --exec "raise KeyboardInterrupt"
  [[ $status == 130 ]] || fail "exit status $status after KeyboardInterrupt"
  [[ $err == "KeyboardInterrupt" ]] || fail "stderr was [$err]"
  run -c "raise KeyboardInterrupt"
  [[ $status == 130 && $err == "<string>:1: error: KeyboardInterrupt"$'\n'*$'\nKeyboardInterrupt' ]] ||
    fail "-c: status $status after KeyboardInterrupt, stderr [$err]"
  ;;
show-model-lists-python-modules)
  run --show-model
  [[ $status == 0 ]] || fail "exit status $status"
  [[ $out == *$'\nmodule python.builtins - '* && $out == *$'\nmodule python.collections.abc'* ]] ||
    fail "no standard entries of python in [$out]"
  [[ $out != *$'\nmodule python.json'* ]] || fail "python.json listed before --all-modules"
  run --show-model --all-modules
  [[ $status == 0 ]] || fail "exit status $status"
  [[ $out == *$'\nmodule python.json - '* ]] || fail "python.json missing after --all-modules"
  [[ $out != *$'\nmodule python.this'* && $out != *$'\nmodule python.antigravity'* ]] || fail "a skipped module is listed"
  ;;
statement-return)
  run --exec $'x = 20\nreturn x * 2 + 2'
  expect 0 "42" ""
  # -c is python3's: a top-level return is a syntax error there.
  run -c $'x = 20\nreturn x * 2 + 2'
  [[ $status == 1 && $err == "<string>:2:1: error: SyntaxError: 'return' outside function"* ]] || fail "-c: $status [$err]"
  ;;
show-class)
  run --show-class -e "'abc'"
  expect 0 "kest.String: abc" ""
  run --show-class -e "2.5"
  expect 0 "kest.Float: 2.5" ""
  ;;
syntax-error-position)
  # Line 2 of the user's code, shown as the user wrote it, with a caret.
  for mode in -c --exec; do
    run $mode $'x = 1\ny = x +'
    [[ $status == 1 ]] || fail "$mode: exit status $status"
    expected=$'<string>:2:8: error: SyntaxError: invalid syntax\n  File "<string>", line 2\n    y = x +\n           ^\nSyntaxError: invalid syntax'
    [[ $err == "$expected" ]] || fail "$mode: stderr was [$err]"
    [[ -z $out ]] || fail "$mode: stdout was [$out]"
  done
  ;;
syntax-error-in-expression)
  run -e "1 +"
  [[ $status == 1 && $err == "<string>:1:"*": error: "*"SyntaxError"* ]] || fail "status $status, stderr [$err]"
  ;;
runtime-error-two-calls-deep)
  printf 'def outer():\n    return inner()\n\ndef inner():\n    raise ValueError("deep")\n\nouter()\n' >"$tmp/deep.py"
  run "$tmp/deep.py"
  [[ $status == 1 && -z $out ]] || fail "status $status, stdout [$out]"
  [[ ${err%%$'\n'*} == "$tmp/deep.py:5: error: ValueError: deep" ]] || fail "first line of [$err]"
  [[ $err == *$'\nTraceback (most recent call last):\n'*', line 7, in <module>'*', line 2, in outer'*', line 5, in inner'*$'\nValueError: deep' ]] ||
    fail "traceback [$err]"
  ;;
runtime-error-in-code)
  # As python3 -c prints it, after the first line (python3 shows -c's source
  # line too from 3.13 on; the host's --exec never does).
  expected=$'<string>:1: error: RuntimeError: plain\nTraceback (most recent call last):\n  File "<string>", line 1, in <module>\nRuntimeError: plain'
  for mode in -c --exec; do
    run $mode "raise RuntimeError('plain')"
    [[ $status == 1 && $(printf '%s\n' "$err" | grep -v '^    ') == "$expected" ]] || fail "$mode: status $status, stderr [$err]"
  done
  ;;
script-argv)
  printf 'import sys\nprint(" ".join(sys.argv[1:]) + " from " + sys.argv[0].rsplit("/", 1)[-1])\n' >"$tmp/args.py"
  run "$tmp/args.py" one --two 3
  expect 0 "one --two 3 from args.py" ""
  ;;
missing-script-is-a-usage-error)
  run "$tmp/no-such-file.py"
  expect 2 "" "sarvode: can't open file '$tmp/no-such-file.py': [Errno 2] No such file or directory"
  ;;
conflicting-modes-are-a-usage-error)
  run --exec "1" -e "2"
  [[ $status == 2 ]] || fail "exit status $status"
  run -i --exec "1"
  [[ $status == 2 ]] || fail "-i --exec: exit status $status"
  # After -c CODE everything is the code's own, as under python3.
  run -c "import sys; print(sys.argv)" -e "2"
  expect 0 "['-c', '-e', '2']" ""
  ;;
unknown-option-is-a-usage-error)
  run --no-such-option
  [[ $status == 2 ]] || fail "exit status $status"
  ;;
missing-extension-folder)
  run --extensions "$tmp/nothing-here" -e "1"
  [[ $status == 3 && $err == "sarvode: cannot read the extensions folder $tmp/nothing-here"* ]] ||
    fail "status $status, stderr [$err]"
  ;;
broken-extension)
  mkdir "$tmp/ext" && echo "not a library" >"$tmp/ext/sarvode_python.so"
  run --extensions "$tmp/ext" -e "1"
  [[ $status == 3 && $err == "sarvode: cannot load the extension $tmp/ext/sarvode_python.so: "* ]] ||
    fail "status $status, stderr [$err]"
  [[ $(printf '%s\n' "$err" | wc -l) == 1 ]] || fail "more than one line: [$err]"
  ;;
sandbox-refuses-a-write)
  for mode in -c --exec; do
    rm -f "$tmp/written.txt"
    run --sandbox $mode "open('$tmp/written.txt', 'w')"
    [[ $status == 1 && ${err%%$'\n'*} == "<string>:1: error: PermissionError: write blocked: read-only sandbox" ]] ||
      fail "$mode: status $status, stderr [$err]"
    [[ ! -e $tmp/written.txt ]] || fail "$mode: the sandbox let the file be written"
    run $mode "open('$tmp/written.txt', 'w').write('x')"
    [[ $status == 0 && -z $err ]] || fail "$mode: status $status, stderr [$err]"
    [[ -e $tmp/written.txt ]] || fail "$mode: without the sandbox the file should be written"
  done
  ;;
sandbox-end-of-run-stays-sandboxed)
  # What a sandboxed script leaves for the end (an atexit function) runs in
  # the sandbox too: Python is not finalized outside it.
  printf 'import atexit\natexit.register(lambda: open(%s, "w").write("out"))\nprint("registered")\n' "'$tmp/escaped'" >"$tmp/leaves.py"
  run --sandbox "$tmp/leaves.py"
  [[ $out == registered && ! -e $tmp/escaped ]] || fail "status $status [$out] [$err]"
  [[ $err == *PermissionError* ]] || fail "stderr [$err]"
  ;;
sandbox-allows-reading)
  echo "hello" >"$tmp/in.txt"
  run --sandbox -e "open('$tmp/in.txt').read().strip()"
  expect 0 "hello" ""
  ;;
console-keeps-names)
  printf 'x = 41\nx + 1\ndef twice(v):\n    return v * 2\n\ntwice(x)\nimport math\nmath.floor(x / 2)\n' >"$tmp/input"
  stdin="$tmp/input" run -i
  expect 0 $'42\n82\n20' ""
  printf '"abc"\n1 == 1\n_\n[1, "b"]\nNone\n' >"$tmp/input"
  stdin="$tmp/input" run -i
  expect 0 $'\'abc\'\nTrue\nTrue\n[1, \'b\']' ""
  ;;
console-goes-on-after-errors)
  printf 'undefined_name\n1 / 0\n3 + 4\nexit()\n5 + 5\n' >"$tmp/input"
  stdin="$tmp/input" run -i
  [[ $out == "7" ]] || fail "stdout was [$out]"
  [[ $err == *"name 'undefined_name' is not defined"* && $err == *"division by zero"* ]] || fail "stderr [$err]"
  ;;
console-output-in-order)
  # Standard output and standard error into one pipe: what an input writes
  # arrives in the order written, though a pipe would buffer standard output.
  printf 'import sys, threading\nprint("one"); sys.stderr.write("two\\n"); print("three")\nt = threading.Thread(target=lambda: print("four")); t.start(); t.join()\n1 + 4\n' >"$tmp/input"
  both=$("$sarvode" -i <"$tmp/input" 2>&1)
  [[ $both == $'one\ntwo\n4\nthree\nfour\n5' ]] || fail "output was [$both]"
  # While an input runs, its output goes through the host's capture.
  printf 'import sys\nprint(type(sys.stdout).__name__)\n' >"$tmp/input"
  stdin="$tmp/input" run -i
  [[ $out == "HostStream" ]] || fail "stdout was [$out]"
  ;;
script-from-standard-input)
  printf 'print(40 + 2)\n' >"$tmp/input"
  stdin="$tmp/input" run
  expect 0 "42" ""
  ;;
version-and-help)
  run --version
  [[ $status == 0 && $out == "sarvode "* ]] || fail "version: status $status, [$out]"
  run --help
  [[ $status == 0 && $out == *"--sandbox"* ]] || fail "help: status $status"
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
echo "$case_name: passed"
