// Lookups on the shapes users ship: files that hold one list each, generated
// (1k, 100k and 1M entries) and real (the public suffix list, the dictionary,
// the IPv4 and IPv6 country ranges of Debian's packages). For every shape the
// file is written, loaded through the public API, and every query is answered
// through the API (the indexes) and through the plain search; any difference
// aborts the run. Then each way is timed, best of several rounds (the machine
// is shared), beside the host-side baselines: std::unordered_set of
// lower-cased keys for exact lookups and Hyperscan (when built in) for
// substrings. Also printed: the load time, the time to build the indexes, the
// peak memory of a load against the file size, and two threads against one.
//
// Usage: bench_shapes [--quick] [--rounds N] [--only SUBSTRING]; --quick
// stops at 100k entries. Missing data files are skipped (scripts/bench.sh
// installs the packages).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <unordered_set>
#include <vector>

#include <arpa/inet.h>

#include "taze_fast.h"
#include "taze_impl.h"
#include "taze_util.h"
#include "tazapi.h"
#include "tazewriter.h"
#include "tazewriter_info.h"
#include "vkc.h"

#if TAZE_BENCH_HYPERSCAN
#include <hs/hs.h>
#endif

namespace {

using tazw::Bytes;
using tazw::magic4;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kQueries = 4096;
int g_rounds = 5;

enum class Kind { Exact, Prefix, Suffix, ExactMap, SuffixMap, Substr, Ipv4, Ipv6, Port };
const char *kind_name(Kind k)
{
    static const char *n[] = {"exact", "prefix", "suffix", "map exact", "map suffix", "substring", "ipv4", "ipv6", "port"};
    return n[int(k)];
}

/* One shape: its list, written into a file of its own, and its queries. */
struct Shape {
    std::string name;
    Kind kind;
    std::vector<std::string> texts;                              /* string kinds, stored order */
    std::vector<std::pair<std::uint32_t, std::uint32_t>> v4;     /* ipv4 */
    std::vector<std::pair<tazw::IPv6, tazw::IPv6>> v6;           /* ipv6 */
    std::vector<std::pair<std::uint16_t, std::uint16_t>> ports;  /* port */
    std::vector<std::string> keys;
    std::vector<std::uint32_t> ip_keys;
    std::vector<tazw::IPv6> v6_keys;
    std::size_t entries() const { return texts.size() + v4.size() + v6.size() + ports.size(); }
};

struct Rng {
    std::mt19937_64 g;
    explicit Rng(std::uint64_t s) : g(s) {}
    std::size_t below(std::size_t n) { return n ? std::size_t(g() % n) : 0; }
    std::string label(std::size_t lo, std::size_t hi)
    {
        static const char abc[] = "abcdefghijklmnopqrstuvwxyz0123456789-";
        std::string s(lo + below(hi - lo + 1), 'a');
        for (char &c : s) c = abc[below(c == s.front() ? 36 : 37)];
        return s;
    }
    std::string host()
    {
        static const char *tld[] = {"com", "net", "org", "de", "io", "info", "co.uk", "ru", "cn", "xyz", "com.br", "jp"};
        std::string h;
        for (std::size_t i = 0, n = 1 + below(3); i < n; ++i) h += label(1, 12) + ".";
        return h + tld[below(12)];
    }
    std::string mixed(std::string s)
    {
        for (char &c : s)
            if (below(3) == 0) c = char(std::toupper(static_cast<unsigned char>(c)));
        return s;
    }
};

void sorted_unique(std::vector<std::string> &v, tazw::Order o, std::size_t n)
{
    tazw::sort_in(o, v);
    v.erase(std::unique(v.begin(), v.end(), [o](const std::string &a, const std::string &b) { return !tazw::less_in(o, a, b); }),
            v.end());
    if (v.size() > n) {
        std::vector<std::string> keep;
        const double step = double(v.size()) / double(n);
        for (std::size_t i = 0; i < n; ++i) keep.push_back(v[std::size_t(double(i) * step)]);
        v.swap(keep);
    }
}

/* Queries for string shapes: half drawn from the data (in mixed case, and for
 * prefix and suffix kinds extended at the matching end), half made up. */
void text_queries(Shape &s, Rng &r, const std::function<std::string()> &random)
{
    for (std::size_t i = 0; i < kQueries; ++i) {
        if (i % 2 == 1 || s.texts.empty()) {
            s.keys.push_back(random());
            continue;
        }
        std::string k = r.mixed(s.texts[r.below(s.texts.size())]);
        if (s.kind == Kind::Prefix) k += r.label(0, 12);
        if (s.kind == Kind::Suffix || s.kind == Kind::SuffixMap) k = r.label(1, 8) + "." + k;
        s.keys.push_back(k.c_str());
    }
}

Shape exact_hosts(std::size_t n, Kind kind)
{
    Shape s{(kind == Kind::Exact ? "host names " : "host names, map ") + std::to_string(n), kind, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 1);
    for (std::size_t i = 0; i < n + n / 20 + 8; ++i) s.texts.push_back(r.host());
    sorted_unique(s.texts, tazw::Order::Fold, n);
    text_queries(s, r, [&] { return r.host(); });
    return s;
}

Shape url_paths(std::size_t n)
{
    Shape s{"URL paths " + std::to_string(n), Kind::Prefix, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 2);
    static const char *top[] = {"/", "/api/", "/wp-content/", "/static/", "/images/", "/download/", "/cgi-bin/"};
    for (std::size_t i = 0; i < n + n / 20 + 8; ++i) {
        std::string p = top[r.below(7)];
        for (std::size_t j = 0, m = r.below(4); j < m; ++j) p += r.label(1, 10) + (r.below(3) ? "/" : "");
        s.texts.push_back(p);
    }
    sorted_unique(s.texts, tazw::Order::Fold, n);
    text_queries(s, r, [&] { return std::string(top[r.below(7)]) + r.label(1, 10) + "/" + r.label(2, 12); });
    return s;
}

Shape domains(std::size_t n)
{
    Shape s{"domains " + std::to_string(n), Kind::Suffix, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 3);
    for (std::size_t i = 0; i < n + n / 20 + 8; ++i) s.texts.push_back((r.below(2) ? "." : "") + r.host());
    sorted_unique(s.texts, tazw::Order::FoldReversed, n);
    text_queries(s, r, [&] { return r.label(1, 8) + "." + r.host(); });
    return s;
}

Shape literals(std::size_t n)
{
    Shape s{"literals " + std::to_string(n) + ", 200-byte inputs", Kind::Substr, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 4);
    std::unordered_set<std::string> seen;
    while (s.texts.size() < n) {
        std::string t = r.label(8, 24);
        if (seen.insert(t).second) s.texts.push_back(t);
    }
    for (std::size_t i = 0; i < kQueries; ++i) {
        std::string u;
        while (u.size() < 200) u += r.label(3, 9) + "/";
        u.resize(200);
        if (i % 2 == 0) {
            const std::string f = r.mixed(s.texts[r.below(n)]);
            u.replace(r.below(200 - f.size()), f.size(), f);
        }
        s.keys.push_back(u);
    }
    return s;
}

Shape ipv4(std::size_t n)
{
    Shape s{"IPv4 ranges " + std::to_string(n) + ", widths 1 to 2^16", Kind::Ipv4, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 5);
    std::uint64_t at = 0;
    const std::uint64_t mean = (std::uint64_t(1) << 32) / (n + 1);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t w = std::uint64_t(1) << r.below(17), lo = at + r.below(mean);
        const std::uint64_t hi = std::min(lo + std::min(w, mean) - 1, (std::uint64_t(1) << 32) - 1);
        if (lo > 0xFFFFFFFFull) break;
        s.v4.push_back({std::uint32_t(lo), std::uint32_t(hi)});
        at = std::max(hi + 1, at + mean);
    }
    for (std::size_t i = 0; i < kQueries; ++i)
        s.ip_keys.push_back(i % 2 ? std::uint32_t(r.g()) : s.v4[r.below(s.v4.size())].first + std::uint32_t(r.below(3)));
    return s;
}

/* Port ranges, n of them at most (the port space holds few), widths 1 to
 * half the mean step. */
Shape ports(std::size_t n)
{
    Shape s{"port ranges " + std::to_string(n), Kind::Port, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 11);
    const std::size_t half = std::max<std::size_t>(1, 65536 / (n + 1) / 2);
    for (std::size_t at = r.below(half); s.ports.size() < n;) {
        const std::size_t hi = at + r.below(half);
        if (hi > 0xFFFF) break;
        s.ports.push_back({std::uint16_t(at), std::uint16_t(hi)});
        at = hi + 1 + r.below(half + 1);
    }
    for (std::size_t i = 0; i < kQueries; ++i)
        s.ip_keys.push_back(i % 2 ? std::uint16_t(r.g()) : s.ports[r.below(s.ports.size())].first + std::uint32_t(r.below(2)));
    return s;
}

tazw::IPv6 v6_at(std::uint32_t top, std::uint64_t mid)
{
    tazw::IPv6 a{};
    for (int i = 0; i < 4; ++i) a[i] = std::uint8_t(top >> (24 - 8 * i));
    for (int i = 0; i < 8; ++i) a[11 - i] = std::uint8_t(mid >> (8 * i));
    return a;
}

/* IPv6 ranges clustered in eight /32s, /48 to /64 wide. */
Shape ipv6(std::size_t n)
{
    Shape s{"IPv6 ranges " + std::to_string(n) + " in eight /32s", Kind::Ipv6, {}, {}, {}, {}, {}, {}, {}};
    Rng r(n + 6);
    const std::uint32_t tops[] = {0x20010470, 0x20010db8, 0x24001000, 0x2a001450, 0x2a0104f8, 0x2a02c200, 0x2a09bac1, 0x2c0f0001};
    for (std::uint32_t t : tops) {
        std::uint64_t at = r.below(1000) << 16;
        for (std::size_t i = 0; i < n / 8; ++i) {
            const std::uint64_t w = std::uint64_t(1) << r.below(17);
            tazw::IPv6 lo = v6_at(t, at), hi = v6_at(t, at + w - 1);
            for (int b = 12; b < 16; ++b) hi[b] = 0xFF;
            s.v6.push_back({lo, hi});
            at += w + r.below(4) * w;
        }
    }
    for (std::size_t i = 0; i < kQueries; ++i) {
        tazw::IPv6 k{};
        if (i % 2) {
            k = v6_at(tops[r.below(8)], r.g() >> r.below(40));
            if (r.below(4) == 0)
                for (auto &b : k) b = std::uint8_t(r.g());
        } else {
            k = s.v6[r.below(s.v6.size())].first;
            k[15] = std::uint8_t(r.g());
        }
        s.v6_keys.push_back(k);
    }
    return s;
}

// ---- real data --------------------------------------------------------------------------

std::vector<std::string> lines_of(const char *path)
{
    std::vector<std::string> v;
    std::ifstream f(path);
    for (std::string l; std::getline(f, l);) v.push_back(l);
    return v;
}

bool public_suffixes(Shape &s, Kind kind)
{
    s = Shape{kind == Kind::Suffix ? "public suffix list" : "public suffix list, map", kind, {}, {}, {}, {}, {}, {}, {}};
    for (std::string l : lines_of("/usr/share/publicsuffix/public_suffix_list.dat")) {
        if (l.empty() || l.rfind("//", 0) == 0) continue;
        if (l[0] == '!') l = l.substr(1);
        if (l.rfind("*.", 0) == 0) l = l.substr(2);
        s.texts.push_back("." + l);
    }
    if (s.texts.empty()) return false;
    sorted_unique(s.texts, tazw::Order::FoldReversed, s.texts.size());
    Rng r(7);
    text_queries(s, r, [&] { return r.host(); });
    return true;
}

bool dictionary(Shape &s, Kind kind)
{
    s = Shape{kind == Kind::Exact ? "dictionary words" : "dictionary words as prefixes", kind, {}, {}, {}, {}, {}, {}, {}};
    s.texts = lines_of("/usr/share/dict/american-english");
    if (s.texts.empty()) return false;
    sorted_unique(s.texts, tazw::Order::Fold, s.texts.size());
    Rng r(8);
    text_queries(s, r, [&] { return r.label(2, 12); });
    return true;
}

bool geoip(Shape &s)
{
    s = Shape{"tor geoip IPv4", Kind::Ipv4, {}, {}, {}, {}, {}, {}, {}};
    for (const std::string &l : lines_of("/usr/share/tor/geoip")) {
        unsigned long lo = 0, hi = 0;
        if (l.empty() || l[0] == '#' || std::sscanf(l.c_str(), "%lu,%lu", &lo, &hi) != 2) continue;
        s.v4.push_back({std::uint32_t(lo), std::uint32_t(hi)});
    }
    if (s.v4.empty()) return false;
    Rng r(9);
    for (std::size_t i = 0; i < kQueries; ++i)
        s.ip_keys.push_back(i % 2 ? std::uint32_t(r.g()) : s.v4[r.below(s.v4.size())].first + std::uint32_t(r.below(9)));
    return true;
}

bool geoip6(Shape &s)
{
    s = Shape{"tor geoip6 IPv6", Kind::Ipv6, {}, {}, {}, {}, {}, {}, {}};
    for (const std::string &l : lines_of("/usr/share/tor/geoip6")) {
        if (l.empty() || l[0] == '#') continue;
        const std::size_t c1 = l.find(','), c2 = l.find(',', c1 + 1);
        tazw::IPv6 lo{}, hi{};
        if (c1 == std::string::npos || c2 == std::string::npos || inet_pton(AF_INET6, l.substr(0, c1).c_str(), lo.data()) != 1 ||
            inet_pton(AF_INET6, l.substr(c1 + 1, c2 - c1 - 1).c_str(), hi.data()) != 1)
            continue;
        s.v6.push_back({lo, hi});
    }
    if (s.v6.empty()) return false;
    Rng r(10);
    for (std::size_t i = 0; i < kQueries; ++i) {
        tazw::IPv6 k = s.v6[r.below(s.v6.size())].first;
        if (i % 2)
            for (int b = 2 + int(r.below(12)); b < 16; ++b) k[std::size_t(b)] = std::uint8_t(r.g());
        else
            k[15] = std::uint8_t(r.below(16));
        s.v6_keys.push_back(k);
    }
    return true;
}

// ---- files, loading, answers ------------------------------------------------------------------

std::uint32_t section_of(Kind k)
{
    switch (k) {
    case Kind::Exact: return magic4("STR");
    case Kind::Prefix: return magic4("PRE");
    case Kind::Suffix: return magic4("SUF");
    case Kind::ExactMap: return magic4("SIM");
    case Kind::SuffixMap: return magic4("XIM");
    case Kind::Substr: return magic4("SUB");
    case Kind::Ipv4: return magic4("IP");
    case Kind::Ipv6: return magic4("IPV6");
    case Kind::Port: return magic4("PORT");
    }
    return 0;
}

Bytes payload_of(const Shape &s)
{
    Bytes body;
    const auto n = std::uint32_t(s.entries());
    if (s.kind == Kind::ExactMap || s.kind == Kind::SuffixMap) {
        std::vector<tazw::StrIntEntry> m;
        for (std::size_t i = 0; i < s.texts.size(); ++i) m.push_back({s.texts[i], {std::uint32_t(i)}});
        body = tazw::map_entries(m);
    } else if (s.kind == Kind::Ipv4) {
        body = tazw::ip_entries(s.v4);
    } else if (s.kind == Kind::Ipv6) {
        body = tazw::ipv6_entries(s.v6);
    } else if (s.kind == Kind::Port) {
        body = tazw::port_entries(s.ports);
    } else {
        body = tazw::string_entries(s.texts);
    }
    return tazw::section(section_of(s.kind), 1, tazw::list(0, n, body));
}

std::string write_file(const Shape &s)
{
    tazw::Container c;
    c.ptnVer = 0x1230004D;
    tazw::SubPattern sp;
    sp.payload = payload_of(s);
    c.subs.push_back(sp);
    const char *tmp = std::getenv("TMPDIR");
    const std::string path = std::string(tmp ? tmp : "/tmp") + "/taze-shape-" + std::to_string(getpid()) + ".ptn";
    if (!tazw::write_file(path, tazw::build_container(c))) std::abort();
    return path;
}

std::size_t file_size(const std::string &path)
{
    std::ifstream f(path, std::ios::binary | std::ios::ate);
    return std::size_t(f.tellg());
}

const unsigned char *ub(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.c_str()); }

/* The answer of query i through the API (fast) or the plain search. */
int answer(const Shape &s, TAZE *h, std::size_t i, bool fast)
{
    const taz_pattern_st *p = h->pTAZPattern->taz_ptn;
    const char *k = s.keys.empty() ? nullptr : s.keys[i].c_str();
    switch (s.kind) {
    case Kind::Exact: return fast ? TAZE_PatternSearchStringList(h, 0, k, PT_TAZ) : str_list_search(ub(s.keys[i]), &p->string_lists[0]);
    case Kind::Prefix:
        return fast ? TAZE_PatternSearchPrefixList(h, 0, k, PT_TAZ) : str_prefix_list_search(ub(s.keys[i]), &p->string_prefix_lists[0]);
    case Kind::Suffix:
        return fast ? TAZE_PatternSearchSuffixList(h, 0, k, PT_TAZ) : str_suffix_list_search(ub(s.keys[i]), &p->string_suffix_lists[0]);
    case Kind::ExactMap:
        return fast ? TAZE_PatternSearchSIMap(h, PT_TAZ, MT_STRING, 0, k, 7)
                    : simap_list_search(ub(s.keys[i]), 7, &p->str_int_map_lists[0], MT_STRING);
    case Kind::SuffixMap:
        return fast ? TAZE_PatternSearchSIMap(h, PT_TAZ, MT_SUFFIX, 0, k, 7)
                    : simap_list_search(ub(s.keys[i]), 7, &p->suffix_int_map_lists[0], MT_SUFFIX);
    case Kind::Substr:
        return fast ? TAZE_PatternSearchSubstringList(h, 0, k, PT_TAZ)
                    : str_substring_list_search(ub(s.keys[i]), &p->string_substring_lists[0]);
    case Kind::Ipv4:
        return fast ? TAZE_PatternSearchIPRangeList(h, 0, s.ip_keys[i], PT_TAZ) : ip_rng_list_search(s.ip_keys[i], &p->ip_range_lists[0]);
    case Kind::Ipv6:
        return fast ? TAZE_PatternSearchIPv6RangeList(h, 0, s.v6_keys[i].data(), PT_TAZ)
                    : ipv6_rng_list_search(s.v6_keys[i].data(), &p->ipv6_range_lists[0]);
    case Kind::Port:
        return fast ? TAZE_PatternSearchPortRangeList(h, 0, std::uint16_t(s.ip_keys[i]), PT_TAZ)
                    : port_rng_list_search(std::uint16_t(s.ip_keys[i]), &p->port_range_lists[0]);
    }
    return 0;
}

std::size_t queries(const Shape &s) { return s.keys.size() + s.ip_keys.size() + s.v6_keys.size(); }

/* Best over 16 x rounds short rounds of the mean ns per call of each fn(i), i over the
 * queries; the ways are timed in turn within each round, so that a busy
 * spell of the shared machine hits them alike. */
std::vector<double> time_ns(std::size_t nq, const std::vector<std::function<int(std::size_t)>> &fns,
                            const std::vector<std::size_t> &calls)
{
    std::vector<double> best(fns.size(), 1e30);
    long sink = 0;
    for (int r = 0; r < 16 * g_rounds; ++r)
        for (std::size_t f = 0; f < fns.size(); ++f) {
            const auto t0 = Clock::now();
            for (std::size_t c = 0; c < calls[f]; ++c) sink += fns[f](c % nq);
            best[f] = std::min(best[f], std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / double(calls[f]));
        }
    if (sink == -1) std::puts("");
    return best;
}

/* Peak memory of a load, from bench_load_peak beside this program. */
long long peak_bytes(const std::string &path)
{
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return -1;
    std::string tool = self;
    tool = tool.substr(0, tool.rfind('/') + 1) + "bench_load_peak";
    FILE *p = popen(("'" + tool + "' '" + path + "'").c_str(), "r");
    long long bytes = -1;
    if (p && std::fscanf(p, "%lld", &bytes) != 1) bytes = -1;
    if (p) pclose(p);
    return bytes;
}

void run(const Shape &s)
{
    const std::string path = write_file(s);
    const std::size_t fsize = file_size(path);
    TAZE *h = nullptr;
    double load_ms = 1e30;
    for (int r = 0; r < std::max(1, g_rounds / 2); ++r) {
        if (h) TAZE_Fini(h);
        TAZE_Init(&h);
        const auto t0 = Clock::now();
        if (TAZE_LoadPattern(h, path.c_str()) != 0) std::abort();
        load_ms = std::min(load_ms, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    taz_pattern_st *img = h->pTAZPattern->taz_ptn;
    double index_ms = 1e30;
    for (int r = 0; r < std::max(1, g_rounds / 2); ++r) {
        taz_fast_release(img);
        const auto t0 = Clock::now();
        taz_fast_build(img);
        index_ms = std::min(index_ms, std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    const long long peak = peak_bytes(path);
    const std::size_t nq = queries(s);
    std::size_t hits = 0;
    for (std::size_t i = 0; i < nq; ++i) {
        const int f = answer(s, h, i, true), p = answer(s, h, i, false);
        if (f != p) {
            std::fprintf(stderr, "%s: query %zu answers %d through the index, %d plainly\n", s.name.c_str(), i, f, p);
            std::abort();
        }
        hits += f == 1 ? 1 : 0;
    }
    std::vector<std::function<int(std::size_t)>> ways = {[&](std::size_t i) { return answer(s, h, i, true); },
                                                         [&](std::size_t i) { return answer(s, h, i, false); }};
    /* Short rounds, many of them: the best one is the least disturbed. */
    const std::size_t many = nq;
    std::vector<std::size_t> calls = {many, s.kind == Kind::Substr ? nq / 64 : many};
    std::string base = "-";
    std::unordered_set<std::string> set;
    std::string buf;
    if (s.kind == Kind::Exact) {
        auto lower = [](std::string t) {
            for (char &c : t) c = char(std::tolower(static_cast<unsigned char>(c)));
            return t;
        };
        for (const std::string &t : s.texts) set.insert(lower(t));
        base = "unordered_set";
        ways.push_back([&](std::size_t i) {
            buf.assign(s.keys[i]);
            for (char &c : buf) c = char(std::tolower(static_cast<unsigned char>(c)));
            return int(set.count(buf));
        });
        calls.push_back(many);
    }
#if TAZE_BENCH_HYPERSCAN
    hs_database_t *db = nullptr;
    hs_scratch_t *scratch = nullptr;
    if (s.kind == Kind::Substr) {
        std::vector<const char *> exprs;
        std::vector<unsigned> flags, ids;
        std::vector<std::size_t> lens;
        for (std::size_t i = 0; i < s.texts.size(); ++i) {
            exprs.push_back(s.texts[i].c_str());
            lens.push_back(s.texts[i].size());
            flags.push_back(HS_FLAG_CASELESS | HS_FLAG_SINGLEMATCH);
            ids.push_back(unsigned(i));
        }
        hs_compile_error_t *err = nullptr;
        if (hs_compile_lit_multi(exprs.data(), flags.data(), ids.data(), lens.data(), unsigned(exprs.size()), HS_MODE_BLOCK,
                                 nullptr, &db, &err) == HS_SUCCESS &&
            hs_alloc_scratch(db, &scratch) == HS_SUCCESS) {
            base = "hyperscan";
            ways.push_back([&](std::size_t i) {
                int found = 0;
                auto on_match = [](unsigned, unsigned long long, unsigned long long, unsigned, void *ctx) {
                    *static_cast<int *>(ctx) = 1;
                    return 1;
                };
                hs_scan(db, s.keys[i].data(), unsigned(s.keys[i].size()), 0, scratch, on_match, &found);
                return found;
            });
            calls.push_back(many);
        } else {
            hs_free_compile_error(err);
        }
    }
#endif
    const std::vector<double> ns = time_ns(nq, ways, calls);
    const double fast = ns[0], plain = ns[1], base_ns = ns.size() > 2 ? ns[2] : 0;
#if TAZE_BENCH_HYPERSCAN
    hs_free_scratch(scratch);
    hs_free_database(db);
#endif
    std::string threads = "-";
    if (s.kind == Kind::Exact && s.entries() >= 100000) {
        const std::size_t calls = 2000000;
        auto lookups = [&](std::size_t from) {
            long sink = 0;
            for (std::size_t c = 0; c < calls; ++c) sink += answer(s, h, (from + c) % nq, true);
            return sink;
        };
        double one = 1e30, two = 1e30;
        for (int r = 0; r < g_rounds; ++r) {
            auto t0 = Clock::now();
            lookups(0);
            one = std::min(one, std::chrono::duration<double>(Clock::now() - t0).count());
            t0 = Clock::now();
            std::thread other([&] { lookups(997); });
            lookups(0);
            other.join();
            two = std::min(two, std::chrono::duration<double>(Clock::now() - t0).count());
        }
        char b[32];
        std::snprintf(b, sizeof b, "%.2fx", 2 * one / two);
        threads = b;
    }
    const taz_pattern_st *pi = h->pTAZPattern->taz_ptn;
    const void *list = nullptr;
    switch (s.kind) {
    case Kind::Exact: list = pi->string_lists; break;
    case Kind::Prefix: list = pi->string_prefix_lists; break;
    case Kind::Suffix: list = pi->string_suffix_lists; break;
    case Kind::ExactMap: list = pi->str_int_map_lists; break;
    case Kind::SuffixMap: list = pi->suffix_int_map_lists; break;
    case Kind::Substr: list = pi->string_substring_lists; break;
    case Kind::Ipv4: list = pi->ip_range_lists; break;
    case Kind::Ipv6: list = pi->ipv6_range_lists; break;
    case Kind::Port: list = pi->port_range_lists; break;
    }
    const taze::fast::Accel *a = taze::fast::find(pi, list);
    static const char *shapes[] = {"hash", "buckets", "heads", "tree", "substr"};
    const char *index = a ? shapes[int(taze::fast::shape(a))] : "none";
    char row[512];
    std::snprintf(row, sizeof row, "| %s | %s | %zu | %s | %.0f | %.0f | %.2fx | %s | %s | %s | %.2f | %.1f | %.1f | %.2fx | %s | %zu/%zu |\n",
                  s.name.c_str(), kind_name(s.kind), s.entries(), index, fast, plain, plain / fast, base.c_str(),
                  base == "-" ? "-" : std::to_string(long(base_ns + 0.5)).c_str(),
                  base == "-" ? "-" : (std::to_string(base_ns / fast).substr(0, 5) + "x").c_str(), double(fsize) / 1048576.0,
                  load_ms, index_ms, peak < 0 ? -1.0 : double(peak) / double(fsize), threads.c_str(), hits, nq);
    std::fputs(row, stdout);
    std::fflush(stdout);
    TAZE_Fini(h);
    std::remove(path.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    bool quick = false;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) quick = true;
        else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) g_rounds = std::max(1, std::atoi(argv[++i]));
        else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) only = argv[++i];
    }
    std::printf("| shape | kind | entries | index | fast ns | plain ns | plain/fast | baseline | baseline ns | baseline/fast "
                "| file MiB | load ms | index build ms | peak load / file | 2 threads / 1 | hits/queries |\n"
                "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
    /* Each maker with the label --only matches (name and kind), so that
     * shapes left out are not generated either. */
    std::vector<std::pair<std::string, std::function<bool(Shape &)>>> makers;
    const std::vector<std::size_t> sizes = quick ? std::vector<std::size_t>{1000, 100000} : std::vector<std::size_t>{1000, 100000, 1000000};
    for (std::size_t n : sizes) {
        const std::string ns = " " + std::to_string(n);
        makers.push_back({"host names" + ns + " exact", [n](Shape &s) { s = exact_hosts(n, Kind::Exact); return true; }});
        makers.push_back({"host names, map" + ns + " map exact", [n](Shape &s) { s = exact_hosts(n, Kind::ExactMap); return true; }});
        makers.push_back({"URL paths" + ns + " prefix", [n](Shape &s) { s = url_paths(n); return true; }});
        makers.push_back({"domains" + ns + " suffix", [n](Shape &s) { s = domains(n); return true; }});
        makers.push_back({"IPv4 ranges" + ns + ", widths 1 to 2^16 ipv4", [n](Shape &s) { s = ipv4(n); return true; }});
        makers.push_back({"IPv6 ranges" + ns + " in eight /32s ipv6", [n](Shape &s) { s = ipv6(n); return true; }});
    }
    for (std::size_t n : {1000, 20000})
        makers.push_back({"port ranges " + std::to_string(n) + " port", [n](Shape &s) { s = ports(n); return true; }});
    makers.push_back({"literals 10000, 200-byte inputs substring", [](Shape &s) { s = literals(10000); return true; }});
    makers.push_back({"public suffix list suffix", [](Shape &s) { return public_suffixes(s, Kind::Suffix); }});
    makers.push_back({"public suffix list, map map suffix", [](Shape &s) { return public_suffixes(s, Kind::SuffixMap); }});
    makers.push_back({"dictionary words exact", [](Shape &s) { return dictionary(s, Kind::Exact); }});
    makers.push_back({"dictionary words as prefixes prefix", [](Shape &s) { return dictionary(s, Kind::Prefix); }});
    makers.push_back({"tor geoip IPv4 ipv4", [](Shape &s) { return geoip(s); }});
    makers.push_back({"tor geoip6 IPv6 ipv6", [](Shape &s) { return geoip6(s); }});
    for (auto &[label, make] : makers) {
        if (!only.empty() && label.find(only) == std::string::npos) continue;
        Shape s;
        if (!make(s)) continue;
        run(s);
    }
    return 0;
}
