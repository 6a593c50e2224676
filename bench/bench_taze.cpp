// What one lookup and one load cost, beside what a host would otherwise use,
// all measured in the same run. For each list kind and size:
//   fast       the public API (the image's load-time indexes);
//   plain      the reference search over the image's arrays (taze_util.h);
//   host-side  std::unordered_set, std::lower_bound / upper_bound over sorted
//              vectors, and for substrings Hyperscan when it is built in.
// Loading: TAZE_LoadPattern against one Twofish-ECB pass plus one MD5 pass
// over the same bytes (the raw decrypt-and-digest limit). At the end a table
// prints every figure as a ratio, with the image's memory per entry and the
// peak memory of a load against the file's size.
//
// Usage: bench_taze [--quick] [benchmark flags]; --quick stops at 100k
// entries and 16 MiB files. `bench_taze --peak-load FILE` loads one file and
// prints its peak memory (used by the table, in a fresh process);
// `bench_taze --write-load-file MIB PATH [SHAPE]` writes a load benchmark's file
// (SHAPE exact, suffix, combined, real or skipped; combined when left out).
#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <atomic>
#include <cmath>
#include <unistd.h>
#include <unordered_set>
#include <vector>

#include "taze_fast.h"
#include "taze_impl.h"
#include "taze_util.h"
#include "tazapi.h"
#include "taze.hpp"
#include "tazewriter.h"
#include "tazewriter_info.h"
#include "vkc.h"

#if TAZE_BENCH_HYPERSCAN
#include <hs/hs.h>
#endif

namespace {

using tazw::Bytes;
using tazw::magic4;

constexpr std::size_t kKeys = 4096;   /* queries per benchmark, used round robin */
constexpr std::size_t kSubstr = 10000; /* largest substring list */
constexpr std::size_t kInput = 200;    /* bytes of a substring query */
bool g_quick = false;

// ---- Workload: host names, URLs, fragments, ranges ------------------------------------

struct Gen {
    std::mt19937_64 g;
    explicit Gen(std::uint64_t seed) : g(seed) {}
    std::size_t below(std::size_t n) { return std::size_t(g() % n); }
    std::string label(std::size_t lo, std::size_t hi)
    {
        static const char abc[] = "abcdefghijklmnopqrstuvwxyz0123456789";
        std::string s(lo + below(hi - lo + 1), 'a');
        for (char &c : s) c = abc[below(36)];
        return s;
    }
    std::string host()
    {
        static const char *tld[] = {"com", "net", "org", "de", "io", "info", "co.uk", "ru", "cn", "xyz"};
        std::string h;
        for (std::size_t i = 0, n = 1 + below(2); i < n; ++i) h += label(3, 10) + ".";
        return h + tld[below(10)];
    }
    std::string path(std::size_t segments)
    {
        std::string p;
        for (std::size_t i = 0; i < segments; ++i) p += "/" + label(2, 9);
        return p;
    }
    std::string fragment()
    {
        switch (below(4)) {
        case 0: return "/" + label(4, 8) + "/" + label(3, 8) + ".php";
        case 1: return label(5, 10) + "." + label(2, 3) + "/";
        case 2: return "?" + label(3, 6) + "=" + label(4, 10);
        default: return "/" + label(6, 14) + "-" + label(3, 6);
        }
    }
    std::string url(std::size_t len)
    {
        std::string u = "http://" + host() + path(2);
        while (u.size() < len) u += "/" + label(3, 9);
        return u.substr(0, len);
    }
    std::string mixed_case(std::string s)
    {
        for (char &c : s)
            if (below(4) == 0) c = char(std::toupper(static_cast<unsigned char>(c)));
        return s;
    }
};

std::vector<std::string> unique(std::vector<std::string> v, std::size_t n)
{
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    if (v.size() > n) v.resize(n);
    return v;
}

std::string lower(std::string s)
{
    for (char &c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

/* The lists of one size, their stored forms and the queries. */
struct Lists {
    std::size_t n;
    std::vector<std::string> hosts, suffixes, prefixes, fragments;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> v4;
    std::vector<std::pair<tazw::IPv6, tazw::IPv6>> v6;
    std::vector<std::pair<std::uint16_t, std::uint16_t>> ports;
    std::vector<std::string> exact_keys, suffix_keys, prefix_keys, substr_keys;
    std::vector<std::uint32_t> ip_keys;
    std::vector<tazw::IPv6> v6_keys;
    std::vector<std::uint16_t> port_keys;
};

tazw::IPv6 v6_of(std::uint64_t x)
{
    tazw::IPv6 a{};
    a[0] = 0x20;
    a[1] = 0x01;
    for (int i = 0; i < 8; ++i) a[15 - i] = std::uint8_t(x >> (8 * i));
    return a;
}

Lists make_lists(std::size_t n)
{
    Lists l;
    l.n = n;
    Gen g(n);
    std::vector<std::string> v;
    for (std::size_t i = 0; i < n + n / 50 + 10; ++i) v.push_back(g.host());
    l.hosts = unique(v, n);
    for (const std::string &h : l.hosts) l.suffixes.push_back("." + h);
    v.clear();
    for (std::size_t i = 0; i < n + n / 50 + 10; ++i) v.push_back(g.host() + g.path(1 + g.below(2)) + "/");
    l.prefixes = unique(v, n);
    v.clear();
    const std::size_t nf = std::min(n, kSubstr);
    for (std::size_t i = 0; i < nf + nf / 10 + 10; ++i) v.push_back(g.fragment());
    l.fragments = unique(v, nf);
    std::shuffle(l.fragments.begin(), l.fragments.end(), g.g);
    tazw::sort_in(tazw::Order::Fold, l.hosts);
    tazw::sort_in(tazw::Order::FoldReversed, l.suffixes);
    tazw::sort_in(tazw::Order::Fold, l.prefixes);
    /* Ranges: ascending, disjoint, with gaps. Ports: at most one per port. */
    std::uint64_t at = 0;
    const std::uint64_t step = (std::uint64_t(1) << 32) / (n + 1);
    for (std::size_t i = 0; i < n; ++i, at += step) {
        l.v4.push_back({std::uint32_t(at), std::uint32_t(at + step / 2)});
        l.v6.push_back({v6_of(at), v6_of(at + step / 2)});
    }
    const std::size_t np = std::min<std::size_t>(n, 32768);
    for (std::size_t i = 0; i < np; ++i) l.ports.push_back({std::uint16_t(2 * i * 32768 / np), std::uint16_t(2 * i * 32768 / np)});
    /* Half the queries hit, half miss; hits in mixed case. */
    for (std::size_t i = 0; i < kKeys; ++i) {
        const bool hit = i % 2 == 0;
        l.exact_keys.push_back(hit ? g.mixed_case(l.hosts[g.below(l.hosts.size())]) : g.host());
        l.suffix_keys.push_back(g.label(2, 6) + (hit ? l.suffixes[g.below(l.suffixes.size())] : "." + g.host()));
        l.prefix_keys.push_back((hit ? l.prefixes[g.below(l.prefixes.size())] : g.host() + "/") + g.label(3, 12) + "?q=1");
        std::string u = g.url(kInput);
        if (hit) {
            const std::string &f = l.fragments[g.below(l.fragments.size())];
            u.replace(g.below(kInput - f.size()), f.size(), g.mixed_case(f));
        }
        l.substr_keys.push_back(u);
        l.ip_keys.push_back(std::uint32_t(g.g()));
        l.v6_keys.push_back(v6_of(g.g() >> 32));
        l.port_keys.push_back(std::uint16_t(g.g()));
    }
    return l;
}

Bytes strings_section(std::uint32_t kind, const std::vector<std::string> &v)
{
    return tazw::section(kind, 1, tazw::list(0, std::uint32_t(v.size()), tazw::string_entries(v)));
}

Bytes payload_of(const Lists &l)
{
    std::vector<tazw::StrIntEntry> map;
    for (std::size_t i = 0; i < l.hosts.size(); ++i) map.push_back({l.hosts[i], {std::uint32_t(i)}});
    return tazw::concat({strings_section(magic4("STR"), l.hosts), strings_section(magic4("SUF"), l.suffixes),
                         strings_section(magic4("PRE"), l.prefixes), strings_section(magic4("SUB"), l.fragments),
                         tazw::section(magic4("IP"), 1, tazw::list(0, std::uint32_t(l.v4.size()), tazw::ip_entries(l.v4))),
                         tazw::section(magic4("IPV6"), 1, tazw::list(0, std::uint32_t(l.v6.size()), tazw::ipv6_entries(l.v6))),
                         tazw::section(magic4("PORT"), 1, tazw::list(0, std::uint32_t(l.ports.size()), tazw::port_entries(l.ports))),
                         tazw::section(magic4("SIM"), 1, tazw::list(0, std::uint32_t(map.size()), tazw::map_entries(map)))});
}

std::string write_pattern(const Bytes &payload, const std::string &name)
{
    tazw::Container c;
    c.ptnVer = 0x1230004D;
    tazw::SubPattern s;
    s.payload = payload;
    c.subs.push_back(s);
    const std::string dir = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp");
    const std::string path = dir + "/taze-bench-" + std::to_string(getpid()) + "-" + name + ".ptn";
    if (!tazw::write_file(path, tazw::build_container(c))) std::abort();
    return path;
}

std::size_t file_size(const std::string &path)
{
    std::ifstream f(path, std::ios::binary | std::ios::ate);
    return std::size_t(f.tellg());
}

/* One loaded size: the handle, its image, the host-side structures. */
struct World {
    Lists l;
    std::string path;
    TAZE *h = nullptr;
    const taz_pattern_st *img = nullptr;
    std::size_t image_bytes = 0, index_bytes = 0, entries = 0;
    std::unordered_set<std::string> set;
    std::vector<std::string> sorted_hosts, sorted_prefixes, sorted_reversed;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> v4;
#if TAZE_BENCH_HYPERSCAN
    hs_database_t *hs = nullptr;
#endif
    ~World()
    {
        if (h) TAZE_Fini(h);
        std::remove(path.c_str());
#if TAZE_BENCH_HYPERSCAN
        hs_free_database(hs);
#endif
    }
};

std::size_t heap_in_use() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

std::map<std::size_t, std::unique_ptr<World>> g_worlds;

World *world(std::size_t n)
{
    auto &w = g_worlds[n];
    if (w) return w.get();
    w = std::make_unique<World>();
    w->l = make_lists(n);
    w->path = write_pattern(payload_of(w->l), std::to_string(n));
    TAZE_Init(&w->h);
    const std::size_t before = heap_in_use();
    if (TAZE_LoadPattern(w->h, w->path.c_str()) != 0) std::abort();
    w->img = w->h->pTAZPattern->taz_ptn;
    w->image_bytes = heap_in_use() - before;
    /* The indexes alone: released and built again. */
    taz_pattern_st *img = w->h->pTAZPattern->taz_ptn;
    const std::size_t with = heap_in_use();
    taz_fast_release(img);
    w->index_bytes = with - heap_in_use();
    taz_fast_build(img);
    const Lists &l = w->l;
    w->entries = l.hosts.size() + l.suffixes.size() + l.prefixes.size() + l.fragments.size() + l.v4.size() +
                 l.v6.size() + l.ports.size() + l.hosts.size();
    for (const std::string &s : l.hosts) w->set.insert(lower(s));
    w->sorted_hosts = l.hosts;
    for (std::string &s : w->sorted_hosts) s = lower(s);
    std::sort(w->sorted_hosts.begin(), w->sorted_hosts.end());
    w->sorted_prefixes = l.prefixes;
    for (std::string &s : w->sorted_prefixes) s = lower(s);
    std::sort(w->sorted_prefixes.begin(), w->sorted_prefixes.end());
    for (const std::string &s : l.suffixes) w->sorted_reversed.push_back(lower(std::string(s.rbegin(), s.rend())));
    std::sort(w->sorted_reversed.begin(), w->sorted_reversed.end());
    w->v4 = l.v4;
#if TAZE_BENCH_HYPERSCAN
    std::vector<const char *> exprs;
    std::vector<unsigned> flags, ids;
    std::vector<std::size_t> lens;
    for (std::size_t i = 0; i < l.fragments.size(); ++i) {
        exprs.push_back(l.fragments[i].c_str());
        lens.push_back(l.fragments[i].size());
        flags.push_back(HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH);
        ids.push_back(unsigned(i));
    }
    hs_compile_error_t *err = nullptr;
    if (hs_compile_lit_multi(exprs.data(), flags.data(), ids.data(), lens.data(), unsigned(exprs.size()), HS_MODE_BLOCK,
                             nullptr, &w->hs, &err) != HS_SUCCESS) {
        hs_free_compile_error(err);
        w->hs = nullptr;
    }
#endif
    return w.get();
}

const unsigned char *ub(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.c_str()); }

/* Runs `one(i)` for the benchmark's iterations over the queries. */
template <class F>
void loop(benchmark::State &st, F &&one)
{
    std::size_t i = 0;
    long hits = 0;
    for (auto _ : st) {
        hits += one(i);
        i = (i + 1) % kKeys;
    }
    benchmark::DoNotOptimize(hits);
    st.SetItemsProcessed(st.iterations());
}

/* Host-side: the last sorted entry not above the key, tested as a prefix. */
bool sorted_prefix(const std::vector<std::string> &v, const std::string &key)
{
    auto it = std::upper_bound(v.begin(), v.end(), key);
    if (it == v.begin()) return false;
    --it;
    return key.compare(0, it->size(), *it) == 0;
}

thread_local std::string t_buf;
const std::string &lowered(const std::string &s)
{
    t_buf.assign(s);
    for (char &c : t_buf) c = char(std::tolower(static_cast<unsigned char>(c)));
    return t_buf;
}

// ---- Registration ------------------------------------------------------------------------

std::string size_name(std::size_t n) { return n >= 1000000 ? std::to_string(n / 1000000) + "M" : std::to_string(n / 1000) + "k"; }

void reg(const std::string &name, std::function<void(benchmark::State &)> fn)
{
    benchmark::RegisterBenchmark(name.c_str(), [fn](benchmark::State &st) { fn(st); });
}

void register_lookups(std::size_t n)
{
    const std::string s = size_name(n);
    auto W = [n] { return world(n); };
    reg("exact/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchStringList(w->h, 0, w->l.exact_keys[i].c_str(), PT_TAZ); });
    });
    reg("exact/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return str_list_search(ub(w->l.exact_keys[i]), &w->img->string_lists[0]); });
    });
    reg("exact/" + s + "/unordered_set", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return int(w->set.count(lowered(w->l.exact_keys[i]))); });
    });
    reg("exact/" + s + "/lower_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) {
            const std::string &k = lowered(w->l.exact_keys[i]);
            auto it = std::lower_bound(w->sorted_hosts.begin(), w->sorted_hosts.end(), k);
            return int(it != w->sorted_hosts.end() && *it == k);
        });
    });
    reg("prefix/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchPrefixList(w->h, 0, w->l.prefix_keys[i].c_str(), PT_TAZ); });
    });
    reg("prefix/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return str_prefix_list_search(ub(w->l.prefix_keys[i]), &w->img->string_prefix_lists[0]); });
    });
    reg("prefix/" + s + "/lower_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return int(sorted_prefix(w->sorted_prefixes, lowered(w->l.prefix_keys[i]))); });
    });
    reg("suffix/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchSuffixList(w->h, 0, w->l.suffix_keys[i].c_str(), PT_TAZ); });
    });
    reg("suffix/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return str_suffix_list_search(ub(w->l.suffix_keys[i]), &w->img->string_suffix_lists[0]); });
    });
    reg("suffix/" + s + "/lower_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) {
            const std::string &k = w->l.suffix_keys[i];
            return int(sorted_prefix(w->sorted_reversed, lowered(std::string(k.rbegin(), k.rend()))));
        });
    });
    reg("map_exact/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchSIMap(w->h, PT_TAZ, MT_STRING, 0, w->l.exact_keys[i].c_str(), 7); });
    });
    reg("map_exact/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return simap_list_search(ub(w->l.exact_keys[i]), 7, &w->img->str_int_map_lists[0], MT_STRING); });
    });
    reg("ipv4/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchIPRangeList(w->h, 0, w->l.ip_keys[i], PT_TAZ); });
    });
    reg("ipv4/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return ip_rng_list_search(w->l.ip_keys[i], &w->img->ip_range_lists[0]); });
    });
    reg("ipv4/" + s + "/upper_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) {
            const std::uint32_t ip = w->l.ip_keys[i];
            auto it = std::upper_bound(w->v4.begin(), w->v4.end(), ip, [](std::uint32_t k, const auto &r) { return k < r.first; });
            return int(it != w->v4.begin() && ip <= std::prev(it)->second);
        });
    });
    reg("ipv6/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchIPv6RangeList(w->h, 0, w->l.v6_keys[i].data(), PT_TAZ); });
    });
    reg("ipv6/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return ipv6_rng_list_search(w->l.v6_keys[i].data(), &w->img->ipv6_range_lists[0]); });
    });
    reg("ipv6/" + s + "/upper_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) {
            const tazw::IPv6 &k = w->l.v6_keys[i];
            const auto &v = w->l.v6;
            auto it = std::upper_bound(v.begin(), v.end(), k, [](const tazw::IPv6 &a, const auto &r) { return a < r.first; });
            return int(it != v.begin() && !(std::prev(it)->second < k));
        });
    });
    reg("port/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchPortRangeList(w->h, 0, w->l.port_keys[i], PT_TAZ); });
    });
    reg("port/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return port_rng_list_search(w->l.port_keys[i], &w->img->port_range_lists[0]); });
    });
    reg("port/" + s + "/upper_bound", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) {
            const std::uint16_t p = w->l.port_keys[i];
            const auto &v = w->l.ports;
            auto it = std::upper_bound(v.begin(), v.end(), p, [](std::uint16_t k, const auto &r) { return k < r.first; });
            return int(it != v.begin() && p <= std::prev(it)->second);
        });
    });
    if (n > kSubstr) return; /* substring lists stop at 10k entries */
    reg("substring/" + s + "/fast", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return TAZE_PatternSearchSubstringList(w->h, 0, w->l.substr_keys[i].c_str(), PT_TAZ); });
    });
    reg("substring/" + s + "/plain", [W](benchmark::State &st) {
        World *w = W();
        loop(st, [&](std::size_t i) { return str_substring_list_search(ub(w->l.substr_keys[i]), &w->img->string_substring_lists[0]); });
    });
#if TAZE_BENCH_HYPERSCAN
    reg("substring/" + s + "/hyperscan", [W](benchmark::State &st) {
        World *w = W();
        hs_scratch_t *scratch = nullptr;
        if (!w->hs || hs_alloc_scratch(w->hs, &scratch) != HS_SUCCESS) {
            st.SkipWithError("hyperscan unavailable");
            return;
        }
        auto on_match = [](unsigned, unsigned long long, unsigned long long, unsigned, void *ctx) {
            *static_cast<int *>(ctx) = 1;
            return 1; /* stop at the first match */
        };
        loop(st, [&](std::size_t i) {
            int found = 0;
            const std::string &k = w->l.substr_keys[i];
            hs_scan(w->hs, k.data(), unsigned(k.size()), 0, scratch, on_match, &found);
            return found;
        });
        hs_free_scratch(scratch);
    });
#endif
}

void register_threads(std::size_t n)
{
    for (int t : {1, 2})
        benchmark::RegisterBenchmark(("threads/" + size_name(n) + "/exact").c_str(), [n](benchmark::State &st) {
            World *w = world(n);
            std::size_t i = std::size_t(st.thread_index()) * 997;
            long hits = 0;
            for (auto _ : st) {
                hits += TAZE_PatternSearchStringList(w->h, 0, w->l.exact_keys[i].c_str(), PT_TAZ);
                i = (i + 1) % kKeys;
            }
            benchmark::DoNotOptimize(hits);
            st.SetItemsProcessed(st.iterations());
        })->Threads(t)->UseRealTime();
}

// ---- Loading -------------------------------------------------------------------------------

/* The load files: one big exact list, one big suffix list, the combined file
 * of the lookup benchmarks, and real Debian data (dictionary words as exact
 * lists, public suffix rules as suffix lists, Tor's IPv4 geolocation ranges),
 * replicated into further lists with a variation per copy until the size is
 * reached; and one section of a kind the loader skips, which measures the
 * reader alone (file, decryption, digest, section walk; no lists, no
 * indexes). */
const char *const kShapes[] = {"exact", "suffix", "combined", "real", "skipped"};

std::vector<std::string> lines_of(const char *path)
{
    std::vector<std::string> out;
    std::ifstream f(path);
    for (std::string line; std::getline(f, line);) out.push_back(line);
    return out;
}

/* Sorted, unique, in the order a list of that kind needs. */
std::vector<std::string> stored(std::vector<std::string> v, tazw::Order o)
{
    v = unique(std::move(v), v.size());
    tazw::sort_in(o, v);
    return v;
}

/* One big list of about `bytes` payload bytes (the count estimated from a
 * sample, then corrected once). */
Bytes big_list(bool suffix, std::size_t bytes)
{
    auto make = [suffix](std::size_t n) {
        Gen g(n);
        std::vector<std::string> v;
        for (std::size_t i = 0; i < n + n / 50 + 10; ++i) v.push_back((suffix ? "." : "") + g.host());
        v = unique(std::move(v), n);
        tazw::sort_in(suffix ? tazw::Order::FoldReversed : tazw::Order::Fold, v);
        return strings_section(magic4(suffix ? "SUF" : "STR"), v);
    };
    const std::size_t sample = 10000;
    const double per_entry = double(make(sample).size()) / double(sample);
    return make(std::size_t(double(bytes) / per_entry));
}

struct RealData {
    std::vector<std::string> words, suffixes;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
};

const RealData &real_data()
{
    static const RealData d = [] {
        RealData r;
        r.words = lines_of("/usr/share/dict/american-english");
        for (std::string rule : lines_of("/usr/share/publicsuffix/public_suffix_list.dat")) {
            if (rule.empty() || rule.rfind("//", 0) == 0) continue;
            if (rule.rfind("*.", 0) == 0) rule.erase(0, 2);
            if (rule[0] == '!') rule.erase(0, 1);
            r.suffixes.push_back("." + rule);
        }
        for (const std::string &line : lines_of("/usr/share/tor/geoip")) {
            unsigned long lo = 0, hi = 0;
            if (line.empty() || line[0] == '#' || std::sscanf(line.c_str(), "%lu,%lu", &lo, &hi) != 2) continue;
            if (!r.ranges.empty() && lo <= r.ranges.back().second) continue; /* keep them disjoint */
            r.ranges.push_back({std::uint32_t(lo), std::uint32_t(hi)});
        }
        return r;
    }();
    return d;
}

/* The real lists in `copies_whole` whole copies and a last partial one
 * (the first `last_fraction` of each source), copy c as list number c, its
 * words and rules varied by c. */
Bytes real_lists(std::size_t copies_whole, double last_fraction)
{
    const RealData &d = real_data();
    const std::size_t copies = copies_whole + (last_fraction > 0 ? 1 : 0);
    std::vector<Bytes> str, suf, ip;
    for (std::size_t c = 0; c < copies; ++c) {
        const double f = c < copies_whole ? 1.0 : last_fraction;
        const std::string tag = c == 0 ? "" : std::to_string(c);
        std::vector<std::string> w, s;
        for (std::size_t i = 0; i < std::size_t(f * double(d.words.size())); ++i) w.push_back(d.words[i] + tag);
        for (std::size_t i = 0; i < std::size_t(f * double(d.suffixes.size())); ++i)
            s.push_back(c == 0 ? d.suffixes[i] : ".v" + tag + d.suffixes[i]);
        w = stored(std::move(w), tazw::Order::Fold);
        s = stored(std::move(s), tazw::Order::FoldReversed);
        const std::vector<std::pair<std::uint32_t, std::uint32_t>> r(
            d.ranges.begin(), d.ranges.begin() + long(f * double(d.ranges.size())));
        str.push_back(tazw::list(std::uint32_t(c), std::uint32_t(w.size()), tazw::string_entries(w)));
        suf.push_back(tazw::list(std::uint32_t(c), std::uint32_t(s.size()), tazw::string_entries(s)));
        ip.push_back(tazw::list(std::uint32_t(c), std::uint32_t(r.size()), tazw::ip_entries(r)));
    }
    auto join = [](const std::vector<Bytes> &parts) {
        Bytes out;
        for (const Bytes &b : parts) out.insert(out.end(), b.begin(), b.end());
        return out;
    };
    const auto n = std::uint32_t(copies);
    return tazw::concat({tazw::section(magic4("STR"), n, join(str)), tazw::section(magic4("SUF"), n, join(suf)),
                         tazw::section(magic4("IP"), n, join(ip))});
}

Bytes real_file(std::size_t bytes)
{
    const double copies = double(bytes) / double(real_lists(1, 0).size());
    return real_lists(std::size_t(copies), copies - std::floor(copies));
}

/* The payload of one load file of about `mib` MiB. */
Bytes load_payload(const std::string &shape, std::size_t mib)
{
    const std::size_t bytes = mib * 1024 * 1024;
    if (shape == "exact" || shape == "suffix") return big_list(shape == "suffix", bytes);
    if (shape == "real") return real_file(bytes);
    if (shape == "skipped") {
        Bytes data(bytes);
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = std::uint8_t(i * 131 + (i >> 11));
        return tazw::section(0x12345678u, 0, data);
    }
    return payload_of(make_lists(bytes / 150)); /* about 150 payload bytes per host across the kinds */
}

/* Each load file lives alone in a directory, named as a directory load
 * wants it (prefix "bench", the version field 77 of write_pattern). */
std::map<std::string, std::string> g_load_files;

std::string load_file(const std::string &shape, std::size_t mib)
{
    const std::string name = shape + "-" + std::to_string(mib) + "MiB";
    std::string &path = g_load_files[name];
    if (!path.empty()) return path;
    const std::string made = write_pattern(load_payload(shape, mib), name);
    const std::string dir = (std::getenv("TMPDIR") ? std::string(std::getenv("TMPDIR")) : std::string("/tmp")) +
                            "/taze-bench-" + std::to_string(getpid()) + "-" + name;
    mkdir(dir.c_str(), 0700);
    path = dir + "/bench77.ptn";
    if (std::rename(made.c_str(), path.c_str()) != 0) std::abort();
    return path;
}

std::string dir_of(const std::string &path) { return path.substr(0, path.rfind('/')); }

/* The raw limit: libgcrypt's fastest Twofish-128 ECB decryption (bulk CBC
 * decryption with a zero IV, each block then XORed with the ciphertext block
 * before it, in chunks that leave the ciphertext in place) and one MD5 pass,
 * one thread, over the file's bytes. */
void raw_limit(const std::vector<unsigned char> &in, std::vector<unsigned char> &out, gcry_cipher_hd_t c,
               unsigned char md5[16])
{
    static const unsigned char zero[16] = {};
    constexpr std::size_t kChunk = 64 * 1024;
    for (std::size_t off = 0; off < in.size(); off += kChunk) {
        const std::size_t n = std::min(kChunk, in.size() - off);
        gcry_cipher_setiv(c, zero, 16);
        gcry_cipher_decrypt(c, out.data() + off, n, in.data() + off, n);
        for (std::size_t i = 16; i < n; ++i) out[off + i] ^= in[off + i - 16];
    }
    gcry_md_hash_buffer(GCRY_MD_MD5, md5, out.data(), out.size());
}

void register_load(const std::string &shape, std::size_t mib)
{
    const std::string s = "load/" + shape + "-" + std::to_string(mib) + "MiB/";
    benchmark::RegisterBenchmark((s + "taze").c_str(), [shape, mib](benchmark::State &st) {
        const std::string path = load_file(shape, mib);
        for (auto _ : st) {
            TAZE *h = nullptr;
            TAZE_Init(&h);
            if (TAZE_LoadPattern(h, path.c_str()) != 0) st.SkipWithError("load failed");
            st.PauseTiming();
            TAZE_Fini(h);
            st.ResumeTiming();
        }
        st.SetBytesProcessed(std::int64_t(st.iterations()) * std::int64_t(file_size(path)));
    })->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
    benchmark::RegisterBenchmark((s + "raw").c_str(), [shape, mib](benchmark::State &st) {
        const std::string path = load_file(shape, mib);
        std::vector<unsigned char> bytes(file_size(path) / 16 * 16), work(bytes.size());
        std::ifstream(path, std::ios::binary).read(reinterpret_cast<char *>(bytes.data()), std::streamsize(bytes.size()));
        gcry_check_version(nullptr);
        gcry_cipher_hd_t c;
        static const unsigned char key[16] = {1, 2, 3};
        gcry_cipher_open(&c, GCRY_CIPHER_TWOFISH128, GCRY_CIPHER_MODE_CBC, 0);
        gcry_cipher_setkey(c, key, 16);
        unsigned char md5[16];
        for (auto _ : st) {
            raw_limit(bytes, work, c, md5);
            benchmark::DoNotOptimize(md5);
        }
        gcry_cipher_close(c);
        st.SetBytesProcessed(std::int64_t(st.iterations()) * std::int64_t(bytes.size()));
    })->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
    /* Reload through the C++ holder while two threads query the pattern it
     * serves (each through its own cached snapshot). */
    benchmark::RegisterBenchmark((s + "reload").c_str(), [shape, mib](benchmark::State &st) {
        const std::string path = load_file(shape, mib);
        taze::reloading_handle holder;
        holder.load_dir(dir_of(path), "bench");
        std::atomic<bool> stop{false};
        std::atomic<std::uint64_t> queries{0};
        auto query = [&] {
            taze::reloading_handle::reader reader(holder);
            std::uint64_t n = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                benchmark::DoNotOptimize(reader.current()->search(taze::list_kind::exact, 0, "alpha.example"));
                ++n;
            }
            queries += n;
        };
        std::thread a(query), b(query);
        for (auto _ : st)
            if (holder.try_reload()) st.SkipWithError("reload failed");
        stop = true;
        a.join();
        b.join();
        st.counters["queries"] = benchmark::Counter(double(queries.load()), benchmark::Counter::kIsRate);
    })->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);
}

/* Peak memory of a load as a multiple of the file's size, measured by the
 * bench_load_peak program beside this one (a fresh process with a counting
 * allocator), or -1. */
double peak_ratio(const std::string &path)
{
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return -1;
    std::string tool = self;
    tool = tool.substr(0, tool.rfind('/') + 1) + "bench_load_peak";
    const std::string cmd = "'" + tool + "' '" + path + "'";
    FILE *p = popen(cmd.c_str(), "r");
    long long bytes = -1;
    if (p && std::fscanf(p, "%lld", &bytes) != 1) bytes = -1;
    if (p) pclose(p);
    return bytes < 0 ? -1 : double(bytes) / double(file_size(path));
}

// ---- The ratio table -----------------------------------------------------------------------

/* kind/size/variant, and /threads:N for the thread runs (the options that
 * Google Benchmark appends are dropped). */
std::string short_name(const std::string &full)
{
    std::string out, part;
    std::size_t parts = 0;
    for (std::size_t i = 0; i <= full.size(); ++i) {
        if (i < full.size() && full[i] != '/') {
            part += full[i];
            continue;
        }
        if (parts < 3 || part.rfind("threads:", 0) == 0) out += (out.empty() ? "" : "/") + part;
        ++parts;
        part.clear();
    }
    return out;
}

/* Keeps every run's time per iteration (ns) and rate while printing it. */
class Collector : public benchmark::ConsoleReporter {
public:
    Collector() : ConsoleReporter(OO_Tabular) {} /* no colour codes in saved output */
    std::map<std::string, double> ns, rate;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            const double to_ns = r.time_unit == benchmark::kMillisecond ? 1e6 : r.time_unit == benchmark::kMicrosecond ? 1e3 : 1;
            /* Lookups and loads count the processor time of their one
             * thread, kernel time included (the machine is shared: wall time
             * there counts the other users); thread runs and reloads, which
             * run several threads, count wall time. */
            const std::string name = short_name(r.benchmark_name());
            const bool wall = name.rfind("threads/", 0) == 0 ||
                              (name.size() > 7 && name.compare(name.size() - 7, 7, "/reload") == 0);
            ns[name] = (wall ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime()) * to_ns;
            auto it = r.counters.find("items_per_second");
            if (it != r.counters.end()) rate[name] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

void print_table(const Collector &c, const std::vector<std::size_t> &sizes, const std::vector<std::size_t> &mibs)
{
    std::printf("\n| lookup | entries | fast ns | plain ns | plain/fast | baseline | baseline ns | baseline/fast |\n");
    std::printf("|---|---|---|---|---|---|---|---|\n");
    const char *kinds[] = {"exact", "map_exact", "prefix", "suffix", "substring", "ipv4", "ipv6", "port"};
    const char *bases[] = {"unordered_set", "lower_bound", "hyperscan", "upper_bound"};
    for (const char *k : kinds)
        for (std::size_t n : sizes) {
            const std::string pre = std::string(k) + "/" + size_name(n) + "/";
            auto f = c.ns.find(pre + "fast"), p = c.ns.find(pre + "plain");
            if (f == c.ns.end() || p == c.ns.end()) continue;
            bool any = false;
            for (const char *b : bases) {
                auto x = c.ns.find(pre + b);
                if (x == c.ns.end()) continue;
                any = true;
                std::printf("| %s | %s | %.0f | %.0f | %.2fx | %s | %.0f | %.2fx |\n", k, size_name(n).c_str(), f->second,
                            p->second, p->second / f->second, b, x->second, x->second / f->second);
            }
            if (!any)
                std::printf("| %s | %s | %.0f | %.0f | %.2fx | - | - | - |\n", k, size_name(n).c_str(), f->second, p->second,
                            p->second / f->second);
        }
    std::printf("\n| load | taze ms | raw limit ms | taze speed / raw | peak memory / file size | reload ms (2 threads querying) |\n|---|---|---|---|---|---|\n");
    for (const char *shape : kShapes)
        for (std::size_t mib : mibs) {
            const std::string name = std::string(shape) + "-" + std::to_string(mib) + "MiB";
            const std::string pre = "load/" + name + "/";
            auto t = c.ns.find(pre + "taze"), r = c.ns.find(pre + "raw"), re = c.ns.find(pre + "reload");
            if (t == c.ns.end() || r == c.ns.end()) continue;
            std::printf("| %s | %.1f | %.1f | %.2fx | %.2fx | %s |\n", name.c_str(), t->second / 1e6, r->second / 1e6,
                        r->second / t->second, peak_ratio(load_file(shape, mib)),
                        re == c.ns.end() ? "-" : std::to_string(int(re->second / 1e6 + 0.5)).c_str());
        }
    std::printf("\n| threads (one handle, exact lookups) | lookups/s | vs 1 thread |\n|---|---|---|\n");
    for (std::size_t n : sizes) {
        const std::string pre = "threads/" + size_name(n) + "/exact/threads:";
        auto one = c.rate.find(pre + "1"), two = c.rate.find(pre + "2");
        if (one == c.rate.end() || two == c.rate.end()) continue;
        std::printf("| %s, 1 thread | %.3g | 1.00x |\n| %s, 2 threads | %.3g | %.2fx |\n", size_name(n).c_str(), one->second,
                    size_name(n).c_str(), two->second, two->second / one->second);
    }
    std::printf("\n| image memory | entries | image bytes/entry | of which indexes |\n|---|---|---|---|\n");
    for (std::size_t n : sizes) {
        auto it = g_worlds.find(n);
        if (it == g_worlds.end() || !it->second) continue;
        const World *w = it->second.get();
        std::printf("| %s lists | %zu | %.1f | %.1f |\n", size_name(n).c_str(), w->entries,
                    double(w->image_bytes) / double(w->entries), double(w->index_bytes) / double(w->entries));
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 4 && std::strcmp(argv[1], "--write-load-file") == 0) { /* for profiling a load */
        const std::string made = load_file(argc > 4 ? argv[4] : "combined", std::size_t(std::atol(argv[2])));
        const bool moved = std::rename(made.c_str(), argv[3]) == 0;
        rmdir(dir_of(made).c_str());
        return moved ? 0 : 1;
    }
    std::vector<char *> args;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0)
            g_quick = true;
        else
            args.push_back(argv[i]);
    }
    int n = int(args.size());
    benchmark::Initialize(&n, args.data());
    const std::vector<std::size_t> sizes = g_quick ? std::vector<std::size_t>{1000, 10000, 100000}
                                                   : std::vector<std::size_t>{1000, 10000, 100000, 1000000};
    const std::vector<std::size_t> mibs = g_quick ? std::vector<std::size_t>{1, 16} : std::vector<std::size_t>{1, 16, 64};
    for (std::size_t s : sizes) register_lookups(s);
    register_threads(sizes.back());
    for (const char *shape : kShapes)
        for (std::size_t m : mibs) register_load(shape, m);
    Collector c;
    benchmark::RunSpecifiedBenchmarks(&c);
    print_table(c, sizes, mibs);
    for (const auto &f : g_load_files) {
        std::remove(f.second.c_str());
        rmdir(dir_of(f.second).c_str());
    }
    g_worlds.clear();
    benchmark::Shutdown();
    return 0;
}
