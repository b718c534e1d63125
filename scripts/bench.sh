#!/usr/bin/env bash
# Builds the benchmarks (Release) and runs them; extra arguments go to each
# benchmark binary, e.g. --benchmark_filter=Trace.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${TOLAN_BUILD_DIR:-build-bench}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTOLAN_BUILD_TESTS=OFF -DTOLAN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
for b in "$build"/bench/*Bench; do
  [ -x "$b" ] || continue
  echo "=================== $(basename "$b") ==================="
  "$b" "$@"
done
