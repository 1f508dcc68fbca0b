#!/usr/bin/env bash
# Counts the instructions of one export (HiiToNode, the combined document
# and the release of the text and both trees) at 2,000 and 20,000 questions
# under callgrind, and prints them per question with their ratio.
#
# The benchmark's times include what the memory hierarchy adds: the trees
# of 2,000 questions (about 5 MiB) stay in the last-level cache across the
# export's passes over them (build, serialise, release), those of 20,000
# (about 50 MiB) do not, so the time ratio of the two sizes runs above 10
# on a machine whose cache holds the one and not the other. The count of
# instructions is the same on every machine and every run: a path that
# grew faster than the questions would show here as a ratio above 10.
#
# usage: bench/export_work.sh [path of tolvane_bench]
set -euo pipefail
binary="${1:-build/bench/tolvane_bench}"
command -v valgrind >/dev/null || { echo "export_work: needs valgrind (apt-get install valgrind)" >&2; exit 2; }
[ -x "$binary" ] || { echo "export_work: no benchmark binary at $binary (build first)" >&2; exit 2; }
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

declare -A perQuestion
for questions in 2000 20000; do
  # The benchmark runs one export before the measured ones (it parses the
  # forms, which later exports reuse); only the measured one is counted.
  valgrind --tool=callgrind --collect-atstart=no --toggle-collect='*measuredExport*' \
    --callgrind-out-file="$work/export.$questions" \
    "$binary" --benchmark_filter="BM_ExportAndSerialise/$questions\$" --benchmark_min_time=0.0001 \
    >"$work/log.$questions" 2>&1 || { cat "$work/log.$questions" >&2; exit 1; }
  instructions="$(sed -n 's/^totals: *\([0-9]*\).*/\1/p' "$work/export.$questions")"
  [ -n "$instructions" ] || { echo "export_work: no count for $questions questions" >&2; exit 1; }
  perQuestion[$questions]=$((instructions / questions))
  printf '%6d questions: %13d instructions, %6d per question\n' "$questions" "$instructions" "${perQuestion[$questions]}"
done
awk -v a="${perQuestion[2000]}" -v b="${perQuestion[20000]}" 'BEGIN { printf "ratio 20,000 / 2,000: %.2f (10.00 is linear)\n", 10 * b / a }'
