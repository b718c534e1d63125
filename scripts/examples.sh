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

# The flagship: tolan-httpd on a free loopback port, asked for each of its
# pages by curl, then stopped by SIGTERM (it must exit 0).
echo
echo "=================== tolan-httpd ==================="
out=$(mktemp)
"$build"/tools/httpd/tolan-httpd --port 0 >"$out" &
pid=$!
trap 'kill $pid 2>/dev/null || true; rm -f "$out"' EXIT
for _ in $(seq 100); do grep -q listening "$out" && break; sleep 0.05; done
cat "$out"
url=http://$(sed -n 's/.* listening on //p' "$out")
echo "--- GET /";        curl -sS "$url/"
echo "--- GET /stats";   curl -sS "$url/stats" | head -n 12
echo "--- GET /tasks (tasks per scheduler, via jq)"
curl -sS "$url/tasks" | jq -c '.schedulers[] | {scheduler: .schedulerName, tasks: (.tasks | length), groups: (.subSchedulers | map_values(.tasks | length))}'
echo "--- GET /history"; curl -sS "$url/history" | head -n 5
echo "--- GET /nope";    curl -sS -o /dev/null -w '%{http_code}\n' "$url/nope"
kill -TERM $pid
wait $pid
echo "tolan-httpd exited with status $?"
