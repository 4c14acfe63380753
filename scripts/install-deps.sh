#!/usr/bin/env bash
# Installs every build and test dependency from Debian 12 packages.
# Idempotent: packages already present are skipped by apt-get itself.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libboost-dev libboost-system-dev
  qt6-base-dev
  libsqlite3-dev libsqlitecpp-dev sqlite3
  libmsgpack-cxx-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # The PostgreSQL store: the client library, and the server the tests and benchmarks start
  libpq-dev postgresql
  clang-format
  # scripts/fuzz.sh: clang and its libFuzzer runtime
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
