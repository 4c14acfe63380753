#!/usr/bin/env bash
# Installs a finished build into a fresh prefix and checks that the packages work from a
# project outside this tree:
#   - tests/install, which names only QV::qvsqlite, configures against the prefix (the
#     package configs bring in every dependency), builds, and its program stores and reads
#     a triplet with LD_LIBRARY_PATH unset;
#   - every installed library and program carries a relative RUNPATH, so it finds the
#     libraries it needs wherever the prefix is moved, and the loader finds them all.
#   scripts/test-install.sh <build dir>
# Everything goes into its own temporary directory, removed on exit, so runs in parallel
# do not meet.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 <build dir>" >&2
  exit 2
fi
src="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "$1" && pwd)"

work="$(mktemp -d "${TMPDIR:-/tmp}/qv-install-test.XXXXXX")"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Nothing may be found through the caller's environment: only through RUNPATH.
unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH

cmake --install "$build" --prefix "$prefix" >"$work/install.log" ||
  { cat "$work/install.log" >&2; fail "cmake --install $build"; }

# The libraries sit together in one directory, wherever the libdir is (lib, lib64, multiarch).
sqlite="$(find "$prefix" -name 'libqvsqlite.so.*' -type f -print -quit)"
[ -n "$sqlite" ] || fail "no libqvsqlite installed under $prefix"
libdir="$(dirname "$sqlite")"

# The outside project, configured against the prefix only.
generator=()
if command -v ninja >/dev/null; then
  generator=(-G Ninja)
fi
cmake -S "$src/tests/install" -B "$work/consumer" "${generator[@]}" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log" >&2; fail "configuring tests/install against $prefix"; }
for pkg in qvsqlite qvstorage; do
  dir="$(sed -n "s/^${pkg}_DIR:PATH=//p" "$work/consumer/CMakeCache.txt")"
  case "$dir" in
    "$prefix"/*) ;;
    *) fail "tests/install found $pkg in '$dir', not in $prefix" ;;
  esac
done
cmake --build "$work/consumer" -j 2 >"$work/build.log" 2>&1 ||
  { cat "$work/build.log" >&2; fail "building tests/install"; }

# Run it as a user would, with no help from the environment.
"$work/consumer/consumer" "$work/knowledge.db" || fail "the outside program failed"

runpath() {
  readelf -d "$1" | sed -n 's/.*(RUNPATH).*Library runpath: \[\(.*\)\]$/\1/p'
}

# Checks that $1 carries exactly the RUNPATH $2 and that the loader finds every library it
# needs from it alone.
check_runpath() {
  local file="$1" want="$2" got deps
  got="$(runpath "$file")"
  [ "$got" = "$want" ] || fail "$file: RUNPATH is '${got}', expected '${want}'"
  deps="$(ldd "$file")"
  if grep -q 'not found' <<<"$deps"; then
    echo "$deps" >&2
    fail "$file: the loader cannot find every library it needs"
  fi
}

libs=0
while IFS= read -r lib; do
  check_runpath "$lib" "\$ORIGIN"
  libs=$((libs + 1))
done < <(find "$libdir" -maxdepth 1 -name 'lib*.so.*' -type f)
[ "$libs" -ge 4 ] || fail "expected at least ka, qverror, qvstorage and qvsqlite in $libdir, found $libs"

if [ -d "$prefix/bin" ]; then
  rel="$(realpath --relative-to="$prefix/bin" "$libdir")"
  while IFS= read -r program; do
    # Programs only: an installed script has no RUNPATH to check.
    if [ "$(head -c 4 "$program" | tail -c 3)" = ELF ]; then
      check_runpath "$program" "\$ORIGIN/$rel"
    fi
  done < <(find "$prefix/bin" -maxdepth 1 -type f -executable)
fi

echo "install test passed: $libs libraries in ${libdir#"$prefix"/}"
