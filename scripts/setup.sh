#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
set -euo pipefail

packages=(g++ clang cmake ninja-build pkg-config libgcrypt20-dev libgtest-dev googletest
          libbenchmark-dev nlohmann-json3-dev pybind11-dev python3-dev python3-pytest python3-numpy
          publicsuffix wamerican tor-geoipdb) # the real lists of examples/real-data and the tests
[ "${TAZE_WITH_HYPERSCAN:-0}" = 1 ] && packages+=(libhyperscan-dev)
# Real lists for the shape benchmarks: public suffixes, words, country ranges.
[ "${TAZE_WITH_DATA:-0}" = 1 ] && packages+=(publicsuffix wamerican tor-geoipdb)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
