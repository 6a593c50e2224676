"""Fixtures: the module and tools of one build tree (TAZE_BUILD_DIR, default
build/release), pattern files compiled by tazc, and the C++ answers of the
same questions asked through `taze query`."""
import ipaddress
import json
import os
import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("TAZE_BUILD_DIR", ROOT / "build" / "release")).resolve()
sys.path.insert(0, str(BUILD / "python"))
TAZC = BUILD / "tools" / "tazc"
TAZE = BUILD / "tools" / "taze"


def tazc(source, out, *options):
    """Compiles a source (a dict or a path) into the pattern file out."""
    if isinstance(source, dict):
        path = pathlib.Path(str(out) + ".json")
        path.write_text(json.dumps(source))
        source = path
    subprocess.run([str(TAZC), *options, "-o", str(out), str(source)], check=True, capture_output=True)
    return out


def query(ptn, *args):
    """The answers of `taze query --json` (the C++ API's view)."""
    run = subprocess.run([str(TAZE), "query", "--json", str(ptn), *map(str, args)],
                         check=True, capture_output=True, text=True)
    return json.loads(run.stdout)["answers"]


@pytest.fixture(scope="session")
def example_ptn(tmp_path_factory):
    return tazc(ROOT / "examples" / "example.json", tmp_path_factory.mktemp("ex") / "example.ptn")


def _lines(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return [line.strip() for line in f if line.strip() and not line.startswith(("#", "//"))]


@pytest.fixture(scope="session")
def real_source():
    """The lists that examples/real-data/pattern.json imports from Debian
    packages, read here only to pick keys: dictionary words (exact), public
    suffix rules (suffix), one country's IPv4 and IPv6 ranges of the Tor
    GeoIP tables (ip, ipv6)."""
    files = {"words": "/usr/share/dict/words", "psl": "/usr/share/publicsuffix/public_suffix_list.dat",
             "geoip": "/usr/share/tor/geoip", "geoip6": "/usr/share/tor/geoip6"}
    missing = [p for p in files.values() if not os.path.exists(p)]
    if missing:
        pytest.skip(f"real lists not installed: {missing}")
    rules = sorted({"." + r for r in _lines(files["psl"]) if not r.startswith(("*", "!"))})
    ip = [f"{ipaddress.IPv4Address(int(lo))}-{ipaddress.IPv4Address(int(hi))}"
          for lo, hi, cc in (line.split(",") for line in _lines(files["geoip"])) if cc == "DE"]
    ip6 = [f"{lo}-{hi}" for lo, hi, cc in (line.split(",") for line in _lines(files["geoip6"])) if cc == "DE"]
    return {"words": _lines(files["words"]), "rules": rules, "ip": ip, "ip6": ip6}


@pytest.fixture(scope="session")
def real_ptn(real_source, tmp_path_factory):
    """The real-data example, built as its README says."""
    return tazc(ROOT / "examples" / "real-data" / "pattern.json", tmp_path_factory.mktemp("real") / "real.ptn",
                "--dedupe", "--allow-covered-keys")
