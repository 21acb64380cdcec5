#!/usr/bin/env bash
# Compiles one file with the project's compiler and checks the outcome its
# first line states: "expect-ok" (it compiles) or "expect-error: TEXT" (it
# does not, and the compiler's message holds TEXT).
set -uo pipefail
compiler=$1 include=$2 file=$3
first=$(head -n1 "$file")
out=$("$compiler" -std=c++20 -fsyntax-only -I"$include" "$file" 2>&1)
rc=$?
case "$first" in
  "// expect-ok"*)
    [[ $rc -eq 0 ]] || { echo "$file should compile:"; echo "$out" | head -40; exit 1; } ;;
  "// expect-error: "*)
    want=${first#// expect-error: }
    [[ $rc -ne 0 ]] || { echo "$file compiled, but should fail with: $want"; exit 1; }
    grep -qF -- "$want" <<<"$out" || { echo "$file failed, but not with: $want"; echo "$out" | head -40; exit 1; } ;;
  *) echo "$file states no expectation on its first line"; exit 1 ;;
esac
echo "$file: as expected"
