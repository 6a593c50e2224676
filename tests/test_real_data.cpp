/* The real-data example (examples/real-data): a pattern built from the lists
 * Debian ships, checked against a plain reference read from the same files:
 * every public suffix rule R matches "x" + R, every covered rule and key is
 * reported, every dictionary word matches in upper case, and addresses agree
 * with a scan of one country's ranges. */
#include <arpa/inet.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "examine_commands.h"
#include "source_model.h"
#include "test_support.h"

namespace {

const char *const kSuffixes = "/usr/share/publicsuffix/public_suffix_list.dat";
const char *const kWords = "/usr/share/dict/words";
const char *const kGeo4 = "/usr/share/tor/geoip";
const char *const kGeo6 = "/usr/share/tor/geoip6";

std::string example_path()
{
    const std::string here = __FILE__;
    return here.substr(0, here.rfind("/tests/")) + "/examples/real-data/pattern.json";
}

std::string trim(const std::string &s)
{
    const std::size_t b = s.find_first_not_of(" \t\r");
    return b == std::string::npos ? "" : s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

/* Lines of a file without blank lines and comments. */
std::vector<std::string> lines(const char *path, const std::string &comment)
{
    std::vector<std::string> out;
    std::ifstream in(path);
    for (std::string l; std::getline(in, l);) {
        l = trim(l);
        if (!l.empty() && l.compare(0, comment.size(), comment) != 0) out.push_back(l);
    }
    return out;
}

std::string fold(std::string s)
{
    for (char &c : s)
        if (c >= 'A' && c <= 'Z') c = char(c + 0x20);
    return s;
}

std::string upper(std::string s)
{
    for (char &c : s)
        if (c >= 'a' && c <= 'z') c = char(c - 0x20);
    return s;
}

/* Rules that a shorter (or equal, earlier) rule covers, ignoring case. */
std::size_t covered_count(const std::vector<std::string> &rules)
{
    std::set<std::string> all, seen;
    for (const std::string &r : rules) all.insert(fold(r));
    std::size_t n = 0;
    for (const std::string &r : rules) {
        const std::string f = fold(r);
        bool covered = !seen.insert(f).second;
        for (std::size_t i = 1; i < f.size() && !covered; ++i) covered = all.count(f.substr(i)) > 0;
        n += covered;
    }
    return n;
}

/* The "low,high,DE" rows of a geoip file, as parsed bounds. */
template <typename T, typename Parse>
std::vector<std::pair<T, T>> country_ranges(const char *path, Parse parse)
{
    std::vector<std::pair<T, T>> out;
    for (const std::string &l : lines(path, "#")) {
        const std::size_t a = l.find(','), b = l.find(',', a + 1);
        if (l.substr(b + 1) == "DE") out.push_back({parse(l.substr(0, a)), parse(l.substr(a + 1, b - a - 1))});
    }
    return out;
}

using V6 = std::array<unsigned char, 16>;
V6 v6(const std::string &t)
{
    V6 a{};
    EXPECT_EQ(inet_pton(AF_INET6, t.c_str(), a.data()), 1) << t;
    return a;
}

std::size_t number_in(const std::string &line, const std::string &before)
{
    const std::size_t at = line.find(before);
    return at == std::string::npos ? 0 : std::stoul(line.substr(at + before.size()));
}

TEST(RealData, AnswersAgreeWithAPlainReference)
{
    const std::vector<std::string> rules = lines(kSuffixes, "//"), words = lines(kWords, "#");
    if (rules.empty() || words.empty() || lines(kGeo4, "#").empty()) GTEST_SKIP() << "the Debian lists are missing";
    tazc::ParseOptions o;
    o.dedupe = true;
    o.allow_covered_keys = true;
    std::vector<std::string> notes;
    const tazc::Source model = tazc::load_source_file(example_path(), o, &notes);
    const std::string path = tazt::write_temp(tazw::build_container(tazc::make_container(model, true)), "real.ptn");
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), 0);
    TAZE *p = h.get();

    /* Suffix rules: every rule answers for "x" + rule, covered ones through
     * the rule that covers them; the note and verify count them all. */
    std::size_t missed = 0;
    for (const std::string &r : rules) missed += TAZE_PatternSearchSuffixList(p, 0, ("x" + r).c_str(), PT_TAZ) != 1;
    EXPECT_EQ(missed, 0u);
    const std::size_t covered = covered_count(rules);
    ASSERT_GT(covered, 1000u);
    std::string all_notes;
    for (const std::string &n : notes) all_notes += n + "\n";
    EXPECT_EQ(number_in(all_notes, "note: lists.suffix.0: left out "), covered) << all_notes;
    std::ostringstream out, err;
    EXPECT_EQ(tazi::run_taze({"verify", path}, out, err), 0) << out.str();
    EXPECT_EQ(number_in(out.str(), "warning: main maps.suffix_to_int.0: "), covered) << out.str().substr(0, 2000);
    EXPECT_EQ(out.str().find("warning: main lists.suffix.0"), std::string::npos);

    /* Dictionary words, upper-cased; duplicates in case were dropped. */
    missed = 0;
    for (const std::string &w : words) missed += TAZE_PatternSearchStringList(p, 0, upper(w).c_str(), PT_TAZ) != 1;
    EXPECT_EQ(missed, 0u);
    std::set<std::string> distinct;
    for (const std::string &w : words) distinct.insert(fold(w));
    EXPECT_EQ(number_in(all_notes, "note: lists.exact.0: dropped "), words.size() - distinct.size());

    /* Addresses: both ends and the neighbours of ranges, and random ones,
     * against a scan of the ranges. */
    const auto v4 = country_ranges<std::uint32_t>(kGeo4, [](const std::string &t) { return std::uint32_t(std::stoul(t)); });
    const auto r6 = country_ranges<V6>(kGeo6, v6);
    ASSERT_GT(v4.size(), 100u);
    ASSERT_GT(r6.size(), 100u);
    std::mt19937 rng(5);
    std::vector<std::uint32_t> probes4;
    for (int i = 0; i < 3000; ++i) {
        const auto &r = v4[rng() % v4.size()];
        probes4.insert(probes4.end(), {r.first, r.second, r.first - 1, r.second + 1, std::uint32_t(rng())});
    }
    std::size_t disagree = 0;
    for (std::uint32_t ip : probes4) {
        const bool in = std::any_of(v4.begin(), v4.end(), [ip](const auto &r) { return r.first <= ip && ip <= r.second; });
        disagree += TAZE_PatternSearchIPRangeList(p, 0, ip, PT_TAZ) != int(in);
    }
    EXPECT_EQ(disagree, 0u);
    disagree = 0;
    for (int i = 0; i < 3000; ++i) {
        const auto &r = r6[rng() % r6.size()];
        V6 mid = r.first;
        mid[15] = std::uint8_t(mid[15] + rng() % 4);
        V6 rnd{};
        for (auto &b : rnd) b = std::uint8_t(rng());
        rnd[0] = 0x2a;
        for (const V6 &a : {r.first, r.second, mid, rnd}) {
            const bool in = std::any_of(r6.begin(), r6.end(), [&a](const auto &x) { return x.first <= a && a <= x.second; });
            disagree += TAZE_PatternSearchIPv6RangeList(p, 0, a.data(), PT_TAZ) != int(in);
        }
    }
    EXPECT_EQ(disagree, 0u);
}

} // namespace
