#!/usr/bin/env python3
"""Ratios from Google Benchmark JSON output (median rows of repeated runs).

Usage: bench/ratios.py RESULT.json [RESULT.json ...]
Run the benchmarks with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
--benchmark_out=RESULT.json --benchmark_out_format=json first.
"""
import json
import sys

# (row, baseline, per-iteration operation count) pairs worth a ratio
PAIRS = [
    ("MethodCall_HostTrivial", "MethodCall_Pybind11"),
    ("MethodCall_HostTrivial", "MethodCall_Nanobind"),
    ("MethodCall_Host", "MethodCall_Pybind11"),
    ("MethodCall_Host", "MethodCall_Nanobind"),
    ("MethodCall_HostTrivial", "HostCallFromCpp_Trivial"),
    ("MethodCall_Host", "HostCallFromCpp_Field"),
    ("PropertyRead_Host", "PropertyRead_Pybind11"),
    ("PropertyRead_Host", "PropertyRead_Nanobind"),
    ("ShapeArea_Host", "ShapeArea_Pybind11"),
    ("ShapeArea_Host", "ShapeArea_Nanobind"),
    ("ShapeSize_Host", "ShapeSize_Pybind11"),
    ("ShapeSize_Host", "ShapeSize_Nanobind"),
    ("Iterate1M_Host", "Iterate1M_Pybind11"),
    ("Iterate1M_Host", "Iterate1M_Builtin"),
    ("MapSubscript_Host", "MapSubscript_Builtin"),
    ("Len_Host", "Len_Builtin"),
    ("Slice1000_Host", "Slice1000_Builtin"),
    ("IntsFromPython_Convert", "IntsFromPython_Raw"),
    ("StringsFromPython_Convert", "StringsFromPython_Raw"),
    ("IntsToPython_Convert", "IntsToPython_Raw"),
    ("IntsToPython_ConvertTakingLock", "IntsToPython_Raw"),
    ("StringsToPython_Convert", "StringsToPython_Raw"),
    ("StringsToPython_ConvertTakingLock", "StringsToPython_Raw"),
    ("Statements_Evaluate", "Statements_CachedFloor"),
    ("Expression_Evaluate", "Expression_CachedFloor"),
    ("ScopedStatements_Evaluate", "ScopedStatements_CachedFloor"),
    ("Statements_Evaluate", "Statements_Raw"),
    ("Expression_Evaluate", "Expression_Raw"),
    ("ScopedStatements_Evaluate", "ScopedStatements_Raw"),
    ("Print100k_Captured", "Print100k_DevNull"),
]


def operations(name):
    """Operations in one iteration of a row: evaluations run once, Python loops
    100,000 times, conversions 1,000,000 times."""
    if name.startswith(("Statements", "Expression", "ScopedStatements")):
        return 1
    if name.startswith(("Iterate1M", "Ints", "Strings")):
        return 1_000_000
    return 100_000


def medians(path):
    found = {}
    with open(path) as f:
        for row in json.load(f)["benchmarks"]:
            if row.get("aggregate_name") == "median" and not row.get("error_occurred"):
                scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[row.get("time_unit", "ns")]
                found[row["run_name"]] = row["real_time"] * scale
    return found


def main(paths):
    # A row is compared with its baseline from the same program only: two
    # programs may use one name for different loops.
    print("| row | ns per operation | baseline | ns per operation | ratio |")
    print("|---|---:|---|---:|---:|")
    for path in paths:
        times = medians(path)
        for row, base in PAIRS:
            if row in times and base in times:
                a = times[row] / operations(row)
                b = times[base] / operations(base)
                print(f"| {row} | {a:.1f} | {base} | {b:.1f} | {a / b:.2f}x |")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1:])
