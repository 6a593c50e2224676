"""The module answers as the C++ API does: every question is asked both
through taze and through `taze query`, on the example pattern and on a
pattern of real lists, single and bulk."""
import array
import ipaddress
import pathlib
import random
import shutil
import subprocess
import sys
import threading
import time

import pytest

import taze
from conftest import query, tazc

# method, `taze query` kind, list number, keys
LISTS = [
    ("exact", "exact", 0, ["malware.example.com", "MALWARE.EXAMPLE.COM", "tracker.example.org", "example.com", ""]),
    ("exact", "exact", 1, ["evilbot", "bad-agent/1.0", "bad-agent"]),
    ("prefix", "prefix", 0, ["/admin/x", "/ADMIN/", "/cgi", "/wp-login.php", "x/admin/"]),
    ("suffix", "suffix", 0, ["a.exe", "A.EXE", "exe", "x.example.biz", "a.vbs.txt"]),
    ("suffix", "suffix", 3, ["abc.onion", "x.bit", "x.bitx"]),
    ("substring", "substring", 0, ["run CMD.EXE /c", "cat /etc/passwd", "<SCRIPT>", "harmless"]),
    ("exact_case", "exact-case", 0, ["curl/7.0", "CURL/7.0", "Wget/1.0"]),
    ("prefix_case", "prefix-case", 0, ["POST /upload/x", "post /upload", "PUT /a"]),
    ("suffix_case", "suffix-case", 0, ["a.DLL", "a.dll", "x.Js", "x.js"]),
    ("substring_case", "substring-case", 0, ["a X-Evil b", "x-evil", "eval(1)"]),
    ("exact", "exact", 7, ["malware.example.com"]),  # a list number past the last list: no match
    ("ipv4", "ip", 0, ["10.1.2.3", "9.255.255.255", "192.168.1.10", "203.0.113.50", "203.0.113.51"]),
    ("ipv4", "ip", 2, ["198.51.100.7", "100.64.0.9", "100.64.0.10"]),
    ("ipv6", "ipv6", 0, ["2001:db8::1", "2001:db7::1", "fe80::1", "2001:db9::ff", "2001:db9::100"]),
    ("port", "port", 0, ["22", "24", "137", "140", "6665"]),
]


def reference(ptn, kind, list_no, keys):
    try:
        return [a["match"] for a in query(ptn, kind, list_no, "--", *keys)]
    except subprocess.CalledProcessError as e:
        # the tool refuses a list the file lacks; the library answers "no match"
        assert f"list {list_no} does not exist" in e.stderr, e.stderr
        return [False] * len(keys)


@pytest.mark.parametrize("method,kind,list_no,keys", LISTS)
def test_lists_single_and_bulk(example_ptn, method, kind, list_no, keys):
    p = taze.Pattern(example_ptn)
    want = reference(example_ptn, kind, list_no, keys)
    assert [getattr(p, method)(list_no, k) for k in keys] == want
    assert getattr(p, method + "_many")(list_no, keys, numpy=False) == want
    assert getattr(p, method + "_many")(list_no, iter(keys)).tolist() == want


def test_address_and_port_forms(example_ptn):
    p = taze.Pattern(example_ptn)
    v4 = ["10.0.0.1", "11.0.0.1"]
    forms4 = [v4, [ipaddress.IPv4Address(a) for a in v4], [int(ipaddress.IPv4Address(a)) for a in v4],
              [a.encode() for a in v4], array.array("I", [int(ipaddress.IPv4Address(a)) for a in v4])]
    v6 = ["2001:db8::1", "2001:db7::1"]
    forms6 = [v6, [ipaddress.IPv6Address(a) for a in v6], [int(ipaddress.IPv6Address(a)) for a in v6],
              [ipaddress.IPv6Address(a).packed for a in v6]]
    forms_port = [["22", "24"], [22, 24], array.array("H", [22, 24])]
    for method, forms in (("ipv4", forms4), ("ipv6", forms6), ("port", forms_port)):
        for form in forms:
            assert [getattr(p, method)(0, a) for a in form] == [True, False], (method, form)
            assert getattr(p, method + "_many")(0, form, numpy=False) == [True, False], (method, form)
    for method, bad, error in (("ipv4", "10.0.0", ValueError), ("ipv4", 2**32, ValueError),
                               ("ipv4", ipaddress.IPv6Address("::1"), TypeError), ("ipv6", "::g", ValueError),
                               ("ipv6", b"short", ValueError), ("port", 65536, ValueError),
                               ("port", "22a", ValueError), ("exact", 5, TypeError)):
        with pytest.raises(error):
            getattr(p, method)(0, bad)


# source map kind: keys to look up, (key, value) pairs to test
MAPS = [
    ("exact_to_int", ["MALWARE.example.com", "x"], [("malware.example.com", 1002), ("malware.example.com", 5)]),
    ("prefix_to_int", ["/cgi-bin/x"], [("/admin/a", 2001), ("/x", 1)]),
    ("suffix_to_int", ["x.example.biz"], [("a.exe", 3001)]),
    ("substring_to_int", ["run cmd.exe"], [("/etc/passwd", 4002)]),
    ("exact_to_ipv6", ["sinkhole.example.com"], [("sinkhole.example.com", "2001:db8::54")]),
    ("suffix_to_ipv6", ["a.internal.example"], [("a.internal.example", "fd00::1"), ("a.internal.example", "fd00::3")]),
    ("ipv6_to_int", ["fe80::1", "::1"], [("fe80::1", 9), ("2001:db8::1", 8)]),
    ("int_to_int", [80, 81], [(80, 2), (443, 2)]),
    ("int_to_exact", [1001], [(1001, "TROJAN.AGENT"), (1003, "x")]),
    ("int_to_suffix", [25], [(25, "a.zip"), (25, "a.zipx")]),
    ("exact_to_exact", ["example.com"], [("example.com", "mail.example.com")]),
    ("prefix_to_suffix", ["/download/x"], [("/download/x", "setup.msi"), ("/download/x", "a.txt")]),
    ("suffix_to_substring", ["a.example.net"], [("a.example.net", "my password"), ("a.example.net", "x")]),
    ("substring_to_prefix", ["xtorrentx"], [("a torrent", "scrape?x"), ("torrent", "x")]),
]


def as_python(kind, values):
    ipv6 = kind.endswith("_to_ipv6")
    return tuple(ipaddress.IPv6Address(v) if ipv6 else v for v in values)


def key_of(kind, key):
    return ipaddress.IPv6Address(key) if kind.startswith("ipv6_") else key


@pytest.mark.parametrize("kind,keys,pairs", MAPS)
def test_maps(example_ptn, kind, keys, pairs):
    m = taze.Pattern(example_ptn).map(kind, 0)
    count, *entries = query(example_ptn, kind, 0)
    assert len(m) == count["count"]
    assert list(m) == [(key_of(kind, e["key"]), as_python(kind, e["values"])) for e in entries]
    assert m[-1] == m[len(m) - 1]
    for key in keys:
        (ref,) = query(example_ptn, kind, 0, key)
        assert m.get(key) == (as_python(kind, ref["values"]) if ref["result"] == 0 else None), key
    for key, value in pairs:
        (ref,) = query(example_ptn, kind, 0, key, value)
        assert m.answer(key, value) == ref["result"], (key, value)
        assert m.contains(key, value) == (ref["result"] == 1)


def test_rules_protocols_risk(example_ptn):
    p = taze.Pattern(example_ptn)
    for ref in query(example_ptn, "rule", 1001, 1002, 1003, 9001, 5):
        assert p.rule(ref["rule"]) == (ref["rule"], ref["description"], ref["risk_type"], ref["risk_group"],
                                       ref["confidence"], ref["threat_type"])
        clean = ref["clean"]
        want = (clean["priority"], clean["src"] or "", clean["dst"] or "") if clean["result"] == 0 else None
        assert p.rule_clean(ref["rule"]) == want
    assert p.rules() == [(r["index"], r["rule"], r["description"], r["risk_type"], r["risk_group"],
                          r["confidence"], bool(r["enabled"])) for r in query(example_ptn, "rule-index")[1:]]
    assert p.rule_at(p.rule_count()) is None
    count, *protocols = query(example_ptn, "protocol")
    assert p.protocols() == [(r["id"], r["desc"], r["group"]) for r in protocols]
    assert [p.protocol(r["id"]) for r in protocols] == p.protocols()
    count, *groups = query(example_ptn, "group")
    assert p.protocol_groups() == [(g["id"], g["desc"], tuple(g["protocols"])) for g in groups]
    assert [p.protocol_group(g["id"]) for g in groups] == p.protocol_groups()
    (unknown,) = query(example_ptn, "protocol", 12345)
    assert p.protocol(12345) == (12345, unknown["desc"], unknown["group"])
    (unknown,) = query(example_ptn, "group", 12345)
    assert p.protocol_group(12345) == (12345, unknown["desc"], tuple(unknown["protocols"]))
    for direction in ("any", "inbound", "outbound"):
        for ref in query(example_ptn, "known-risk", direction, 6, 17, 99):
            got = p.known_risk(direction, ref["protocol"])
            assert got == ((ref["policy"], ref["severity"]) if ref["found"] else None)
        for ref in query(example_ptn, "potential-risk", 1001, direction, 6, 17):
            got = p.potential_risk(1001, direction, ref["protocol"])
            assert got == ((ref["policy"], ref["severity"]) if ref["found"] else None)
        for rule, protocol in ((1001, 6), (1002, 17), (5, 6)):
            (ref,) = query(example_ptn, "clean", rule, protocol, direction)
            assert p.check_rule_clean(rule, protocol, direction) == (
                (ref["clean"], ref["target"] if ref["clean"] else 0) if ref["result"] in (0, 1) else None)
        for protocol in (6, 17):
            (ref,) = query(example_ptn, "clean-info", protocol, direction)
            assert p.check_clean_info(protocol, direction) == (
                (ref["clean"], ref["target"] if ref["clean"] else 0) if ref["result"] in (0, 1) else None)
            data = ref["data"]
            assert p.clean_info(protocol) == ((data["priority"], data["src"], data["dst"])
                                              if data["result"] == 0 else None)
    assert [p.threat_type(r) for r in (1001, 1002, 7)] == [
        r["threat_type"] for r in query(example_ptn, "threat", 1001, 1002, 7)]
    (versions,) = query(example_ptn, "versions")
    assert (p.pattern_version, p.compiler_version, taze.peek_version(example_ptn)) == (
        versions["pattern_version"], versions["compiler_version"], versions["peeked_version"])
    assert len(p.raw_pattern) == versions["raw_bytes"]
    assert p.ulm_info == query(example_ptn, "ulm-info")[0]["info"]
    assert p.entries(0) == query(example_ptn, "string-list", 0)[0]["strings"]


def test_second_kind(example_ptn):
    p = taze.Pattern(example_ptn)
    assert [p.exact(0, k, taze.ULM) for k in ("ulm.example.com", "malware.example.com")] == [
        a["match"] for a in query(example_ptn, "--ulm", "exact", 0, "ulm.example.com", "malware.example.com")]
    assert p.rule_count(taze.ULM) == query(example_ptn, "--ulm", "rule-index")[0]["count"]


# callable, error class, code
ERRORS = [
    (lambda p, d: p.exact(-1, "x"), taze.ParameterError, -99),
    (lambda p, d: p.exact(0, "a\0b"), taze.ParameterError, -99),
    (lambda p, d: p.exact_many(-1, []), taze.ParameterError, -99),
    (lambda p, d: p.ipv4_many(-1, [1]), taze.ParameterError, -99),
    (lambda p, d: len(p.map("exact_to_int", 9)), taze.ParameterError, -99),
    (lambda p, d: p.entries(9), taze.ParameterError, -99),
    (lambda p, d: taze.Pattern(d / "missing.ptn"), taze.OpenError, -94),
    (lambda p, d: taze.Pattern(d / "bad.ptn"), taze.ReadError, -96),
    (lambda p, d: taze.Pattern.from_dir(d, "none"), taze.AccessError, -87),
    (lambda p, d: taze.peek_version(d / "bad.ptn"), taze.NotFoundError, -1),
]


@pytest.mark.parametrize("call,error,code", ERRORS)
def test_errors(example_ptn, tmp_path, call, error, code):
    (tmp_path / "bad.ptn").write_bytes(b"TAZP" + bytes(60))
    with pytest.raises(error) as e:
        call(taze.Pattern(example_ptn), tmp_path)
    assert (e.value.code, isinstance(e.value, taze.Error)) == (code, True)
    assert e.value.text in str(e.value) and e.value.text.endswith(")")


def _ptn(n, path):
    """A pattern of version 1.000n.35 at path, without tazc's source beside it."""
    tazc({"pattern_version": {"product": 1, "build": 35, "version": n},
          "lists": {"exact": {"0": [f"v{n}.example"]}}}, path)
    pathlib.Path(str(path) + ".json").unlink()
    return path


def _broken(n, path):
    """A file whose version can be read but whose load fails (a damaged tail)."""
    data = bytearray(_ptn(n, path).read_bytes())
    data[-8:] = bytes(x ^ 0xFF for x in data[-8:])
    path.write_bytes(data)


# entry name, how it is made, (reason, number, version, result) after the reload
RELOAD_ENTRIES = [
    ("taz77.ptn", None, ("not_tried", 77, "1.00077.35", 0)),  # loaded first, from_dir below
    ("taz78.ptn", lambda p: _ptn(78, p), ("loaded", 78, "1.00078.35", 0)),
    ("taz79.ptn", lambda p: _broken(79, p), ("load_failed", 79, "1.00079.35", -96)),  # the newest is broken
    ("taz76.ptn.old", lambda p: _ptn(76, p), ("not_tried", 76, "1.00076.35", 0)),  # text after .ptn is free
    ("taz80.ptn", lambda p: _ptn(81, p), ("version_mismatch", 80, "1.00081.35", 0)),
    ("taznew.ptn", lambda p: _ptn(82, p), ("suffix_mismatch", 0, None, 0)),
    ("taz84.ptn", lambda p: p.write_bytes(b"TAZP" + bytes(60)), ("peek_failed", 84, None, 0)),
    ("taz85.ptn", lambda p: p.mkdir(), ("not_regular_file", None, None, 0)),
    ("other86.ptn", lambda p: _ptn(86, p), ("prefix_mismatch", None, None, 0)),
    ("taz" + "9" * 240 + ".ptn", lambda p: _ptn(87, p), ("path_too_long", None, None, 0)),
]


def test_reload(example_ptn, tmp_path):
    """A reload's report names the file that loaded and why every other
    entry of the directory was passed over; a failed reload raises and keeps
    both the old pattern and its report."""
    d = tmp_path / ("d" * 100) / ("d" * 100) / ("d" * 100)  # the long name's full path does not fit
    d.mkdir(parents=True)
    _ptn(77, d / "taz77.ptn")
    p = taze.Pattern.from_dir(d, "taz")
    assert (p.last_report.path, p.last_report.version, p.last_report.previous_version) == (
        str(d / "taz77.ptn"), "1.00077.35", None)
    for name, make, _ in RELOAD_ENTRIES[1:]:
        make(d / name)
    report = p.reload()
    got = {e.name: (e.reason, e.number, e.version, e.result) for e in report.entries}
    assert got == {name: want for name, _, want in RELOAD_ENTRIES}
    assert (report.source, report.path, report.version, report.previous_version, report.result,
            report.scan_result) == (str(d), str(d / "taz78.ptn"), "1.00078.35", "1.00077.35", 0, 0)
    assert (p.last_report, p.exact(0, "v78.example"), p.pattern_version) == (report, True, "1.00078.35")

    for name in ("taz76.ptn.old", "taz77.ptn", "taz78.ptn"):
        (d / name).unlink()
    with pytest.raises(taze.ReadError) as e:  # only the broken file is left
        p.reload()
    failed = e.value.report
    assert (failed.path, failed.version, failed.result, failed.entry("taz79.ptn").reason) == (
        None, None, -96, "load_failed")
    assert (p.last_report, p.exact(0, "v78.example")) == (failed, True)  # the old pattern keeps answering
    (d / "taz79.ptn").unlink()
    with pytest.raises(taze.AccessError) as e:  # no file of the directory is a candidate
        p.reload()
    assert (e.value.report.result, e.value.report.scan_result, e.value.report.entry("taz80.ptn").reason) == (
        -87, -7, "version_mismatch")
    with pytest.raises(taze.AccessError) as e:
        taze.Pattern.from_dir(d / "none", "taz")
    assert (e.value.report.scan_result, e.value.report.entries) == (-2, ())


def test_real_lists(real_source, real_ptn):
    p = taze.Pattern(real_ptn)
    rng = random.Random(7)
    words = rng.sample(real_source["words"], 1500)
    hosts = ["www" + r for r in rng.sample(real_source["rules"], 1500)] + ["example.invalid", "com"]
    lows = [int(ipaddress.IPv4Address(r.split("-")[0])) for r in rng.sample(real_source["ip"], 500)]
    v4 = [str(ipaddress.IPv4Address(x + d)) for x in lows for d in (-1, 0)] + [
        str(ipaddress.IPv4Address(rng.getrandbits(32))) for _ in range(500)]
    v6 = [r.split("-")[0] for r in rng.sample(real_source["ip6"], 500)] + [
        str(ipaddress.IPv6Address(rng.getrandbits(128))) for _ in range(500)]
    for method, kind, keys in (("exact", "exact", [w.upper() for w in words] + [w + "zq" for w in words[:100]]),
                               ("suffix", "suffix", hosts), ("ipv4", "ip", v4), ("ipv6", "ipv6", v6)):
        want = reference(real_ptn, kind, 0, keys)
        assert getattr(p, method + "_many")(0, keys).tolist() == want, method
        assert [getattr(p, method)(0, k) for k in keys[:200]] == want[:200], method
    assert all(p.exact_many(0, [w.upper() for w in words if w.isascii()]))
    assert p.entries(0) == query(real_ptn, "string-list", 0)[0]["strings"]


GIL_CALLS = [
    lambda p, keys, addresses, long_key: p.exact_many(0, keys),
    lambda p, keys, addresses, long_key: p.exact(0, long_key),  # a long key keeps the library busy
    lambda p, keys, addresses, long_key: p.ipv4_many(0, addresses),
]


@pytest.mark.parametrize("call", GIL_CALLS)
def test_queries_release_the_gil(real_source, real_ptn, call):
    """With thread switches by the interpreter turned off, the main thread
    runs while the worker is inside a query only if the query released the
    GIL for its work: then it wakes from its short sleeps several times."""
    p = taze.Pattern(real_ptn)
    args = (p, [real_source["words"][-1]] * 500_000, array.array("I", bytes(4 * 4_000_000)),
            real_source["words"][-1] * 2_000_000)
    call(*args)
    state = {"done": False}

    def worker():
        call(*args)
        state["done"] = True

    old = sys.getswitchinterval()
    sys.setswitchinterval(1000)
    wakeups = 0
    try:
        t = threading.Thread(target=worker)
        t.start()
        while not state["done"]:
            wakeups += 1
            time.sleep(0.0005)
        t.join()
    finally:
        sys.setswitchinterval(old)
    assert wakeups >= 3


def test_reload_while_querying(example_ptn):
    """Readers in other threads keep getting whole answers while the
    pattern is reloaded under them."""
    p = taze.Pattern(example_ptn)
    keys = ["malware.example.com", "x.onion", "nothing"] * 3000
    want = [p.exact_many(0, keys, numpy=False), p.suffix_many(3, keys, numpy=False)]
    bad = []

    def reader():
        for _ in range(30):
            got = [p.exact_many(0, keys, numpy=False), p.suffix_many(3, keys, numpy=False)]
            bad.extend([got] if got != want else [])

    threads = [threading.Thread(target=reader) for _ in range(3)]
    for t in threads:
        t.start()
    reports = [p.reload() for _ in range(20)]
    for t in threads:
        t.join()
    assert not bad and {r.version for r in reports} == {p.pattern_version}
