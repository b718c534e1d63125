#!/usr/bin/env bash
# Builds libTolan with its tests and runs the whole suite.
#   bash scripts/test.sh                  # normal build in build/
#   TOLAN_SANITIZE=1 bash scripts/test.sh # ASan + UBSan build in build-asan/
# Installs missing Debian packages first; an up-to-date tree rebuilds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

jobs=$(nproc)
args=(-G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${TOLAN_SANITIZE:-0}" = 1 ]; then
  build=${TOLAN_BUILD_DIR:-build-asan}
  args+=(-DTOLAN_SANITIZE=ON -DTOLAN_BUILD_BENCH=OFF -DTOLAN_BUILD_EXAMPLES=OFF)
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
else
  build=${TOLAN_BUILD_DIR:-build}
fi

cmake -S . -B "$build" "${args[@]}" >/dev/null
cmake --build "$build" -j"$jobs"
cd "$build"
ctest --output-on-failure -j"$jobs" ${TOLAN_CTEST_ARGS:-}
