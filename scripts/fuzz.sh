#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (library instrumented too) and runs
# each for a bounded time.   bash scripts/fuzz.sh [seconds-per-target]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
seconds=${1:-60}

build=${TOLAN_BUILD_DIR:-build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTOLAN_BUILD_FUZZ=ON -DTOLAN_BUILD_TESTS=OFF -DTOLAN_BUILD_BENCH=OFF -DTOLAN_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1:suppressions=$PWD/fuzz/ubsan.supp}
status=0
for target in "$build"/fuzz/*Fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  seeds=$PWD/fuzz/corpus/$name  # absolute: the target runs inside $work
  corpus=("$work")
  [ -d "$seeds" ] && corpus+=("$seeds")
  echo "fuzz: $name for ${seconds}s"
  # Trace output of the library goes to a file, not the terminal.
  if ! (cd "$work" && TRACEFILE="$work/trace.log" "$OLDPWD/$target" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 "${corpus[@]}" >"$work/log" 2>&1); then
    echo "fuzz: $name FAILED"; tail -n 60 "$work/log"; status=1
  else
    grep -E '^stat::number_of_executed_units' "$work/log" || true
  fi
  rm -rf "$work"
done
exit $status
