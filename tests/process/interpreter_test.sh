#!/usr/bin/env bash
# One sarvode build runs on every Python 3.11 or later that this machine has:
# the Python is chosen when sarvode starts (--python, SARVODE_PYTHON,
# VIRTUAL_ENV, else the build's), and a virtual environment works as under
# its own bin/python.
# Usage: interpreter_test.sh SARVODE EXTENSION CASE TMPDIR
# Exits 77 (skipped) when the machine lacks the Pythons a case needs. Only
# standard output is compared: a sanitizer's report at exit goes to stderr.
set -uo pipefail
sarvode=$1
extension=$2
case_name=$3
source "$(dirname "${BASH_SOURCE[0]}")/test_folder.sh"
enter_test_folder "$4" interp
unset SARVODE_PYTHON VIRTUAL_ENV # each case chooses for itself

# The Pythons to run on: Debian's, and the newest pyenv one of each minor
# version from 3.11 on.
pythons() {
  [[ -x /usr/bin/python3 ]] && echo /usr/bin/python3
  local minor newest dir
  for minor in 3.11 3.12 3.13 3.14; do
    newest=$(ls -d /root/.pyenv/versions/"$minor"* 2>/dev/null | grep -E "/$minor(\.[0-9]+)?$" | sort -V | tail -n1)
    [[ -n $newest && -x $newest/bin/python3 ]] && echo "$newest/bin/python3"
  done
}

# The same question to sarvode running on PYTHON and to PYTHON itself.
same_answer() {
  local python=$1 code=$2 ours theirs
  ours=$("$sarvode" --python "$python" -c "$code" 2>"$tmp/stderr") || fail "$python: sarvode failed: $(cat "$tmp/stderr")"
  theirs=$("$python" -c "$code" 2>"$tmp/stderr") || fail "$python failed: $(cat "$tmp/stderr")"
  [[ $ours == "$theirs" ]] || fail "$python: sarvode [$ours], python [$theirs]"
}

case $case_name in
every-python)
  count=0
  for python in $(pythons); do
    same_answer "$python" 'import os, sys, _decimal, _json; print(sys.version_info, _json.__file__, os.path.realpath(sys.executable))'
    out=$("$sarvode" --python "$python" -c 'import kest.demo, decimal; print(kest.demo.Shape.__name__, decimal.Decimal("1.10") + 1)' 2>"$tmp/stderr") ||
      fail "$python: host module: $(cat "$tmp/stderr")"
    [[ $out == "Shape 2.10" ]] || fail "$python: host module [$out]"
    count=$((count + 1))
  done
  echo "ran on $count Pythons"
  [[ $count -ge 2 ]] || exit 77
  ;;
library-path)
  count=0
  for python in $(pythons); do
    library=$("$python" -c 'import sysconfig, os
v = sysconfig.get_config_var
for d in (v("LIBDIR"), os.path.join(v("LIBDIR"), v("MULTIARCH") or "")):
    p = os.path.join(d, v("INSTSONAME"))
    if os.path.isfile(p):
        print(p); break')
    [[ -n $library ]] || continue
    want=$("$python" -c 'import sys; print(sys.version_info[:3])')
    got=$(SARVODE_PYTHON=$library "$sarvode" -c 'import sys; print(sys.version_info[:3])' 2>"$tmp/stderr") || fail "$library: $(cat "$tmp/stderr")"
    [[ $got == "$want" ]] || fail "$library: [$got], want [$want]"
    version=$(SARVODE_PYTHON=$library "$sarvode" --version) || fail "--version on $library"
    [[ $(sed -n 2p <<<"$version") == "serves Python 3.11 and later (stable ABI)" ]] || fail "--version [$version]"
    [[ $(sed -n 3p <<<"$version") == "running Python "*" ($library)" ]] || fail "--version [$version] on $library"
    count=$((count + 1))
  done
  [[ $count -gt 0 ]] || exit 77
  ;;
choice-order)
  mapfile -t all < <(pythons)
  [[ ${#all[@]} -ge 3 ]] || exit 77
  ask='import sys; print(sys.version_info[:3], sys.base_prefix)'
  version_of() { "$1" -c "$ask"; }
  "${all[2]}" -m venv --without-pip venv || fail "cannot make a venv"
  got=$(VIRTUAL_ENV=$tmp/venv SARVODE_PYTHON=${all[1]} "$sarvode" --python "${all[0]}" -c "$ask")
  [[ $got == "$(version_of "${all[0]}")" ]] || fail "--python first: [$got]"
  got=$(VIRTUAL_ENV=$tmp/venv SARVODE_PYTHON=${all[1]} "$sarvode" -c "$ask")
  [[ $got == "$(version_of "${all[1]}")" ]] || fail "SARVODE_PYTHON second: [$got]"
  got=$(VIRTUAL_ENV=$tmp/venv "$sarvode" -c "$ask")
  [[ $got == "$(version_of "${all[2]}")" ]] || fail "VIRTUAL_ENV third: [$got]"
  ;;
venv)
  # A package of the venv, and sys as the venv's own program has it.
  for python in $(pythons); do
    rm -rf venv && "$python" -m venv --without-pip venv || fail "$python: cannot make a venv"
    site=$(venv/bin/python -c 'import sysconfig; print(sysconfig.get_paths()["purelib"])')
    echo 'where = "venv"' >"$site/venv_only_module.py"
    code='import sys, venv_only_module
print(sys.prefix, sys.base_prefix, sys.executable, venv_only_module.where)
print([p for p in sys.path if p.endswith(("site-packages", "dist-packages")) and not p.endswith("/sarvode/extensions/site-packages")])'
    ours=$(VIRTUAL_ENV=$tmp/venv "$sarvode" -c "$code" 2>"$tmp/stderr") || fail "$python venv: $(cat "$tmp/stderr")"
    theirs=$(venv/bin/python -c "$code")
    [[ $ours == "$theirs" ]] || fail "$python venv: sarvode [$ours], venv python [$theirs]"
    same_answer "$tmp/venv/bin/python" "$code"
  done
  ;;
venv-of-another-version)
  # A venv whose home also holds the build's program, but of another version,
  # runs its own version (its pyvenv.cfg says which).
  other=$(pythons | grep -v -E '^/usr/bin/' | while read -r p; do
    [[ $("$p" -c 'import sys; print(sys.version_info[:2] != (3, 11))') == True ]] && echo "$p"; done | head -n1)
  [[ -n $other ]] || exit 77
  version=$("$other" -c 'import platform; print(platform.python_version())')
  mkdir -p venv/bin && ln -s "$(realpath "$other")" venv/bin/python
  printf 'home = /usr/bin\ninclude-system-site-packages = false\nversion = %s\n' "$version" >venv/pyvenv.cfg
  got=$("$sarvode" --python "$tmp/venv/bin/python" -c 'import platform; print(platform.python_version())' 2>"$tmp/stderr")
  [[ $got == "$version" ]] || fail "[$got], want $version ($(cat "$tmp/stderr"))"
  ;;
venv-system-site-packages)
  python=$(pythons | head -n1)
  for flag in "" --system-site-packages; do
    rm -rf venv && "$python" -m venv --without-pip $flag venv || fail "cannot make a venv"
    code='import sys; print([p for p in sys.path if p.endswith(("site-packages", "dist-packages")) and not p.endswith("/sarvode/extensions/site-packages")])'
    ours=$(VIRTUAL_ENV=$tmp/venv "$sarvode" -c "$code" 2>"$tmp/stderr") || fail "venv $flag: $(cat "$tmp/stderr")"
    theirs=$(venv/bin/python -c "$code")
    [[ $ours == "$theirs" ]] || fail "venv $flag: sarvode [$ours], venv python [$theirs]"
  done
  ;;
venv-children)
  # A child started from sys.executable (multiprocessing's spawn) stays in the venv.
  python=$(pythons | tail -n1)
  "$python" -m venv --without-pip venv || fail "cannot make a venv"
  cat >spawn.py <<'PY'
import multiprocessing as mp, sys

def where(queue):
    queue.put(sys.prefix)

if __name__ == "__main__":
    mp.set_start_method("spawn")
    queue = mp.Queue()
    child = mp.Process(target=where, args=(queue,))
    child.start()
    print(queue.get(timeout=60) == sys.prefix == sys.argv[1])
    child.join()
PY
  out=$(VIRTUAL_ENV=$tmp/venv "$sarvode" spawn.py "$tmp/venv" 2>"$tmp/stderr") || fail "spawn: $(cat "$tmp/stderr")"
  [[ $out == True ]] || fail "spawn: [$out]"
  ;;
older-python-refused)
  old=$(ls -d /root/.pyenv/versions/3.10* 2>/dev/null | sort -V | tail -n1)
  [[ -n $old ]] || exit 77
  for choice in "$old/bin/python3" "$(ls "$old"/lib/libpython3.10.so.1.0)"; do
    err=$("$sarvode" --python "$choice" -c 'print("ran")' 2>&1)
    status=$?
    [[ $status == 1 && $err == "sarvode: Python 3.10."*" is older than 3.11, the oldest Python this build serves." ]] ||
      fail "$choice: status $status [$err]"
  done
  ;;
not-a-python)
  printf 'not a program\n' >text
  chmod +x text
  ln -s "$tmp/none" dangling
  mkdir folder
  for choice in /bin/ls "$tmp/text" "$tmp/none" /etc/hostname "$tmp/dangling" "$tmp/folder"; do
    err=$("$sarvode" --python "$choice" -c 'print("ran")' 2>&1)
    status=$?
    [[ $status == 1 && $err == "sarvode: --python $choice "* && $err != *ran* ]] || fail "$choice: status $status [$err]"
  done
  err=$(SARVODE_PYTHON=/bin/true "$sarvode" -c pass 2>&1)
  [[ $? == 1 && $err == "sarvode: SARVODE_PYTHON /bin/true is not a Python 3 program or library: it did not answer as Python does." ]] ||
    fail "SARVODE_PYTHON=/bin/true [$err]"
  # --version still says what it can.
  out=$("$sarvode" --python /bin/true --version 2>&1)
  [[ $? == 1 && $(sed -n 1p <<<"$out") == "sarvode "* && $(sed -n 2p <<<"$out") == "serves Python 3.11 and later (stable ABI)" &&
    $(sed -n 3p <<<"$out") == "running no Python: --python /bin/true is not a Python 3 program"* ]] || fail "--version [$out]"
  ;;
extension-links-no-python)
  needed=$(readelf -d "$extension" | grep NEEDED) || fail "readelf"
  [[ $needed != *libpython* ]] || fail "the extension links a Python library: $needed"
  undefined=$(nm -D --undefined-only "$extension" | awk '$1 == "U" { sub(/@.*/, "", $2); print $2 }' | sort -u)
  python_symbols=$(grep -c -E '^_?Py' <<<"$undefined")
  [[ $python_symbols -gt 100 ]] || fail "only $python_symbols Python symbols left to the host's Python"
  # Every other symbol comes from a library the extension names.
  defined=$(ldd "$extension" | awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' |
    xargs -r nm -D --defined-only 2>/dev/null | awk 'NF == 3 { sub(/@.*/, "", $3); print $3 }' | sort -u)
  missing=$(grep -v -E '^_?Py' <<<"$undefined" | comm -23 - <(echo "$defined"))
  [[ -z $missing ]] || fail "symbols no library provides: $(echo $missing)"
  ;;
*)
  fail "unknown case $case_name"
  ;;
esac
echo "$case_name: passed"
