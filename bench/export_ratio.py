#!/usr/bin/env python3
"""Runs the export benchmark at 2,000 and 20,000 questions and prints, per
phase, the median milliseconds at both sizes and how many times the larger
device costs the smaller one: the export (HiiToNode), the serialisation of
the combined document, the two together (the benchmark's own time), the
release of the text and both trees, and all three.

Times on a shared machine wander by several per cent from run to run, in
bursts: the repetitions of the two sizes are interleaved, so that a burst
falls on both alike, and the medians settle the rest. bench/export_work.sh gives the
instruction counts, which do not wander at all.

usage: bench/export_ratio.py [path of tolvane_bench] [repetitions]
"""
import statistics
import sys

from results import milliseconds, run_benchmarks

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/tolvane_bench"
repetitions = int(sys.argv[2]) if len(sys.argv) > 2 else 7
SMALL, LARGE = 2000, 20000

records = run_benchmarks(binary, f"BM_ExportAndSerialise/({SMALL}|{LARGE})$",
                         f"--benchmark_repetitions={repetitions}", "--benchmark_enable_random_interleaving=true")

runs = {SMALL: [], LARGE: []}
for record in records:
    if record.get("run_type") != "iteration":
        continue
    runs[int(record["run_name"].rsplit("/", 1)[1])].append(record)
if not runs[SMALL] or not runs[LARGE]:
    sys.exit("export_ratio: the benchmark reported no export runs")

# The benchmark's own time is the export and the serialisation; the
# release follows outside it.
phases = [
    ("export", lambda r: r["export_ms"]),
    ("serialisation", lambda r: r["serialise_ms"]),
    ("export + serialisation", milliseconds),
    ("release", lambda r: r["free_ms"]),
    ("all three", lambda r: r["export_ms"] + r["serialise_ms"] + r["free_ms"]),
]
print(f"{'phase':<24}{'2,000':>10}{'20,000':>10}{'ratio':>8}")
for label, value in phases:
    small = statistics.median(value(r) for r in runs[SMALL])
    large = statistics.median(value(r) for r in runs[LARGE])
    print(f"{label:<24}{small:>8.2f}ms{large:>8.2f}ms{large / small:>8.2f}")
