#!/usr/bin/env bash
# bench.sh [--quick] [benchmark flags...]: builds the benchmarks in Release
# (with the Hyperscan baseline, installed with apt-get when missing) and runs
# them; the run ends with the ratio table that bench/RESULTS.md records.
# --quick stops at 100k entries and 16 MiB files. Run it on a quiet machine:
# the figures of one run are compared with each other, never across runs.
set -euo pipefail
cd "$(dirname "$0")/.."
TAZE_WITH_HYPERSCAN=1 TAZE_WITH_DATA=1 scripts/setup.sh
scripts/build.sh build/bench -DCMAKE_BUILD_TYPE=Release -DTAZE_BUILD_BENCH=ON -DTAZE_BUILD_TESTS=OFF \
  -DTAZE_BUILD_TOOLS=OFF
out=build/bench/bench-$(date +%Y%m%d-%H%M%S).txt
build/bench/bench/bench_taze --benchmark_color=false "$@" | tee "$out"
# Python module: per-key cost of single and bulk calls beside a Python set and the C++ API.
if cmake --build build/bench -j 2 -t taze_python taze_bench_keys >/dev/null 2>&1; then
  python=$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' build/bench/CMakeCache.txt)
  keys=1000000
  for a in "$@"; do [ "$a" = --quick ] && keys=100000; done
  echo "== Python module" | tee -a "$out"
  "${python:-python3}" python/bench.py build/bench --keys "$keys" | tee -a "$out"
else
  echo "== Python module not built (TAZE_BUILD_PYTHON=OFF): skipped" | tee -a "$out"
fi
echo "== results kept in $out"

# ---- Shapes users ship: one list per file, generated and real -------------
# bench_shapes writes a file per shape (1k, 100k and 1M entries of each list
# kind; the public suffix list, the dictionary and the tor country ranges,
# whose packages scripts/setup.sh installs), checks every answer of the
# indexes against the plain search and prints one table row per shape.
shapes_args=()
for a in "$@"; do [ "$a" = --quick ] && shapes_args+=(--quick); done
shapes_out=build/bench/shapes-$(date +%Y%m%d-%H%M%S).txt
build/bench/bench/bench_shapes "${shapes_args[@]}" | tee "$shapes_out"
echo "== shape results kept in $shapes_out"
