#!/usr/bin/env bash
# check_install.sh BUILD_DIR: installs BUILD_DIR into a temporary prefix and
# builds the example hosts against that installed package, not the build
# tree: both with find_package(taze CONFIG) and the C host also with
# pkg-config. Then runs them on the example pattern compiled by tazc and
# compares the answers with examples/c_host/expected.txt.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)

work=$(mktemp -d "${TMPDIR:-/tmp}/taze-install.XXXXXX")
trap '[ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "check_install: $*" >&2; exit 1; }
quiet() { # runs a command, showing its output only when it fails
  local out
  out=$("$@" 2>&1) || { printf '%s\n' "$out" >&2; fail "failed: $*"; }
}
cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

echo "== install $build into a temporary prefix"
# What gets installed: the library and the tools (taze_inspect only if the tree has it).
quiet cmake --build "$build" --target taze tazc -j 2
cmake --build "$build" --target taze_inspect -j 2 >/dev/null 2>&1 || true
quiet cmake --install "$build" --prefix "$prefix"
for f in include/taze/tazapi.h include/taze/vkerror.h include/taze/taze.hpp include/taze/taze_candidates.hpp bin/tazc; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
[ ! -x "$build/tools/taze" ] || [ -x "$prefix/bin/taze" ] || fail "not installed: bin/taze"
pcfile=$(find "$prefix" -name taze.pc -path '*/pkgconfig/*' | head -n 1)
config=$(find "$prefix" -name tazeConfig.cmake | head -n 1)
[ -n "$pcfile" ] || fail "not installed: taze.pc"
[ -n "$config" ] || fail "not installed: tazeConfig.cmake"
[ -e "$(dirname "$config")/tazeConfigVersion.cmake" ] || fail "not installed: tazeConfigVersion.cmake"
libdir=$(dirname "$(dirname "$pcfile")")
for f in libtaze.so libtaze.so.1; do
  [ -L "$libdir/$f" ] || fail "missing SONAME link $libdir/$f"
done

# The examples are built the way the library was: same compilers, and the
# same sanitizer, whose run-time an instrumented library needs.
cc=$(cache CMAKE_C_COMPILER)
cxx=$(cache CMAKE_CXX_COMPILER)
flags=""
[ "$(cache TAZE_SANITIZE)" = ON ] && flags="-fsanitize=address,undefined -fno-omit-frame-pointer"
[ "$(cache TAZE_TSAN)" = ON ] && flags="-fsanitize=thread"
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)

build_example() { # name
  local name=$1 dir=$work/$1
  quiet cmake -S "$root/examples/$name" -B "$dir" "${generator[@]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" --no-warn-unused-cli
  local found
  found=$(sed -n 's/^taze_DIR:[A-Z]*=//p' "$dir/CMakeCache.txt")
  case $found in "$prefix"/*) ;; *) fail "$name found taze at '$found', not in the installed prefix" ;; esac
  quiet cmake --build "$dir" -j 2
}

echo "== build the example hosts with find_package(taze CONFIG)"
build_example c_host
build_example cpp_host

echo "== build the C host with pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
[ "$(pkg-config --modversion taze)" = "$(cache CMAKE_PROJECT_VERSION)" ] || fail "pkg-config version differs"
# shellcheck disable=SC2046,SC2086
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror $flags "$root/examples/c_host/main.c" \
  $(pkg-config --cflags --libs taze) -Wl,-rpath,"$libdir" -o "$work/c_host_pc"

for exe in "$work/c_host/c_host" "$work/cpp_host/cpp_host" "$work/c_host_pc"; do
  libs=$(ldd "$exe")
  grep -q "$libdir/libtaze.so.1" <<<"$libs" || fail "$exe does not use the installed libtaze.so.1"
done

echo "== run them on the example pattern"
quiet "$build/tools/tazc" -o "$work/example.ptn" "$root/examples/example.json"
mkdir "$work/patterns"
quiet "$build/tools/tazc" --out-dir "$work/patterns" --prefix taz "$root/examples/example.json"
expected=$root/examples/c_host/expected.txt

"$work/c_host/c_host" "$work/example.ptn" >"$work/c_file.txt"
"$work/c_host/c_host" "$work/patterns" taz >"$work/c_dir.txt"
"$work/c_host_pc" "$work/example.ptn" >"$work/c_pc.txt"
"$work/cpp_host/cpp_host" "$work/example.ptn" "$work/patterns/"*.ptn >"$work/cpp.txt"
for out in c_file c_dir c_pc; do
  diff -u "$expected" "$work/$out.txt" || fail "$out: answers differ"
done
head -n "$(wc -l <"$expected")" "$work/cpp.txt" | diff -u "$expected" - || fail "cpp_host: answers differ"
grep -q "wrong answers: 0$" "$work/cpp.txt" || fail "cpp_host: a reader saw a wrong answer"
tail -n 1 "$work/cpp.txt"
echo "== install check passed"
