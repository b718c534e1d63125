#!/usr/bin/env bash
# Builds libTolan with its tests and runs the whole suite.
#   bash scripts/test.sh                  # normal build in build/
#   TOLAN_SANITIZE=1 bash scripts/test.sh # ASan + UBSan build in build-asan/
#   TOLAN_SANITIZE=thread bash scripts/test.sh # ThreadSanitizer build in build-tsan/
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
elif [ "${TOLAN_SANITIZE:-0}" = thread ]; then
  build=${TOLAN_BUILD_DIR:-build-tsan}
  tsan=-fsanitize=thread
  args+=(-DTOLAN_BUILD_BENCH=OFF -DTOLAN_BUILD_EXAMPLES=OFF "-DCMAKE_C_FLAGS=$tsan" "-DCMAKE_CXX_FLAGS=$tsan"
         "-DCMAKE_EXE_LINKER_FLAGS=$tsan" "-DCMAKE_SHARED_LINKER_FLAGS=$tsan" "-DCMAKE_MODULE_LINKER_FLAGS=$tsan")
  export TSAN_OPTIONS=${TSAN_OPTIONS:-suppressions=$PWD/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1}
else
  build=${TOLAN_BUILD_DIR:-build}
fi

cmake -S . -B "$build" "${args[@]}" >/dev/null
cmake --build "$build" -j"$jobs"
cd "$build"
ctest --output-on-failure -j"$jobs" ${TOLAN_CTEST_ARGS:-}
