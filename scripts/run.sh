#!/usr/bin/env bash
# Installs what is missing, builds the daemon in Release (build-run/) and runs it in the
# foreground with its socket and database in ./var of this checkout; stop it with Ctrl-C.
# Extra arguments go to the daemon (e.g. --log info).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build-run -G Ninja -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=OFF \
  -DQV_BUILD_BENCH=OFF >/dev/null
cmake --build build-run -j "$(nproc)" --target qvuserinfod kacli
exec build-run/apps/qvuserinfod/qvuserinfod --state-dir ./var "$@"
