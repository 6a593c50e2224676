#!/usr/bin/env bash
# hardening.sh [FUZZ_SECONDS]: the hardening jobs.
#  1. A ThreadSanitizer build (RelWithDebInfo, so NDEBUG: the loaders'
#     deliberate assertions are off and their inputs must fail cleanly) of
#     test_stress and test_robustness, run there: many threads query one
#     handle while it is reloaded, and the damaged-file sweeps.
#  2. The fuzz smoke: every libFuzzer target for FUZZ_SECONDS (default 30)
#     after its checked-in regression inputs (scripts/fuzz.sh).
# About 5 minutes on 2 cores from empty build trees (build/tsan, build/fuzz),
# about 3.5 minutes once they are built (mostly the 6 x 30 s of fuzzing).
set -euo pipefail
cd "$(dirname "$0")/.."
fuzz_seconds=${1:-30}

echo "== ThreadSanitizer build"
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
cmake -S . -B build/tsan "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAZE_TSAN=ON \
  -DTAZE_BUILD_TOOLS=OFF >/dev/null
cmake --build build/tsan -j 2 --target test_stress test_robustness

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
export TAZE_TEST_TMP="$PWD/build/tsan/tests/tmp"
mkdir -p "$TAZE_TEST_TMP"
echo "== test_stress (ThreadSanitizer)"
build/tsan/tests/test_stress
echo "== test_robustness (ThreadSanitizer)"
build/tsan/tests/test_robustness

echo "== fuzz smoke: ${fuzz_seconds}s per target"
scripts/fuzz.sh "$fuzz_seconds"
