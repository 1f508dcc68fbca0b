"""What the benchmark scripts share: running tolvane_bench for its JSON
records and reading a record's time."""
import json
import subprocess
import sys


def run_benchmarks(binary, name_filter, *options):
    """The benchmark records of one run of `binary` on the benchmarks that
    `name_filter` matches, with further command-line options."""
    try:
        run = subprocess.run([binary, f"--benchmark_filter={name_filter}", *options, "--benchmark_format=json"],
                             capture_output=True, text=True)
    except OSError as error:
        sys.exit(f"cannot run {binary} ({error.strerror}); build it first")
    if run.returncode != 0:
        sys.exit(f"{binary} failed with exit code {run.returncode}:\n{run.stderr.strip()}")
    return json.loads(run.stdout)["benchmarks"]


def milliseconds(record):
    """A record's real time in milliseconds, whatever unit it is reported in."""
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[record["time_unit"]]
    return record["real_time"] * scale
