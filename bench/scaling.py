#!/usr/bin/env python3
"""Runs the wide-document benchmarks at 10,000 and 100,000 siblings in both
pool modes and prints, per operation, the median times, how many times the
larger document costs the smaller one, and for the parse what xmllint
--timing reports on the same text.

usage: bench/scaling.py [path of tolvane_bench] [repetitions]
"""
import sys

from results import milliseconds, run_benchmarks

binary = sys.argv[1] if len(sys.argv) > 1 else "build/bench/tolvane_bench"
repetitions = sys.argv[2] if len(sys.argv) > 2 else "5"
SMALL, LARGE = 10000, 100000

records = run_benchmarks(binary, f"(XmlParse|XmlSerialise|ToolboxCopyAndSearch)<.*>/({SMALL}|{LARGE})$",
                         f"--benchmark_repetitions={repetitions}", "--benchmark_report_aggregates_only=true")

medians = {}  # (operation, mode, siblings) -> benchmark record
for record in records:
    if record.get("aggregate_name") != "median":
        continue
    name, siblings = record["run_name"].rsplit("/", 1)
    operation, mode = name[len("BM_"):].rstrip(">").split("<")
    medians[(operation, mode, int(siblings))] = record


print(f"{'operation':<22}{'pool':<9}{'10,000':>10}{'100,000':>10}{'ratio':>8}")
for operation in ("XmlParse", "XmlSerialise", "ToolboxCopyAndSearch"):
    for mode in ("Lean", "Checked"):
        small, large = medians.get((operation, mode, SMALL)), medians.get((operation, mode, LARGE))
        if not small or not large:
            continue
        a, b = milliseconds(small), milliseconds(large)
        print(f"{operation:<22}{mode.lower():<9}{a:>8.2f}ms{b:>8.2f}ms{b / a:>8.1f}")
    if operation == "XmlParse":
        for label, key in (("xmllint --timing", "xmllint_ms"), ("xmllint, mean of --repeat", "xmllint_repeat_ms")):
            small, large = medians.get((operation, "Lean", SMALL), {}), medians.get((operation, "Lean", LARGE), {})
            if key in small and key in large:
                a, b = small[key], large[key]
                print(f"  {label:<29}{a:>8.2f}ms{b:>8.2f}ms{b / a:>8.1f}")
