#!/usr/bin/env bash
# The console on a real terminal: sarvode runs in a tmux pane, keys are typed
# with send-keys and the screen is read with capture-pane.
# Usage: console_tmux_test.sh SARVODE TMPDIR
set -uo pipefail
sarvode=$1
mkdir -p "$2"
tmp=$(mktemp -d "$2/console-XXXXXX")
socket="$tmp/tmux.sock"
tmux_() { tmux -S "$socket" "$@"; }
trap 'tmux_ kill-server >/dev/null 2>&1; rm -rf "$tmp" 2>/dev/null || { sleep 1; rm -rf "$tmp"; }' EXIT

fail() {
  echo "FAILED: $*" >&2
  echo "--- screen:" >&2
  screen >&2
  exit 1
}

screen() { tmux_ capture-pane -p -J -S -500 -t console 2>/dev/null; }

# wait_for TEXT [COUNT]: until the screen holds TEXT (on one line) COUNT times.
wait_for() {
  local count=${2:-1}
  for _ in $(seq 600); do
    (($(screen | grep -cF -- "$1") >= count)) && return 0
    sleep 0.1
  done
  fail "no [$1] (x$count) on the screen"
}

type_line() {
  tmux_ send-keys -t console -l -- "$1"
  tmux_ send-keys -t console Enter
}

# appears TEXT SECONDS: whether the screen shows TEXT within SECONDS.
appears() {
  for _ in $(seq $(($2 * 10))); do
    screen | grep -qF -- "$1" && return 0
    sleep 0.1
  done
  return 1
}

start() {
  # tmux's server now and then dies while it starts ("server exited
  # unexpectedly"); that is the terminal's trouble, not the console's: retry.
  for _ in 1 2 3; do
    tmux_ kill-server >/dev/null 2>&1
    if tmux_ new-session -d -s console -x 120 -y 50 \
      "env -u LOCALAPPDATA -u USERPROFILE -u XDG_DATA_HOME HOME='$tmp/home' '$sarvode'; echo \"status=\$?\" >'$tmp/status'; sleep 30" &&
      appears ">>> " 20; then
      return 0
    fi
    sleep 1
  done
  fail "the console did not start in a tmux pane"
}

mkdir -p "$tmp/home"
start

# Results in Python notation; _ is the last result; nothing for None.
type_line "'abc'"
wait_for "'abc'" 2
type_line "[1, 2] + [3]"
wait_for "[1, 2, 3]"
type_line "1 == 1"
wait_for "True"
type_line "_"
wait_for "True" 2
type_line "None"
type_line "'after none'"
wait_for "'after none'" 2
[[ $(screen | grep -cx -- "None") == 0 ]] || fail "None was printed"

# Tab completion: a host object's attributes and a Python name.
tmux_ send-keys -t console -l "kest.demo.Sh"
tmux_ send-keys -t console Tab
wait_for ">>> kest.demo.Shape("
tmux_ send-keys -t console BSpace
type_line ".__name__"
wait_for "'Shape'"
tmux_ send-keys -t console -l "isinst"
tmux_ send-keys -t console Tab
wait_for ">>> isinstance("
type_line "3, int)"
wait_for "True" 3

# Blocks with continuation lines: a decorator, a class, a try with several clauses.
type_line "class Box:"
wait_for "... "
type_line "    @property"
type_line "    def value(self):"
type_line "        return 40 + 2"
type_line ""
type_line "Box().value"
wait_for "42"
type_line "try:"
type_line "    1 / 0"
type_line "except ZeroDivisionError:"
type_line "    outcome = 'caught'"
type_line "else:"
type_line "    outcome = 'not raised'"
type_line "finally:"
type_line "    print('finally', outcome)"
type_line ""
wait_for "finally caught"

# Errors: the first line, then the traceback; the console goes on.
type_line "undefined_name"
wait_for "<console>:1: error: NameError: name 'undefined_name' is not defined"
wait_for "NameError: name 'undefined_name' is not defined"

# Ctrl-C interrupts running code, and abandons an input being typed.
type_line "while True: pass"
type_line ""
sleep 0.5
tmux_ send-keys -t console C-c
wait_for "KeyboardInterrupt" 2
tmux_ send-keys -t console -l "abandoned = 1"
tmux_ send-keys -t console C-c
wait_for "KeyboardInterrupt" 3
type_line "'abandoned' in globals()"
wait_for "False"
type_line "'history marker'"
wait_for "'history marker'" 2
tmux_ send-keys -t console C-d
for _ in $(seq 300); do
  [[ -s $tmp/status ]] && break
  sleep 0.1
done
[[ $(cat "$tmp/status" 2>/dev/null) == "status=0" ]] || fail "status after Ctrl-D: $(cat "$tmp/status" 2>/dev/null)"

# History is kept across sessions, in the per-user folder.
history="$tmp/home/.local/share/Sarvode/console_history"
grep -qF "'history marker'" "$history" || fail "no history file at $history"
start
tmux_ send-keys -t console Up
wait_for ">>> 'history marker'"
echo "console-under-tmux: passed"
