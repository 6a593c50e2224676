/* bench_keys: the C++ side of the Python benchmark (python/bench.py).
 *
 *   bench_keys write OUT.ptn WORDS SUFFIXES   exact list 0 of the words (the
 *                                            first of each case-insensitive
 *                                            twin), suffix list 0 of the suffixes
 *   bench_keys time PTN exact|suffix KEYS    nanoseconds per key of the same
 *                                            search through taze.hpp, best of 5
 *                                            passes over the keys */
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <strings.h>

#include "taze.hpp"
#include "tazewriter.h"
#include "tazewriter_info.h"

namespace {

std::vector<std::string> lines_of(const char *path)
{
    std::ifstream in(path);
    std::vector<std::string> v;
    for (std::string s; std::getline(in, s);) {
        if (!s.empty() && s.find('\0') == std::string::npos) v.push_back(s);
    }
    return v;
}

struct fold_less {
    bool operator()(const std::string &a, const std::string &b) const { return strcasecmp(a.c_str(), b.c_str()) < 0; }
};

int write(const char *out, const char *words_file, const char *suffix_file)
{
    const auto w = lines_of(words_file), s = lines_of(suffix_file);
    const std::set<std::string, fold_less> words_once(w.begin(), w.end());
    const std::set<std::string> suffixes_once(s.begin(), s.end());
    std::vector<std::string> words(words_once.begin(), words_once.end());
    std::vector<std::string> suffixes(suffixes_once.begin(), suffixes_once.end());
    tazw::sort_in(tazw::Order::Fold, words);
    tazw::sort_in(tazw::Order::FoldReversed, suffixes);
    const auto section = [](std::uint32_t kind, const std::vector<std::string> &v) {
        return tazw::section(kind, 1, tazw::list(0, std::uint32_t(v.size()), tazw::string_entries(v)));
    };
    tazw::Container c;
    c.ptnVer = 0x10100001;
    tazw::SubPattern sub;
    sub.payload = tazw::concat({section(tazw::magic4("STR"), words), section(tazw::magic4("SUF"), suffixes)});
    c.subs.push_back(sub);
    return tazw::write_file(out, tazw::build_container(c)) ? 0 : 1;
}

int time_keys(const char *ptn, const std::string &kind, const char *keys_file)
{
    taze::handle h;
    h.load(ptn);
    const auto keys = lines_of(keys_file);
    const taze::list_kind list = kind == "suffix" ? taze::list_kind::suffix : taze::list_kind::exact;
    double best = 1e300;
    std::size_t hits = 0;
    for (int pass = 0; pass < 5; ++pass) {
        hits = 0;
        const auto t0 = std::chrono::steady_clock::now();
        for (const std::string &k : keys) hits += h.search(list, 0, k).value_or(false);
        const std::chrono::duration<double, std::nano> d = std::chrono::steady_clock::now() - t0;
        best = std::min(best, d.count() / double(keys.size()));
    }
    std::printf("%.1f %zu\n", best, hits);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string cmd = argc > 1 ? argv[1] : "";
    if (cmd == "write" && argc == 5) return write(argv[2], argv[3], argv[4]);
    if (cmd == "time" && argc == 5) return time_keys(argv[2], argv[3], argv[4]);
    std::fprintf(stderr, "usage: bench_keys write OUT.ptn WORDS SUFFIXES | time PTN exact|suffix KEYS\n");
    return 2;
}
