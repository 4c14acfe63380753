#!/usr/bin/env bash
# Builds the libFuzzer programs with clang in build-fuzz and runs each for a bounded time from
# its seed corpus in the repository. Usage: scripts/fuzz.sh [seconds per program, default 60]
# New inputs the fuzzer finds go to a scratch directory, so the repository corpus stays small;
# a crashing input is kept as build-fuzz/<program>-crash-* and makes the script fail.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"

# program:seed corpus
targets=(
  "fuzz_value_decoder:ka/fuzz/corpus/value_decoder"
  "fuzz_frame_decoder:ka/fuzz/corpus/frame_decoder"
)

cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQV_BUILD_FUZZ=ON -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCH=OFF >/dev/null
names=()
for t in "${targets[@]}"; do
  names+=("${t%%:*}")
done
cmake --build build-fuzz --target "${names[@]}" -j2

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1 halt_on_error=1}"
for t in "${targets[@]}"; do
  name="${t%%:*}"
  seeds="${t#*:}"
  mkdir -p "$scratch/$name"
  echo "== $name for ${seconds}s from $seeds"
  # One allocation above 256 MiB is a finding: decoders must not trust claimed sizes.
  "build-fuzz/ka/$name" -max_total_time="$seconds" -timeout=10 -max_len=4096 \
    -rss_limit_mb=1024 -malloc_limit_mb=256 -print_final_stats=1 \
    -artifact_prefix="build-fuzz/$name-" "$scratch/$name" "$seeds"
done
