#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configure and build one build tree.
set -euo pipefail
dir=$1; shift
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
cmake -S . -B "$dir" "${generator[@]}" "$@" >/dev/null
cmake --build "$dir" -j 2
