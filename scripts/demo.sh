#!/usr/bin/env bash
# Installs what is missing, builds, compiles the example pattern source,
# loads the result and answers sample questions of every kind.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build/release -DCMAKE_BUILD_TYPE=Release -DTAZE_BUILD_TESTS=OFF >/dev/null

tools=build/release/tools
out=build/demo
rm -rf "$out" && mkdir -p "$out"

run() { printf '\n$ %s\n' "$*"; "$@"; }

echo "== Compile the example pattern source (examples/example.json)"
run "$tools/tazc" --out-dir "$out" --prefix taz examples/example.json
ls -l "$out"

echo
echo "== What the file holds"
run "$tools/taze" info "$out/taz77.ptn"
run "$tools/taze" verify "$out/taz77.ptn"
run "$tools/taze" pick "$out" taz

echo
echo "== Sample questions through the library's API"
q() { run "$tools/taze" query "$out/taz77.ptn" "$@"; }
q versions
q exact 0 malware.example.com MALWARE.EXAMPLE.COM good.example.com
q prefix 0 /admin/users /public
q suffix 0 setup.EXE notes.txt
q substring 0 "GET /x?q=1 UNION SELECT 1" "GET /index.html"
q case 0 curl/7.0 CURL/7.0
q ip 0 10.1.2.3 192.168.1.10 8.8.8.8
q ipv6 0 2001:db8::1 fe80::1 ::1
q port 0 22 137 8080
q --map-type exact simap 0 malware.example.com 1002
q suffix_to_int 0 dropper.exe
q iimap 0 443 3
q ismap 0 1001
q prefix_to_suffix 0 /download/setup.exe
q rule 1001 1002
q clean 1001 6 2
q clean-info 6 2
q protocol
q group
q known-risk 2 6
q potential-risk 1001 2 6
q threat 1001 4242
q --ulm ulm-info
q --json rule 1001

echo
echo "== A pattern from real lists (examples/real-data): public suffixes, dictionary, one country's ranges"
run "$tools/tazc" --dedupe --allow-covered-keys -o "$out/real.ptn" examples/real-data/pattern.json
run "$tools/taze" verify --quiet "$out/real.ptn" | cut -c1-200
r() { run "$tools/taze" query "$out/real.ptn" "$@"; }
r suffix 0 example.com www.example.co.uk x.blogspot.com example.invalid-tld
r exact 0 ZEBRA Zebras zzzzqx
r ip 0 2.152.64.10 8.8.8.8
r ipv6 0 2a01:4f8::1 2001:4860::8888
