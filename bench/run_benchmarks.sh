#!/usr/bin/env bash
# Runs every benchmark program, then gathers their figures into OUT/summary.json and prints
# them as a table. Usage: bench/run_benchmarks.sh [BIN_DIR] [OUT_DIR]
# (defaults: build/release/bench and build/bench). Google Benchmark's raw results are kept
# in OUT/<program>.json.
set -euo pipefail
bin=${1:-build/release/bench}
out=${2:-build/bench}
rm -rf "$out/figures"
mkdir -p "$out/figures"
for program in encoding_bench bridge_bench events_bench state_file_bench server_bench; do
  echo "== $program"
  "$bin/$program" --out="$out" --benchmark_out="$out/$program.json" --benchmark_out_format=json
  echo
done
echo "== memory_bench"
"$bin/memory_bench" --out="$out"
echo
"$bin/bench_summary" "$out"
