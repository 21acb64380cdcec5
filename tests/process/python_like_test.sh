#!/usr/bin/env bash
# sarvode runs scripts, modules and standard input the way python3 does: each
# case runs the same script with sarvode and with the Python that the build
# embeds, and compares output, exit status and traceback.
# Usage: python_like_test.sh SARVODE PYTHON CASE TMPDIR
set -uo pipefail
sarvode=$1
python=${SARVODE_PYTHON:-$2} # the Python sarvode runs with: the one chosen for this run, else the build's
case_name=$3
source "$(dirname "${BASH_SOURCE[0]}")/test_folder.sh"
enter_test_folder "$4" py

# run WHO ARGS...: WHO is "s" (sarvode) or "p" (python); sets ${WHO}_out,
# ${WHO}_err and ${WHO}_status. Standard input comes from $stdin.
run() {
  local who=$1 program
  shift
  [[ $who == s ]] && program=$sarvode || program=$python
  local out status
  out=$("$program" "$@" 2>"$tmp/$who.err" <"${stdin:-/dev/null}")
  status=$?
  printf -v "${who}_out" '%s' "$out"
  printf -v "${who}_status" '%s' "$status"
  printf -v "${who}_err" '%s' "$(cat "$tmp/$who.err")"
}

# both ARGS...: runs both and requires the same output and status, and
# sarvode's standard error to be python3's after one first line, which is
# returned in $first (empty when python3 printed nothing either).
both() {
  run s "$@"
  run p "$@"
  [[ $s_status == "$p_status" ]] || fail "status $s_status, python3 $p_status (stderr: $s_err)"
  [[ $s_out == "$p_out" ]] || fail "stdout [$s_out], python3 [$p_out]"
  first=""
  if [[ -z $p_err ]]; then
    [[ -z $s_err ]] || fail "stderr [$s_err], python3 printed nothing"
    return
  fi
  first=${s_err%%$'\n'*}
  local rest=${s_err#*$'\n'}
  [[ $s_err == *$'\n'* ]] || rest=""
  [[ $rest == "$p_err" ]] || fail $'stderr after the first line:\n'"$rest"$'\npython3:\n'"$p_err"
}

# same_error ARGS...: like both, but python3's whole standard error is one
# message that sarvode prints as it is (no first line of its own).
same_error() {
  run s "$@"
  run p "$@"
  [[ $s_status == "$p_status" && $s_out == "$p_out" && $s_err == "$p_err" ]] ||
    fail "sarvode: $s_status [$s_out] [$s_err]; python3: $p_status [$p_out] [$p_err]"
}

case $case_name in
sibling-import)
  printf 'def greet(name):\n    return "hello " + name\n' >helper.py
  printf 'import helper\nimport os\nprint(helper.greet("you"), helper.__file__ == os.path.join(os.path.dirname(__file__), "helper.py"))\n' >main.py
  cd / && both "$tmp/main.py" && cd "$tmp"
  [[ $s_out == "hello you True" ]] || fail "output [$s_out]"
  ;;
import-star)
  printf 'from math import *\nfrom os.path import *\nprint(floor(pi), basename("/a/b"))\n' >star.py
  both star.py
  [[ $s_out == "3 b" ]] || fail "output [$s_out]"
  ;;
pickling)
  cat >pick.py <<'PY'
import pickle
def twice(x):
    return 2 * x
class Point:
    def __init__(self, x):
        self.x = x
f = pickle.loads(pickle.dumps(twice))
p = pickle.loads(pickle.dumps(Point(4)))
print(f is twice, f(21), type(p) is Point, p.x)
PY
  both pick.py
  [[ $s_out == "True 42 True 4" ]] || fail "output [$s_out]"
  ;;
main-names)
  mkdir sub
  printf 'import sys, os\nprint(__name__, __file__, sys.argv, sys.path[0] == os.path.dirname(os.path.abspath(__file__)))\nif __name__ == "__main__":\n    print("as main")\n' >sub/names.py
  both sub/names.py one --two
  [[ $s_out == "__main__ $tmp/sub/names.py ['sub/names.py', 'one', '--two'] True"$'\n'"as main" ]] || fail "output [$s_out]"
  ;;
module-package-main)
  mkdir -p app/inner
  printf '' >app/__init__.py
  printf 'import sys\nfrom . import part\nprint(__name__, __package__, sys.argv, part.VALUE)\nraise SystemExit(int(sys.argv[1]))\n' >app/__main__.py
  printf 'VALUE = 7\n' >app/part.py
  both -m app 5 x
  [[ $s_status == 5 && $s_out == "__main__ app ['$tmp/app/__main__.py', '5', 'x'] 7" ]] || fail "status $s_status [$s_out]"
  printf 'raise ValueError("in a module")\n' >failing.py
  both -m failing
  [[ $first == "$tmp/failing.py:1: error: ValueError: in a module" ]] || fail "first line [$first]"
  run s -m no_such_module_here
  [[ $s_status == 1 && $s_err == *"No module named no_such_module_here"* ]] || fail "missing module: $s_status [$s_err]"
  ;;
stdin-script)
  printf 'import sys\nprint(__name__, sys.argv)\ndef f():\n    raise KeyError("k")\nf()\n' >input.py
  stdin=input.py both - a b
  [[ $s_status == 1 && $s_out == "__main__ ['-', 'a', 'b']" ]] || fail "status $s_status [$s_out]"
  [[ $first == "<stdin>:4: error: KeyError: 'k'" ]] || fail "first line [$first]"
  stdin=input.py both
  [[ $s_out == "__main__ ['']" ]] || fail "without arguments: [$s_out]"
  ;;
closed-pipe)
  cat >writer.py <<'PY'
import os, sys
try:
    while True:
        sys.stdout.write("x" * 65536)
        sys.stdout.flush()
except BrokenPipeError:
    sys.stderr.write("broken pipe\n")
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    sys.exit(0)
PY
  for program in "$sarvode" "$python"; do
    "$program" writer.py 2>"$tmp/err" | head -c 1 >/dev/null
    status=${PIPESTATUS[0]}
    [[ $status == 0 && $(cat "$tmp/err") == "broken pipe" ]] || fail "$program: status $status, stderr [$(cat "$tmp/err")]"
  done
  ;;
file-size-limit)
  printf 'try:\n    open("big", "wb").write(b"x" * 100000)\nexcept OSError as e:\n    print("OSError", e.errno)\n' >big.py
  (ulimit -f 8 && run s big.py && run p big.py && [[ $s_status == 0 && $s_out == "$p_out" && $s_out == "OSError 27" ]]) ||
    fail "past the file-size limit"
  ;;
sys-executable)
  printf 'import sys\nprint(sys.executable)\n' >exe.py
  mkdir fake && printf '#!/bin/sh\necho fake\n' >fake/python3 && chmod +x fake/python3
  exe=$(PATH="$tmp/fake:$PATH" "$sarvode" exe.py) || fail "sarvode failed"
  [[ -n $exe && $exe != "$tmp/fake/"* ]] || fail "sys.executable [$exe]"
  [[ $(realpath "$exe") == $(realpath "$python") ]] || fail "sys.executable $exe is not $python"
  version='import sys; print(sys.version)'
  theirs=$("$exe" -c "$version") && ours=$("$sarvode" -c "$version") || fail "cannot ask the version"
  [[ -n $ours && $theirs == "$ours" ]] || fail "another version: [$theirs], embedded [$ours]"
  ;;
end-of-run)
  cat >ending.py <<'PY'
import atexit, threading, time
atexit.register(lambda: print("exit handler"))
def late():
    time.sleep(0.5)
    print("thread done")
threading.Thread(target=late).start()
print("main done")
PY
  both ending.py
  [[ $s_out == $'main done\nthread done\nexit handler' ]] || fail "output [$s_out]"
  ;;
system-exit)
  for code in 'sys.exit(3)' 'sys.exit()' 'sys.exit(None)' 'sys.exit(300)' 'raise SystemExit(0)' 'sys.exit(-1)' \
    'sys.exit(2**40 + 7)'; do
    printf 'import sys\nprint("before")\n%s\nprint("after")\n' "$code" >exits.py
    both exits.py
  done
  # Beyond a C long python3 exits 255 (3.13 also reports the overflow it
  # met on the way, which is no part of the status).
  for code in 'sys.exit(2**70)' 'sys.exit(-2**70)' 'sys.exit(2**63 + 5)'; do
    printf 'import sys\n%s\n' "$code" >exits.py
    run s exits.py
    run p exits.py
    [[ $s_status == 255 && $p_status == 255 && -z $s_err ]] || fail "$code: $s_status [$s_err], python3 $p_status"
  done
  printf 'import sys\nsys.exit("a message")\n' >message.py
  same_error message.py
  [[ $s_status == 1 && $s_err == "a message" ]] || fail "message: $s_status [$s_err]"
  ;;
keyboard-interrupt)
  cat >loop.py <<'PY'
import time
def wait():
    while True:
        time.sleep(0.05)
print("ready", flush=True)
wait()
PY
  set -m # background jobs keep SIGINT's default disposition
  for who in s p; do
    [[ $who == s ]] && program=$sarvode || program=$python
    "$program" loop.py >"$tmp/$who.out" 2>"$tmp/$who.err" </dev/null &
    pid=$!
    for _ in $(seq 600); do
      [[ -s $tmp/$who.out ]] && break
      sleep 0.1
    done
    kill -INT "$pid"
    wait "$pid"
    printf -v "${who}_status" '%s' "$?"
  done
  [[ $s_status == 130 && $p_status == 130 ]] || fail "status $s_status, python3 $p_status"
  s_err=$(cat "$tmp/s.err")
  [[ $(tail -n +2 "$tmp/s.err") == $(cat "$tmp/p.err") ]] || fail $'stderr:\n'"$s_err"$'\npython3:\n'"$(cat "$tmp/p.err")"
  [[ ${s_err%%$'\n'*} == "$tmp/loop.py:4: error: KeyboardInterrupt" ]] || fail "first line of [$s_err]"
  ;;
library-frame-error)
  printf 'import copy, threading\n\ndef clone(x):\n    return copy.deepcopy(x)\n\nclone(threading.Lock())\n' >lib.py
  both lib.py
  [[ $first == "$tmp/lib.py:4: error: TypeError: cannot pickle '_thread.lock' object" ]] || fail "first line [$first]"
  [[ $s_err == *"copy.py"* ]] || fail "no library frame in [$s_err]"
  ;;
syntax-errors)
  printf 'x = = 1\ny = 2\nz = 3\n' >first.py
  printf 'x = 1\ny = (2 +\nz = 3\n' >middle.py
  printf 'x = 1\ny = 2\nz = 3 +\n' >last.py
  for file in first middle last; do
    both $file.py
    [[ $s_status == 1 && $s_err == *"SyntaxError"* && $s_err == *"^"* ]] || fail "$file: [$s_err]"
  done
  both first.py
  [[ $first == "$tmp/first.py:1:5: error: SyntaxError: invalid syntax" ]] || fail "first line [$first]"
  both last.py
  [[ $first == "$tmp/last.py:3:8: error: SyntaxError: invalid syntax" ]] || fail "first line [$first]"
  ;;
clean-up-at-exit)
  # The end of a run finalizes the interpreter: module globals cleared, files
  # flushed and closed, __del__ and generators' finally run, a leftover
  # temporary file deleted; in the script and in what it imported, for every
  # way a run ends and every way a script is given.
  printf 'log = open("helper.txt", "w")\nlog.write("from helper\\n")\n' >helper.py
  cat >body.py <<'PY'
import helper, os, sys, tempfile
out = open("r.csv", "w")
out.write("a\n")
class Noisy:
    def __del__(self):
        print("del ran")
noisy = Noisy()
def numbers():
    try:
        yield 1
    finally:
        print("finally ran")
started = numbers()
next(started)
left = tempfile.NamedTemporaryFile(dir=".", prefix="left-")
END
PY
  # leftovers: what a run left in the folder, with sizes.
  leftovers() {
    local f
    for f in r.csv helper.txt left-*; do
      [[ -e $f ]] && printf '%s:%s ' "$f" "$(wc -c <"$f")"
    done
  }
  for ending in 'pass' 'sys.exit(3)' 'raise ValueError("at the end")' 'raise KeyboardInterrupt'; do
    sed "s/^END\$/$ending/" body.py >main.py
    for way in file module stdin; do
      case $way in
      file) args=(main.py) ;;
      module) args=(-m main) ;;
      stdin) args=(-) ;;
      esac
      for who in s p; do
        rm -f r.csv helper.txt left-*
        stdin=main.py run "$who" "${args[@]}"
        printf -v "${who}_left" '%s' "$(leftovers)"
      done
      [[ $s_status == "$p_status" ]] || fail "$way, $ending: status $s_status, python3 $p_status ($s_err)"
      [[ $s_out == "$p_out" ]] || fail "$way, $ending: stdout [$s_out], python3 [$p_out]"
      [[ $s_left == "$p_left" ]] || fail "$way, $ending: left [$s_left], python3 [$p_left]"
      [[ $s_left == "r.csv:2 helper.txt:12 " ]] || fail "$way, $ending: left [$s_left]"
      [[ $s_out == *"del ran"* && $s_out == *"finally ran"* ]] || fail "$way, $ending: stdout [$s_out]"
      if [[ $p_err == *Traceback* ]]; then
        [[ ${s_err#*$'\n'} == "$p_err" ]] || fail "$way, $ending: stderr [$s_err], python3 [$p_err]"
      else
        [[ $s_err == "$p_err" ]] || fail "$way, $ending: stderr [$s_err], python3 [$p_err]"
      fi
    done
  done
  ;;
logging)
  # Python logging is python3's: nothing on the root logger until the script
  # configures it, so basicConfig works and unconfigured records print as
  # python3 prints them; in a module run, from standard input and in a file.
  printf 'import logging\nlogging.getLogger("app").info("hidden")\nlogging.getLogger("app").warning("plain %%d", 1)\nlogging.basicConfig(format="%%(levelname)s|%%(name)s|%%(message)s", level=logging.INFO)\nlogging.info("hello")\nlogging.getLogger("app").debug("not shown")\nprint(len(logging.getLogger().handlers))\n' >logs.py
  same_error logs.py
  [[ $s_out == 1 && $s_err == $'plain 1\nINFO|root|hello' ]] || fail "file: [$s_out] [$s_err]"
  same_error -m logs
  stdin=logs.py same_error -
  ;;
utf8-mode)
  # Under the C locale (env -i) and with PYTHONUTF8, Python starts as python3
  # does: UTF-8 mode, the C locale coerced to C.UTF-8 for child processes.
  cat >cafe.py <<'PY'
import locale, os, sys
print("café", sys.flags.utf8_mode, sys.stdout.encoding, sys.getfilesystemencoding())
with open("written", "w") as f:
    print(f.encoding, locale.getpreferredencoding(False), file=sys.stderr)
print(os.environ.get("LC_CTYPE"), locale.setlocale(locale.LC_CTYPE))
PY
  # The sanitizer build's settings survive the empty environment.
  keep=()
  for variable in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS PYTHONMALLOC; do
    [[ -n ${!variable-} ]] && keep+=("$variable=${!variable}")
  done
  for setting in "" PYTHONUTF8=1 PYTHONUTF8=0 PYTHONCOERCECLOCALE=0 PYTHONCOERCECLOCALE=warn LC_ALL=C; do
    for who in s p; do
      [[ $who == s ]] && program=$sarvode || program=$python
      out=$(env -i "${keep[@]}" $setting "$program" cafe.py 2>"$tmp/$who.err")
      printf -v "${who}_status" '%s' "$?"
      printf -v "${who}_out" '%s' "$out"
      printf -v "${who}_err" '%s' "$(cat "$tmp/$who.err")"
    done
    [[ $s_status == "$p_status" && $s_out == "$p_out" && $s_err == "$p_err" ]] ||
      fail "env -i $setting: sarvode $s_status [$s_out] [$s_err]; python3 $p_status [$p_out] [$p_err]"
  done
  PYTHONUTF8=2 run s cafe.py
  PYTHONUTF8=2 run p cafe.py
  [[ $s_status == "$p_status" && -z $s_out && $s_err == "sarvode: invalid PYTHONUTF8 environment variable value" ]] ||
    fail "PYTHONUTF8=2: $s_status [$s_out] [$s_err], python3 $p_status [$p_err]"
  out=$(env -i "${keep[@]}" "$sarvode" cafe.py 2>/dev/null)
  [[ $out == "café 1 utf-8 utf-8"$'\n'"C.UTF-8 C.UTF-8" ]] || fail "env -i: [$out]"
  ;;
argv-bytes)
  # Command-line bytes that are not UTF-8 reach sys.argv as surrogate escapes
  # (os.fsdecode), as python3 decodes them: such a file opens, and such a
  # script runs. sys.orig_argv is the program's own command line.
  printf 'data\n' >$'f\xff'
  printf 'import os, sys\nprint(ascii(sys.argv), open(sys.argv[1]).read().strip(), os.fsencode(sys.argv[1]) == b"f\\xff")\nprint(ascii(sys.orig_argv[1:]))\n' >$'s\xff.py'
  both $'s\xff.py' $'f\xff'
  [[ $s_out == "['s\\udcff.py', 'f\\udcff'] data True"$'\n'"['s\\udcff.py', 'f\\udcff']" ]] || fail "output [$s_out]"
  cp $'s\xff.py' plain.py
  stdin=plain.py both - $'f\xff'
  both -m plain $'f\xff'
  run s plain.py $'f\xff'
  [[ $s_out == *$'\n'"['plain.py', 'f\\udcff']" ]] || fail "sys.orig_argv: [$s_out]"
  ;;
closed-stdout)
  # A script that closes sys.stdout ends as under python3 (status 0, nothing
  # said), json.tool among them; output lost to a closed pipe at the final
  # flush is reported as python3 reports it, with its status.
  printf 'import sys\nprint("gone")\nsys.stdout.close()\n' >closing.py
  same_error closing.py
  [[ $s_status == 0 ]] || fail "status $s_status"
  printf '{"a": [1, 2]}\n' >data.json
  same_error -m json.tool data.json
  [[ $s_out == *'"a"'* ]] || fail "json.tool: [$s_out]"
  printf 'import time\nprint("x" * 100)\ntime.sleep(0.3)\n' >late.py
  for who in s p; do
    [[ $who == s ]] && program=$sarvode || program=$python
    env -u PYTHONUNBUFFERED "$program" late.py 2>"$tmp/$who.err" | true
    printf -v "${who}_status" '%s' "${PIPESTATUS[0]}"
  done
  [[ $s_status == "$p_status" && $(cat "$tmp/s.err") == "$(cat "$tmp/p.err")" ]] ||
    fail "final flush: $s_status [$(cat "$tmp/s.err")], python3 $p_status [$(cat "$tmp/p.err")]"
  [[ $s_status == 120 ]] || fail "final flush: status $s_status"
  ;;
safe-path)
  # PYTHONSAFEPATH=1: neither the script's folder, nor the current one for -m
  # or standard input, comes first on sys.path.
  mkdir code
  printf 'VALUE = 1\n' >code/beside.py
  printf 'import sys, os\nprint(os.path.dirname(os.path.abspath(__file__)) in sys.path, "" in sys.path, os.getcwd() in sys.path)\ntry:\n    import beside\n    print("imported")\nexcept ImportError as e:\n    print("ImportError", e.name)\n' >code/main.py
  PYTHONSAFEPATH=1 both code/main.py
  [[ $s_out == $'False False False\nImportError beside' ]] || fail "file: [$s_out]"
  cd code
  for who in s p; do
    PYTHONSAFEPATH=1 run $who -m main
  done
  [[ $s_status == 1 && $p_status == 1 && $s_err == *"No module named main"* ]] || fail "-m: $s_status [$s_err]"
  PYTHONSAFEPATH=1 stdin=main.py both -
  [[ $s_out == $'False False False\nImportError beside' ]] || fail "standard input: [$s_out]"
  both main.py
  [[ $s_out == $'True False True\nimported' ]] || fail "without PYTHONSAFEPATH: [$s_out]"
  cd ..
  ;;
zip-and-folder)
  # A folder or zip archive with __main__.py runs with an absolute sys.path[0]
  # and __file__, as under python3; sys.argv[0] as given.
  mkdir -p app2
  printf 'import sys\nprint(__file__, sys.path[0], sys.argv[0])\n' >app2/__main__.py
  (cd app2 && "$python" -m zipfile -c ../app2.zip __main__.py) || fail "cannot make the archive"
  both app2
  [[ $s_out == "$tmp/app2/__main__.py $tmp/app2 app2" ]] || fail "folder: [$s_out]"
  both app2.zip
  [[ $s_out == "$tmp/app2.zip/__main__.py $tmp/app2.zip app2.zip" ]] || fail "zip: [$s_out]"
  PYTHONSAFEPATH=1 both app2.zip
  ;;
no-warnings-at-start)
  # With every warning shown, starting prints none.
  printf 'print("ok")\n' >quiet.py
  PYTHONDEVMODE=1 same_error quiet.py
  PYTHONWARNINGS=default same_error quiet.py
  PYTHONWARNINGS=error same_error quiet.py
  [[ $s_out == ok && -z $s_err ]] || fail "[$s_out] [$s_err]"
  ;;
main-globals)
  # __main__ has python3's globals and no others, for a file, a module and
  # standard input (where __file__ is '<stdin>'); a package named kest beside
  # the script is the one that imports.
  printf 'print(sorted(globals()))\nprint(__file__ if "__file__" in globals() else None)\n' >names.py
  both names.py
  both -m names
  stdin=names.py both -
  [[ $s_out == *"'__spec__']"$'\n<stdin>' ]] || fail "standard input: [$s_out]"
  mkdir -p own/kest
  printf 'VALUE = "local"\n' >own/kest/__init__.py
  printf 'import kest\nprint(kest.VALUE)\n' >own/use.py
  both own/use.py
  [[ $s_out == local ]] || fail "local kest: [$s_out]"
  printf 'import kest, kest.demo
print(kest.__name__, kest.demo.__name__)
' >host.py
  run s host.py
  [[ $s_status == 0 && $s_out == "kest kest.demo" ]] || fail "host modules: $s_status [$s_out] [$s_err]"
  ;;
standard-sleep)
  # time.sleep is Python's own in a script: repr, identity and pickling as
  # under python3, so a fork process pool that was handed it shuts down.
  cat >sleeping.py <<'PY'
import concurrent.futures, ctypes, importlib.util, multiprocessing, pickle, time
def c_entry(function):
    # The C function behind a built-in: PyCFunctionObject.m_ml->ml_meth.
    word = ctypes.sizeof(ctypes.c_void_p)
    method_def = ctypes.c_void_p.from_address(id(function) + 2 * word).value
    return ctypes.c_void_p.from_address(method_def + word).value
fresh = importlib.util.module_from_spec(importlib.util.find_spec("time"))
print(repr(time.sleep), pickle.loads(pickle.dumps(time.sleep)) is time.sleep, time.sleep.__self__ is time)
print("Python's own:", c_entry(time.sleep) == c_entry(fresh.sleep))
with concurrent.futures.ProcessPoolExecutor(2, mp_context=multiprocessing.get_context("fork")) as pool:
    pool.submit(time.sleep, .1)
    pool.shutdown(cancel_futures=True)
print("shut down")
PY
  timeout 60 true || fail "no timeout command"
  run s sleeping.py
  run p sleeping.py
  [[ $s_status == "$p_status" && $s_out == "$p_out" && $s_err == "$p_err" ]] ||
    fail "sarvode $s_status [$s_out] [$s_err]; python3 $p_status [$p_out] [$p_err]"
  [[ $s_out == $'<built-in function sleep> True True\nPython\'s own: True\nshut down' ]] || fail "output [$s_out]"
  # Ctrl-C and the time limit still end a long sleep, of a script and of -c, --exec and -e.
  SECONDS=0
  run s --timeout 0.5 -e '__import__("time").sleep(30)'
  [[ $s_status == 124 ]] || fail "-e: status $s_status [$s_err]"
  run s --timeout 0.5 -c 'import time; time.sleep(30)'
  [[ $s_status == 124 ]] || fail "-c: status $s_status [$s_err]"
  run s --timeout 0.5 --exec 'import time; time.sleep(30)'
  [[ $s_status == 124 ]] || fail "--exec: status $s_status [$s_err]"
  ((SECONDS < 20)) || fail "the sleeps were not cut short (${SECONDS}s)"
  ;;
sandbox-guards-unseen)
  # Outside a sandbox the extension's guards change nothing a script sees.
  cat >fds.py <<'PY'
import os, shutil
print(os.mkfifo in os.supports_dir_fd, os.mknod in os.supports_dir_fd, os.stat in os.supports_fd)
print(sorted(f.__name__ for f in os.supports_dir_fd), shutil._use_fd_functions)
print(len(os.supports_follow_symlinks), len(os.supports_effective_ids))
PY
  both fds.py
  [[ $s_out == "True True True"* ]] || fail "output [$s_out]"
  ;;
lost-stderr)
  # An uncaught exception with sys.stderr closed: python3's "lost sys.stderr".
  printf 'import sys\nprint("out")\nsys.stderr.close()\nraise ValueError(1)\n' >lost.py
  run s lost.py
  run p lost.py
  [[ $s_status == "$p_status" && $s_out == "$p_out" ]] || fail "sarvode $s_status [$s_out], python3 $p_status [$p_out]"
  [[ $s_err == *"object repr     : ValueError(1)"$'\n'"lost sys.stderr" ]] || fail "stderr [$s_err], python3 [$p_err]"
  [[ $p_err == *"object repr     : ValueError(1)"$'\n'"lost sys.stderr" ]] || fail "python3 stderr [$p_err]"
  # A script that cannot be opened: python3's message and status.
  run s missing.py
  run p missing.py
  [[ $s_status == 2 && $p_status == 2 ]] || fail "missing script: $s_status, python3 $p_status"
  [[ ${s_err#sarvode: } == "${p_err#"$python": }" ]] || fail "missing script: [$s_err], python3 [$p_err]"
  ;;
compiled-script)
  # A compiled script (.pyc, or any file with the magic number) runs as
  # python3 runs it; one of another Python version is refused as python3 does.
  printf 'import sys\nprint("compiled", __name__, __file__, __loader__.__class__.__name__, sys.argv[1:])\n' >comp.py
  "$python" -c 'import py_compile; py_compile.compile("comp.py", cfile="comp.pyc")' || fail "cannot compile"
  both comp.pyc a
  [[ $s_out == "compiled __main__ $tmp/comp.pyc SourcelessFileLoader ['a']" ]] || fail "output [$s_out]"
  cp comp.pyc nameless
  both nameless
  printf 'XXXXXXXXXXXXXXXXXXXXXXXX' >bad.pyc
  both bad.pyc
  [[ $s_status == 1 && $s_err == *"RuntimeError: Bad magic number in .pyc file" ]] || fail "bad: $s_status [$s_err]"
  ;;
python3-options)
  # python3's own options mean what they mean to python3; those the embedded
  # interpreter cannot honour are refused with a clear message.
  printf 'import sys, os\nprint(sys.flags.optimize, sys.flags.dont_write_bytecode, sys.flags.no_user_site, sys.flags.dev_mode)\nprint(sys.warnoptions, sys._xoptions, sorted(k for k in os.environ if k.startswith("PYTHON")), sys.argv)\nassert False, "asserted"\nprint("no assert", __doc__)\n' >opts.py
  PYTHONWARNINGS=always both -OO -B -s -W ignore -Werror::DeprecationWarning -X dev -X foo=bar -u opts.py a
  [[ $s_out == "2 1 1 True"$'\n'"['default', 'always', 'ignore', 'error::DeprecationWarning'] {'dev': True, 'foo': 'bar'}"* ]] ||
    fail "options: [$s_out]"
  both -O -- opts.py b
  [[ $s_out == *"no assert None" ]] || fail "-O --: [$s_out]"
  for refused in -E -I -S; do
    run s $refused opts.py
    [[ $s_status == 2 && $s_err == "sarvode: $refused is not supported: "* && -z $s_out ]] || fail "$refused: $s_status [$s_out] [$s_err]"
  done
  # -i: the script, then the console in its __main__.
  printf 'x = 41\nimport sys\nsys.exit(3)\n' >ii.py
  printf 'print(x + 1)\n' >input.txt
  for who in s p; do
    stdin=input.txt run $who -i ii.py
  done
  [[ $s_out == 42 && $s_out == "$p_out" && $s_status == "$p_status" ]] || fail "-i: $s_status [$s_out], python3 $p_status [$p_out]"
  # After an uncaught exception, sys.last_* for the console, as python3 keeps them.
  printf 'x = 1\n1 / 0\n' >raises.py
  printf 'import sys\nprint(type(sys.last_value).__name__, sys.last_type.__name__, sys.last_traceback.tb_frame.f_code.co_name, sys.last_traceback.tb_lineno)\n' >input.txt
  for who in s p; do
    stdin=input.txt run $who -i raises.py
  done
  [[ $s_out == "ZeroDivisionError ZeroDivisionError <module> 2" && $s_out == "$p_out" && $s_status == "$p_status" ]] ||
    fail "-i after an error: $s_status [$s_out], python3 $p_status [$p_out]"
  # PYTHONSTARTUP runs before the console's first input.
  printf 'y = 5\n' >startup.py
  printf 'print(y)\n' >input.txt
  for who in s p; do
    PYTHONSTARTUP=startup.py stdin=input.txt run $who -i
  done
  [[ $s_out == 5 && $s_out == "$p_out" && $s_status == "$p_status" ]] || fail "PYTHONSTARTUP: $s_status [$s_out], python3 $p_status [$p_out]"
  ;;
main-frames)
  # The script's code runs with no frame of sarvode's beneath it: the stack,
  # warnings' stack levels, the recursion depth and the debugger see what
  # they see under python3.
  cat >frames.py <<'PY'
import faulthandler, inspect, sys, traceback, warnings
print(len(inspect.stack()), [f.function for f in inspect.stack()])
def inner():
    return [f.function for f in inspect.stack()]
print(inner())
print(sys._getframe().f_back is None)
warnings.warn("x", stacklevel=5)
traceback.print_stack()
sys.stderr.flush()
faulthandler.dump_traceback(all_threads=False)
def deeper(n):
    try:
        return deeper(n + 1)
    except RecursionError:
        return n
print("depth", deeper(0))
PY
  same_error "$tmp/frames.py"
  [[ $s_out == "1 ['<module>']"$'\n'"['inner', '<module>']"$'\n'"True"$'\n'"depth "* ]] || fail "frames: [$s_out]"
  # The warning is placed where python3 places it (sys:1, or <sys>:0 from 3.13 on), never in sarvode's code.
  [[ $s_err == *"sys"*": UserWarning: x"$'\n'*"Stack (most recent call first):"* && $s_err != *"sarvode"* ]] ||
    fail "frames: [$s_err]"
  stdin=frames.py same_error -
  cp frames.py framesmod.py
  same_error -m framesmod
  [[ $s_out == *"'_run_module_as_main']"* ]] || fail "-m frames: [$s_out]"
  # pdb: "where" shows the script's frame only, and "up" finds no older one.
  printf 'import pdb\npdb.set_trace()\nx = 1\nprint("after", x)\n' >debug.py
  printf 'where\nup\ncontinue\n' >commands.txt
  stdin=commands.txt same_error "$tmp/debug.py"
  [[ $s_out == *"Oldest frame"*"after 1" ]] || fail "pdb: [$s_out]"
  ;;
command-as-main)
  # -c CODE runs CODE as __main__, as python3 -c does.
  code=$'import pickle, sys
class Point:
    pass
print(__name__, sys.argv, repr(sys.path[0]), "__file__" in globals())
print(type(pickle.loads(pickle.dumps(Point()))).__qualname__)'
  both -c "$code" a --b
  [[ $s_out == "__main__ ['-c', 'a', '--b'] '' False"$'\n'"Point" ]] || fail "output [$s_out]"
  PYTHONSAFEPATH=1 both -c 'import sys; print(sys.path[0] != "")'
  [[ $s_out == True ]] || fail "safe path: [$s_out]"
  both -c $'def f():\n    return 1 / 0\nf()'
  [[ $s_status == 1 && $first == "<string>:2: error: ZeroDivisionError: division by zero" ]] || fail "error: [$first]"
  both -c 'import sys; sys.exit(4)'
  [[ $s_status == 4 ]] || fail "exit: $s_status"
  # -i -c: the code, then the console in its __main__.
  printf 'print(x + 1)\n' >input.txt
  for who in s p; do
    stdin=input.txt run $who -i -c 'x = 41'
  done
  [[ $s_out == 42 && $s_out == "$p_out" && $s_status == "$p_status" ]] || fail "-i -c: $s_status [$s_out], python3 $p_status [$p_out]"
  ;;
start-up-imports)
  # Before the script's first line, sys.modules holds python3's modules and
  # only the few that the host cannot avoid: the built-in modules whose
  # functions the sandbox guards (3.13 names one _interpreters), and the runner.
  allowed=" _sarvode_runner faulthandler _posixsubprocess _xxsubinterpreters _interpreters "
  printf 'import sys\nprint("\\n".join(sorted(sys.modules)))\n' >mods.py
  compare_modules() {
    local extra missing name
    extra=$(comm -23 <(printf '%s\n' "$s_out") <(printf '%s\n' "$p_out"))
    missing=$(comm -13 <(printf '%s\n' "$s_out") <(printf '%s\n' "$p_out"))
    [[ $s_status == 0 && $p_status == 0 && -n $s_out ]] || fail "$1: status $s_status, python3 $p_status [$s_err]"
    [[ -z $missing ]] || fail "$1: python3 imports what sarvode does not: $missing"
    for name in $extra; do
      [[ $allowed == *" $name "* ]] || fail "$1: sarvode imports $name before the script, python3 does not"
    done
  }
  run s mods.py && run p mods.py && compare_modules FILE
  run s -c "$(cat mods.py)" && run p -c "$(cat mods.py)" && compare_modules -c
  stdin=mods.py run s - && stdin=mods.py run p - && compare_modules -
  run s -m mods && run p -m mods && compare_modules -m
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
echo "$case_name: passed"
