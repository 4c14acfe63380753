#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main program: for now the middleware
# demo that hosts the knowledge store on an embedded SQLite file (data/knowledge.db).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build-run -G Ninja -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF >/dev/null
cmake --build build-run -j "$(nproc)" --target ka-demo
mkdir -p data
exec build-run/apps/ka-demo "$@"
