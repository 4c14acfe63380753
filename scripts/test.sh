#!/usr/bin/env bash
# Builds everything and runs every test with ctest.
#   scripts/test.sh                      normal build in build/
#   scripts/test.sh --sanitize thread    ThreadSanitizer build in build-tsan/
#   scripts/test.sh --sanitize address   ASan+UBSan build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=""
while [ $# -gt 0 ]; do
  case "$1" in
    --sanitize) sanitize="$2"; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

bash scripts/install-deps.sh

case "$sanitize" in
  "") dir=build; extra=(-DQV_BUILD_TESTS=ON -DQV_BUILD_BENCH=ON) ;;
  thread) dir=build-tsan; extra=(-DQV_SANITIZE=thread -DQV_BUILD_TESTS=ON -DQV_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug) ;;
  address) dir=build-asan; extra=(-DQV_SANITIZE=address -DQV_BUILD_TESTS=ON -DQV_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug) ;;
  *) echo "--sanitize takes 'thread' or 'address'" >&2; exit 2 ;;
esac

jobs=$(nproc)
cmake -S . -B "$dir" -G Ninja "${extra[@]}"
cmake --build "$dir" -j "$jobs"

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
export ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1 halt_on_error=1 ${UBSAN_OPTIONS:-}"
ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 300
