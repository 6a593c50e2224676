#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test-suite:
# a plain Release build and a Debug build with AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

echo "== Release build"
scripts/build.sh build/release -DCMAKE_BUILD_TYPE=Release -DTAZE_BUILD_TESTS=ON
(cd build/release && ctest --output-on-failure -j 2)

echo "== Debug build with AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/build.sh build/asan -DCMAKE_BUILD_TYPE=Debug -DTAZE_SANITIZE=ON -DTAZE_BUILD_TESTS=ON
(cd build/asan && ctest --output-on-failure -j 2)

echo "== Python module: pytest on the Release tree's module and tools"
if ls build/release/python/taze*.so >/dev/null 2>&1; then
  python=$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' build/release/CMakeCache.txt)
  rc=0
  PYTHONDONTWRITEBYTECODE=1 TAZE_BUILD_DIR="$PWD/build/release" \
    "${python:-python3}" -m pytest -q -p no:cacheprovider python/tests || rc=$?
  # 0: all passed; anything else (1 failures, 2 interrupted, 5 no tests) fails the run
  [ "$rc" -eq 0 ] || { echo "Python tests failed (pytest exit code $rc)" >&2; exit "$rc"; }
  # installed into a prefix, the module is found in that prefix's site directory
  prefix=$(mktemp -d "${TMPDIR:-/tmp}/taze-python.XXXXXX")
  cmake --install build/release --prefix "$prefix" --component python >/dev/null
  site=$("${python:-python3}" python/site_dir.py "$prefix")
  (cd / && PYTHONPATH="$site" "${python:-python3}" -c "import taze; assert taze.__file__.startswith('$site')")
  rm -rf "$prefix"
else
  echo "Python module not built (TAZE_BUILD_PYTHON=OFF): skipped" >&2
fi

echo "== Installed package: C and C++ host examples built against it"
scripts/check_install.sh build/release

echo "== Hardening: ThreadSanitizer stress and sweeps, fuzz smoke"
scripts/hardening.sh 30
