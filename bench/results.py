"""What the benchmark scripts share: running tolvane_bench for its JSON
records and reading a record's time."""
import json
import subprocess


def run_benchmarks(binary, name_filter, *options):
    """The benchmark records of one run of `binary` on the benchmarks that
    `name_filter` matches, with further command-line options."""
    run = subprocess.run([binary, f"--benchmark_filter={name_filter}", *options, "--benchmark_format=json"],
                         capture_output=True, text=True, check=True)
    return json.loads(run.stdout)["benchmarks"]


def milliseconds(record):
    """A record's real time in milliseconds, whatever unit it is reported in."""
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[record["time_unit"]]
    return record["real_time"] * scale
