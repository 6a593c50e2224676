"""Per-key cost of the Python module beside a Python set and the C++ API.

    python3 python/bench.py BUILD_DIR [--keys N]

BUILD_DIR holds the module (python/taze*.so) and the helper
python/taze_bench_keys, which writes the pattern (exact list 0: the words of
wamerican, suffix list 0: the public suffix rules) and times the same
searches through taze.hpp. The keys are N words, half of them dictionary
words in upper case (hits), half with a letter appended (mostly misses),
and N host names for the suffix list. "set" is the same question answered
in Python with set lookups (the lowered key; each dotted tail of the host).
Times are the best of 5 passes."""
import argparse
import os
import random
import subprocess
import sys
import tempfile
import time

WORDS = "/usr/share/dict/words"
PSL = "/usr/share/publicsuffix/public_suffix_list.dat"


def best_ns(fn, n, passes=5):
    best = float("inf")
    for _ in range(passes):
        t0 = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t0)
    return best * 1e9 / n


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("--keys", type=int, default=1_000_000)
    args = ap.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import taze

    helper = os.path.join(args.build, "python", "taze_bench_keys")
    with open(WORDS, encoding="utf-8", errors="replace") as f:
        words = [w.strip() for w in f if w.strip()]
    with open(PSL, encoding="utf-8") as f:
        rules = ["." + r.strip() for r in f if r.strip() and not r.startswith(("//", "*", "!"))]
    rng = random.Random(1)
    n = args.keys
    keys = {"exact": [w.upper() if i % 2 else w + "q" for i, w in enumerate(rng.choices(words, k=n))],
            "suffix": ["www.example" + r if i % 2 else "example.invalid" + str(i % 97)
                       for i, r in enumerate(rng.choices(rules, k=n))]}

    with tempfile.TemporaryDirectory() as tmp:
        ptn = os.path.join(tmp, "bench.ptn")
        sources = []
        for name, lines in (("words", words), ("rules", rules)):
            sources.append(os.path.join(tmp, name))
            with open(sources[-1], "w") as f:
                f.write("\n".join(lines))
        subprocess.run([helper, "write", ptn, *sources], check=True)
        p = taze.Pattern(ptn)
        print(f"pattern: {len(p.entries(0))} words (exact list 0), {len(set(rules))} public suffix rules "
              f"(suffix list 0); {n} keys per kind, half hits")
        print(f"{'kind':8} {'C++ API':>9} {'bulk numpy':>11} {'bulk list':>10} {'single':>8} {'set':>8}"
              f"  bulk/C++ (target <= 2.0), ns per key")
        lowered = set(w.lower() for w in words)
        suffixes = set(r.lower() for r in rules)
        set_tests = {"exact": lambda k: k.lower() in lowered,
                     "suffix": lambda k: any(k[i:].lower() in suffixes for i, c in enumerate(k) if c == ".")}
        for kind, ks in keys.items():
            path = os.path.join(tmp, kind + ".keys")
            with open(path, "w") as f:
                f.write("\n".join(ks))
            cpp = float(subprocess.run([helper, "time", ptn, kind, path], check=True, capture_output=True,
                                       text=True).stdout.split()[0])
            many = getattr(p, kind + "_many")
            one = getattr(p, kind)
            bulk_np = best_ns(lambda: many(0, ks), n)
            bulk_list = best_ns(lambda: many(0, ks, numpy=False), n)
            few = ks[: n // 5]
            single = best_ns(lambda: [one(0, k) for k in few], len(few))
            set_test = set_tests[kind]
            set_single = best_ns(lambda: [set_test(k) for k in few], len(few))
            assert many(0, ks[:1000]).tolist() == [one(0, k) for k in ks[:1000]]
            print(f"{kind:8} {cpp:9.1f} {bulk_np:11.1f} {bulk_list:10.1f} {single:8.1f} {set_single:8.1f}"
                  f"  {bulk_np / cpp:.2f}")


if __name__ == "__main__":
    main()
