#!/usr/bin/env bash
# Installs the Debian packages libTolan builds, tests and benchmarks with.
# Idempotent: apt-get runs only when a package is missing, and `apt-get update`
# only then, so a set-up machine pays a few dpkg queries.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  libevent-dev libfmt-dev libboost-dev libboost-iostreams-dev libboost-system-dev
  rapidjson-dev libunwind-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev libxxhash-dev
  clang libclang-rt-14-dev
  jq python3-jsonschema
  libhttp-parser-dev curl wrk
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "install-deps: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
