#!/usr/bin/env bash
# The mutation check (see scripts/mutation.py): plants small faults in the core files one at a time
# and counts how many the tests catch. Slow (about a minute a mutant), so not part of CI.
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 scripts/mutation.py "$@"
