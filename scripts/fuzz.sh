#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, NDEBUG) and fuzzes each for SECONDS (default 60)
# on one core, one target after the other.
#
# Before fuzzing, every checked-in regression input (fuzz/regressions/<target>)
# is run once and must pass. The corpus of each target starts from the
# checked-in seeds (fuzz/corpus/<target>), the seeds the generator writes and
# what earlier runs in the same build tree found. A crash, leak, timeout or
# out-of-memory stops the script with a non-zero status and leaves the input
# in <build>/artifacts/. The last line per target gives the inputs tried and
# the coverage reached.
#
# Environment: TAZE_FUZZ_BUILD (build tree, default build/fuzz),
# TAZE_FUZZ_TARGETS (default "container wrapped payload ulm dir fast_paths").
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=${TAZE_FUZZ_BUILD:-build/fuzz}
read -r -a targets <<<"${TAZE_FUZZ_TARGETS:-container wrapped payload ulm dir fast_paths}"

generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
CC=clang CXX=clang++ cmake -S . -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTAZE_BUILD_FUZZ=ON -DTAZE_BUILD_TESTS=OFF -DTAZE_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j 2 --target make_seeds "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:symbolize=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

rm -rf "$build/seeds"
"$build/fuzz/make_seeds" "$build/seeds"
mkdir -p "$build/artifacts" "$build/logs"
summary=()
for t in "${targets[@]}"; do
  bin="$build/fuzz/fuzz_$t"
  corpus="$build/corpus/$t"
  mkdir -p "$corpus"
  for src in "fuzz/corpus/$t" "$build/seeds/$t"; do
    [ -d "$src" ] && cp -n "$src"/* "$corpus"/ 2>/dev/null || true
  done

  regressions=()
  if [ -d "fuzz/regressions/$t" ]; then
    while IFS= read -r -d '' f; do regressions+=("$f"); done < <(find "fuzz/regressions/$t" -type f -print0)
  fi
  if [ ${#regressions[@]} -gt 0 ]; then
    echo "== fuzz_$t: ${#regressions[@]} regression inputs"
    "$bin" -rss_limit_mb=2048 "${regressions[@]}" >"$build/logs/$t-regressions.log" 2>&1 ||
      { tail -n 40 "$build/logs/$t-regressions.log"; exit 1; }
  fi

  echo "== fuzz_$t: ${seconds}s"
  log="$build/logs/$t.log"
  if ! "$bin" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 \
      -dict=fuzz/taze.dict -artifact_prefix="$build/artifacts/$t-" "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz_$t failed; the input is in $build/artifacts/" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)
  summary+=("fuzz_$t: ${runs:-?} inputs, ${cov:-no coverage line}")
done

echo "== summary"
printf '%s\n' "${summary[@]}"
