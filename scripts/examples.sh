#!/usr/bin/env bash
# Builds libTolan and its examples, then runs every example in turn.
# Installs missing Debian packages first; an up-to-date tree rebuilds nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

build=${TOLAN_BUILD_DIR:-build-examples}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DTOLAN_BUILD_TESTS=OFF -DTOLAN_BUILD_BENCH=OFF -DTOLAN_BUILD_EXAMPLES=ON >/dev/null
# Quiet unless the build fails: the examples' own output is what matters here.
if ! log=$(cmake --build "$build" -j"$(nproc)" 2>&1); then
  echo "$log"
  exit 1
fi

for example in "$build"/examples/example_*; do
  [ -x "$example" ] || continue
  echo
  echo "=================== $(basename "$example") ==================="
  "$example"
done
