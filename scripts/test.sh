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
scripts/build.sh build/release -DCMAKE_BUILD_TYPE=Release
(cd build/release && ctest --output-on-failure -j 2)

echo "== Debug build with AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/build.sh build/asan -DCMAKE_BUILD_TYPE=Debug -DTAZE_SANITIZE=ON
(cd build/asan && ctest --output-on-failure -j 2)

echo "== Installed package: C and C++ host examples built against it"
scripts/check_install.sh build/release

echo "== Hardening: ThreadSanitizer stress and sweeps, fuzz smoke"
scripts/hardening.sh 30
