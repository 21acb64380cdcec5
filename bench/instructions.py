#!/usr/bin/env python3
"""Instructions per iteration of benchmarks, counted by callgrind.

Times on a shared machine wander; instruction counts repeat exactly. Each
benchmark runs twice under callgrind, collecting only inside the benchmark's
own function: with 1 iteration and with 1 + N (SARVODE_BENCH_ITERATIONS,
see fixed_iterations.hpp). The difference divided by N is the cost of one
iteration, without the set-up and the first run's one-time work. Python's
string hashing is fixed (PYTHONHASHSEED=0) so that dictionaries probe alike.

Usage: bench/instructions.py [--extra N] BINARY NAME [NAME ...]
(NAME: a benchmark function; N: 100 unless given). Prints "NAME instructions".
"""
import os
import re
import subprocess
import sys
import tempfile


def collected(binary, name, iterations):
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "callgrind.out")
        subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
             f"--toggle-collect={name}(*", f"--toggle-collect=*::{name}(*",
             binary, f"--benchmark_filter=^{name}(/|$)"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, SARVODE_BENCH_ITERATIONS=str(iterations), PYTHONHASHSEED="0"))
        with open(out) as f:
            for line in f:
                m = re.match(r"(?:summary|totals): (\d+)", line)
                if m:
                    return int(m.group(1))
    raise RuntimeError(f"no total for {name}")


def main():
    args = sys.argv[1:]
    extra = 100
    if args[:1] == ["--extra"]:
        extra, args = int(args[1]), args[2:]
    if len(args) < 2:
        sys.exit(__doc__)
    binary = args[0]
    for name in args[1:]:
        one = collected(binary, name, 1)
        more = collected(binary, name, 1 + extra)
        print(f"{name} {(more - one) / extra:.0f}", flush=True)


if __name__ == "__main__":
    main()
