/* Many threads query one handle at once while another thread reloads it.
 *
 * The pattern directory holds two versions of one pattern (every section
 * kind of both pattern kinds, and a raw sub-pattern); the writer publishes
 * and withdraws the newer file by rename and reloads. Readers run a table
 * of queries that covers every kind of query of the C interface and
 * compare each answer with the one it gave before the threads started;
 * both versions answer alike, except for their version text.
 *
 * Two hosts are modelled: a C host that serialises TAZE_ReloadPatternDir
 * against its queries with a read-write lock, and a C++ host that uses
 * taze::reloading_handle, whose readers take no lock at all. Separate
 * handles also load and query on several threads at once. Iterations are
 * bounded; the ThreadSanitizer build (scripts/hardening.sh) checks that
 * nothing races. */
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "../fuzz/samples.h"
#include "api_fixtures.h"
#include "taze.hpp"

namespace {

using namespace apif;

constexpr int kReaders = 4;
constexpr int kRounds = 30;  /* query table passes per reader, at least */
constexpr int kMaxRounds = 5000; /* and at most, whatever the writer does */
constexpr int kReloads = 12; /* reloads by the writer */
constexpr std::uint32_t kOlder = 0x1230004Du, kNewer = 0x1230004Eu;
const char kPrefix[] = "p";

/* ---- the query table ------------------------------------------------------------ */

const unsigned char kV6Hit[16] = {0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
const unsigned char kV6Miss[16] = {0x30};
const tazw::IPv6 kV6KeyA = tazf::v6(0x20, 1), kV6KeyB = tazf::v6(0xFE, 2); /* keys of the IPv6 maps */

/* Every kind of query, with keys that hit and keys that miss. */
std::vector<Query> query_table()
{
    std::vector<Query> t;
    for (unsigned k : {0u, 1u}) {
        const std::string kind = k ? " (second)" : "";
        for (unsigned i : {0u, 2u, 9u}) {
            const std::string at = " " + std::to_string(i) + kind;
            t.push_back(query<Text>("rule index desc" + at, TAZE_GetRuleIndexDescEx, k, i));
            t.push_back(query<Text>("rule index risk" + at, TAZE_GetRuleIndexRiskEx, k, i));
            t.push_back(query<Number>("rule index group" + at, TAZE_GetRuleIndexRiskGroupEx, k, i));
            t.push_back(query<Number>("rule index cl" + at, TAZE_GetRuleIndexCLEx, k, i));
            t.push_back(query<Number>("rule index enable" + at, TAZE_GetRuleIndexEnableEx, k, i));
            t.push_back(query<Number>("rule index id" + at, TAZE_GetRuleIndexRuleIDEx, k, i));
        }
        for (unsigned id : {7u, 42u, 5u}) {
            const std::string at = " " + std::to_string(id) + kind;
            t.push_back(query<Text>("rule id risk" + at, TAZE_GetRuleIdRiskEx, k, id));
            t.push_back(query<Number>("rule id group" + at, TAZE_GetRuleIdRiskGroupEx, k, id));
            t.push_back(query<Number>("rule id cl" + at, TAZE_GetRuleIdCLEx, k, id));
            t.push_back(query<Number>("rule clean check" + at, TAZE_CheckRuleIdCleanEx, k, id, 6u, 2u));
            t.push_back(query<Clean>("rule clean" + at, TAZE_GetRuleIdCleanEx, k, id));
            t.push_back(query<Risk>("potential risk" + at, TAZE_GetPotentialRiskInfoEx, k, id, 2u, 6u));
            t.push_back(query<Number>("threat type" + at, TAZE_GetThreatTypeEx, k, id));
        }
        t.push_back(query<Number>("rule count" + kind, TAZE_GetRuleInfoCountEx, k));
        t.push_back(query<Number>("clean info check" + kind, TAZE_CheckCleanInfoEx, k, 1u, 2u));
        t.push_back(query<Clean>("clean info" + kind, TAZE_GetCleanInfoEx, k, 17u));
        t.push_back(query<Risk>("known risk" + kind, TAZE_GetKnownRiskInfoEx, k, 1u, 17u));
        t.push_back(query<Number>("protocol group of id" + kind, TAZE_GetProtocolIdGroupIDEx, k, 17u));
    }
    t.push_back(query<Text>("rule id desc", TAZE_GetRuleIdDesc, 42u));
    t.push_back(query<Text>("rule index desc", TAZE_GetRuleIndexDesc, 1u));
    t.push_back(query<Number>("rule count", TAZE_GetRuleInfoCount));
    for (unsigned i : {0u, 1u, 7u}) {
        const std::string at = " " + std::to_string(i);
        t.push_back(query<Number>("protocol index id" + at, TAZE_GetProtocolIndexID, i));
        t.push_back(query<Text>("protocol index desc" + at, TAZE_GetProtocolIndexDesc, i));
        t.push_back(query<Number>("protocol index group" + at, TAZE_GetProtocolIndexGroupID, i));
        t.push_back(query<Number>("group index id" + at, TAZE_GetProtocolGroupIndexID, i));
        t.push_back(query<Text>("group index desc" + at, TAZE_GetProtocolGroupIndexDesc, i));
        t.push_back(query<Number>("group index members" + at, TAZE_GetProtocolGroupIndexProtocolCount, i));
        t.push_back(query<Number>("group index member 1" + at, TAZE_GetProtocolGroupIndexProtocolIndex, i, 1u));
    }
    for (unsigned id : {6u, 100u, 200u}) {
        const std::string at = " " + std::to_string(id);
        t.push_back(query<Text>("protocol id desc" + at, TAZE_GetProtocolIdDesc, id));
        t.push_back(query<Number>("protocol id group" + at, TAZE_GetProtocolIdGroupID, id));
        t.push_back(query<Text>("group id desc" + at, TAZE_GetProtocolGroupIdDesc, id));
        t.push_back(query<Number>("group id members" + at, TAZE_GetProtocolGroupIdProtocolCount, id));
        t.push_back(query<Number>("group id member 0" + at, TAZE_GetProtocolGroupIdProtocolIndexId, id, 0u));
    }
    t.push_back(query<Number>("protocol count", TAZE_GetProtocolCount));
    t.push_back(query<Number>("group count", TAZE_GetProtocolGroupCount));
    t.push_back(query<Number>("threat type", TAZE_GetThreatType, 42u));
    t.push_back(query<Risk>("known risk", TAZE_GetKnownRiskInfo, 3u, 100u));
    t.push_back(query<Risk>("potential risk", TAZE_GetPotentialRiskInfo, 42u, 2u, 6u));
    t.push_back(query<Number>("clean check", TAZE_CheckCleanInfo, 6u, 3u));
    t.push_back({"second kind name", [](TAZE *h) {
                     const char *info = nullptr;
                     const int rc = TAZE_GetUlmInfo(h, &info);
                     return std::to_string(rc) + " " + (info ? info : "<null>");
                 }});
    t.push_back({"raw pattern", [](TAZE *h) {
                     const unsigned char *data = nullptr;
                     unsigned len = 0;
                     const int rc = TAZE_GetRawPatternByType(h, RPT_YUB, &data, &len);
                     const std::string raw = data ? std::string(reinterpret_cast<const char *>(data), len) : "<none>";
                     return std::to_string(rc) + " " + raw;
                 }});
    t.push_back({"compiler version", [](TAZE *h) {
                     char buf[32] = {};
                     const int rc = TAZE_GetCompilerVersion(h, buf, sizeof buf);
                     return std::to_string(rc) + " " + buf;
                 }});

    using ListSearch = int (*)(TAZE *, int, const char *, int);
    const std::pair<const char *, ListSearch> lists[] = {
        {"exact", TAZE_PatternSearchStringList},          {"prefix", TAZE_PatternSearchPrefixList},
        {"suffix", TAZE_PatternSearchSuffixList},         {"substring", TAZE_PatternSearchSubstringList},
        {"case", TAZE_PatternSearchCaseList},             {"prefix case", TAZE_PatternSearchPrefixCaseList},
        {"suffix case", TAZE_PatternSearchSuffixCaseList}, {"substring case", TAZE_PatternSearchSubstringCaseList}};
    for (const auto &l : lists)
        for (int k : {0, 1})
            for (const char *key : {"example.com", "mail.example.org.evil", "www.test.net/x", "nothing"})
                t.push_back(plain(std::string(l.first) + " list " + key + (k ? " (second)" : ""), l.second, 2, key, k));
    t.push_back(plain("ip range", TAZE_PatternSearchIPRangeList, 0, 0x0A000102u, 0));
    t.push_back(plain("ip range miss", TAZE_PatternSearchIPRangeList, 2, 0x0B000000u, 0));
    t.push_back(plain("ipv6 range", TAZE_PatternSearchIPv6RangeList, 0, kV6Hit, 0));
    t.push_back(plain("ipv6 range miss", TAZE_PatternSearchIPv6RangeList, 0, kV6Miss, 1));
    t.push_back(plain("port range", TAZE_PatternSearchPortRangeList, 2, static_cast<unsigned short>(443), 0));
    t.push_back(plain("port range miss", TAZE_PatternSearchPortRangeList, 0, static_cast<unsigned short>(500), 1));

    for (int k : {0, 1})
        for (int mt : {MT_STRING, MT_PREFIX, MT_SUFFIX, MT_SUBSTR, MT_STRING_SUFFIX, MT_SUBSTR_PREFIX}) {
            const std::string at = " type " + std::to_string(mt) + (k ? " (second)" : "");
            t.push_back(plain("SI search" + at, TAZE_PatternSearchSIMap, k, mt, 2, "example.com", 7u));
            t.push_back(query<Record<TAZE_StringIntMap>>("SI by key" + at, TAZE_PatternGetSIMapByKey, k, mt, 0, "evil"));
            t.push_back(plain("SI count" + at, TAZE_PatternGetSIMapCount, k, mt, 2));
            t.push_back(query<Record<TAZE_StringIntMap>>("SI by index" + at, TAZE_PatternGetSIMapByIndex, k, mt, 2, 1));
            t.push_back(plain("SIPv6 search" + at, TAZE_PatternSearchSIPv6Map, k, mt, 0, "a", kV6Hit));
            t.push_back(query<Record<TAZE_StringIPv6Map>>("SIPv6 by key" + at, TAZE_PatternGetSIPv6MapByKey, k, mt, 2, "x86"));
            t.push_back(query<Record<TAZE_StringIPv6Map>>("SIPv6 by index" + at, TAZE_PatternGetSIPv6MapByIndex, k, mt, 0, 3));
            t.push_back(plain("IS search" + at, TAZE_PatternSearchISMap, k, mt, 0, 2u, "Value"));
            t.push_back(query<Record<TAZE_IntStringMap>>("IS by key" + at, TAZE_PatternGetISMapByKey, k, mt, 2, 40u));
            t.push_back(query<Record<TAZE_IntStringMap>>("IS by index" + at, TAZE_PatternGetISMapByIndex, k, mt, 0, 0));
            t.push_back(plain("SS search" + at, TAZE_PatternSearchSSMap, k, mt, 0, "zz-top", "abc"));
            t.push_back(query<Record<TAZE_StringStringMap>>("SS by key" + at, TAZE_PatternGetSSMapByKey, k, mt, 2, "a"));
            t.push_back(plain("SS count" + at, TAZE_PatternGetSSMapCount, k, mt, 0));
            t.push_back(query<Record<TAZE_StringStringMap>>("SS by index" + at, TAZE_PatternGetSSMapByIndex, k, mt, 2, 4));
            t.push_back(query<Record<TAZE_IntIntMap>>("II by key" + at, TAZE_PatternGetIIMapByKey, k, mt, 0, 1000u));
            t.push_back(query<Record<TAZE_IntIntMap>>("II by index" + at, TAZE_PatternGetIIMapByIndex, k, mt, 2, 0));
        }
    for (int k : {0, 1}) {
        const std::string at = k ? " (second)" : "";
        t.push_back(plain("II search" + at, TAZE_PatternSearchIIMap, k, 2, 1000u, 102u));
        t.push_back(plain("II count" + at, TAZE_PatternGetIIMapCount, k, MT_STRING, 0));
        t.push_back(plain("IPv6I search" + at, TAZE_PatternSearchIPv6IMap, k, 0, kV6KeyA.data(), 2u));
        t.push_back(query<Record<TAZE_IPv6IntMap>>("IPv6I by key" + at, TAZE_PatternGetIPv6IMapByKey, k, 2,
                                            kV6KeyB.data()));
        t.push_back(plain("IPv6I count" + at, TAZE_PatternGetIPv6IMapCount, k, 0));
        t.push_back(query<Record<TAZE_IPv6IntMap>>("IPv6I by index" + at, TAZE_PatternGetIPv6IMapByIndex, k, 2, 1));
    }
    return t;
}

/* ---- the pattern directory ---------------------------------------------------------- */

/* A directory with the older file in place and the newer one beside it
 * under a name the scan skips; publish() and withdraw() rename it. */
class PatternDir {
public:
    PatternDir() : dir_(tazt::temp_dir())
    {
        static const Bytes raw = {'r', 'a', 'w', '-', 'b', 'y', 't', 'e', 's'};
        const Bytes taz = tazf::full_payload(false), ulm = tazf::full_payload(true);
        EXPECT_TRUE(tazw::write_file(path(kOlder), tazf::container_of(taz, &ulm, &raw, true, 0, kOlder)));
        EXPECT_TRUE(tazw::write_file(hidden_, tazf::container_of(taz, &ulm, &raw, true, 0, kNewer)));
    }
    const std::string &dir() const { return dir_; }
    void publish() { EXPECT_EQ(std::rename(hidden_.c_str(), path(kNewer).c_str()), 0); }
    void withdraw() { EXPECT_EQ(std::rename(path(kNewer).c_str(), hidden_.c_str()), 0); }

private:
    std::string path(std::uint32_t ver) const { return dir_ + "/" + tazw::pattern_file_name(kPrefix, ver); }
    std::string dir_;
    std::string hidden_ = dir_ + "/newer.pending";
};

std::string version_of(TAZE *h)
{
    char buf[32] = {};
    return TAZE_GetPatternVersion(h, buf, sizeof buf) == 0 ? buf : "<none>";
}

/* The host's read-write lock. It prefers a waiting writer (readers hold
 * back while one waits), so that readers that query without a pause cannot
 * keep a reload out for good. */
class HostLock {
public:
    void lock_shared()
    {
        while (writers_.load() != 0) std::this_thread::yield();
        m_.lock_shared();
    }
    void unlock_shared() { m_.unlock_shared(); }
    void lock()
    {
        ++writers_;
        m_.lock();
    }
    void unlock()
    {
        m_.unlock();
        --writers_;
    }

private:
    std::shared_mutex m_;
    std::atomic<int> writers_{0};
};

/* What the readers found that they should not have. */
class Findings {
public:
    void note(const std::string &what)
    {
        const std::lock_guard<std::mutex> lock(m_);
        if (count_++ < 5) text_ += what + "\n";
    }
    int count() const { return count_; }
    const std::string &text() const { return text_; }

private:
    std::mutex m_;
    std::atomic<int> count_{0};
    std::string text_;
};

/* One pass over the table against the expected answers. */
void check_all(TAZE *h, const std::vector<Query> &table, const std::vector<std::string> &expected,
               const std::string &versions, Findings &f)
{
    for (std::size_t i = 0; i < table.size(); ++i) {
        const std::string got = table[i].ask(h);
        if (got != expected[i]) f.note(table[i].name + ": " + got + " (expected " + expected[i] + ")");
    }
    const std::string v = version_of(h);
    if (versions.find("[" + v + "]") == std::string::npos) f.note("version " + v);
}

/* Runs kReaders reader threads and the writer. Each reader makes its pass
 * function (make_pass runs on the reader's thread) and calls it at least
 * kRounds times and on until the writer is done. The writer reloads
 * kReloads times, each time after the readers made progress, publishing
 * and withdrawing the newer file by turns, so every reload meets running
 * queries; reload() answers 0 on success. */
template <typename MakePass, typename Reload>
void run_stress(PatternDir &d, MakePass make_pass, Reload reload)
{
    std::atomic<int> passes{0}, readers_left{kReaders};
    std::atomic<bool> writer_done{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r)
        readers.emplace_back([&] {
            auto pass = make_pass();
            for (int round = 0; round < kRounds || (!writer_done && round < kMaxRounds); ++round) {
                pass();
                ++passes;
            }
            --readers_left;
        });
    int failed = 0, seen = passes.load();
    for (int i = 0; i < kReloads; ++i) {
        while (passes.load() == seen && readers_left.load() > 0) std::this_thread::yield();
        seen = passes.load();
        if (i % 2 == 0)
            d.publish();
        else
            d.withdraw();
        failed += reload() != 0;
    }
    writer_done = true;
    for (std::thread &t : readers) t.join();
    EXPECT_EQ(failed, 0);
    EXPECT_GE(passes.load(), kReaders * kRounds);
}

struct Expected {
    std::vector<Query> table = query_table();
    std::vector<std::string> answers;
    std::string versions;
};

/* Answers of a freshly loaded handle, and the two version texts. */
Expected expected_answers(const PatternDir &d)
{
    Expected e;
    tazt::Handle h = tazt::new_handle();
    EXPECT_EQ(TAZE_LoadPatternDir(h.get(), d.dir().c_str(), kPrefix), 0);
    for (const Query &p : e.table) e.answers.push_back(p.ask(h.get()));
    e.versions = "[" + version_of(h.get()) + "]";
    char buf[32] = {};
    std::snprintf(buf, sizeof buf, KORM_VERSION_FORMAT, int(KORM_GET_PATTERN_PRO(kNewer)),
                  int(KORM_GET_PATTERN_VER(kNewer)), int(KORM_GET_PATTERN_BLD(kNewer)));
    e.versions += std::string("[") + buf + "]";
    return e;
}

/* The table means something: known answers of the sample pattern. */
TEST(Stress, QueryTableAnswers)
{
    PatternDir d;
    const Expected e = expected_answers(d);
    ASSERT_EQ(e.table.size(), e.answers.size());
    EXPECT_GT(e.table.size(), 400u);
    auto answer = [&e](const std::string &name) {
        for (std::size_t i = 0; i < e.table.size(); ++i)
            if (e.table[i].name == name) return e.answers[i];
        return std::string("<no such probe>");
    };
    EXPECT_EQ(answer("rule id desc"), "0 rule 42");
    EXPECT_EQ(answer("exact list example.com"), "1");
    EXPECT_EQ(answer("suffix list mail.example.org.evil"), "1");
    EXPECT_EQ(answer("exact list nothing"), "0");
    EXPECT_EQ(answer("second kind name"), "0 Trojan.Sample");
    EXPECT_EQ(answer("raw pattern"), "0 raw-bytes");
    EXPECT_EQ(answer("ip range"), "1");
    EXPECT_EQ(answer("II search"), "1");
    EXPECT_EQ(e.versions, "[1.00077.35][1.00078.35]");
    int positive = 0;
    for (const std::string &a : e.answers) positive += a.rfind("0 ", 0) == 0 || a == "1";
    EXPECT_GT(positive, int(e.answers.size()) / 3);
}

/* A C host: queries under the shared side of a read-write lock, reloads
 * (and switching the current pattern kind) under its exclusive side. */
TEST(Stress, ReloadUnderReadWriteLock)
{
    PatternDir d;
    const Expected e = expected_answers(d);
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPatternDir(h.get(), d.dir().c_str(), kPrefix), 0);
    HostLock lock;
    Findings found;
    run_stress(
        d,
        [&] {
            return [&] {
                const std::shared_lock<HostLock> shared(lock);
                check_all(h.get(), e.table, e.answers, e.versions, found);
            };
        },
        [&] {
            const std::unique_lock<HostLock> exclusive(lock);
            const int rc = TAZE_ReloadPatternDir(h.get(), d.dir().c_str(), kPrefix);
            TAZE_PointToULMPattern(h.get());
            TAZE_PointToTAZPattern(h.get());
            return rc;
        });
    EXPECT_EQ(found.count(), 0) << found.text();
}

/* A C++ host: readers query lock-free, by turns through their reader objects
 * and through the holder, while the writer reloads the reloading handle; a
 * snapshot a reader keeps answers as before after later reloads. */
TEST(Stress, ReloadingHandleWithoutLocks)
{
    PatternDir d;
    const Expected e = expected_answers(d);
    taze::reloading_handle rh;
    ASSERT_FALSE(rh.try_load_dir(d.dir(), kPrefix));
    Findings found;
    run_stress(
        d,
        [&] {
            return [&, reader = taze::reloading_handle::reader(rh), kept = rh.current(), n = 0]() mutable {
                const taze::snapshot s = ++n % 2 ? reader.current() : rh.current();
                check_all(s->native(), e.table, e.answers, e.versions, found);
                check_all(kept->native(), e.table, e.answers, e.versions, found);
                if (n % 7 == 0) kept = s;
            };
        },
        [&] { return rh.try_reload() ? 1 : 0; });
    EXPECT_EQ(found.count(), 0) << found.text();
    EXPECT_EQ(rh.generation(), std::uint64_t(1 + kReloads));
}

/* Handles of their own, loaded and released on several threads at once
 * (the library's one-time set-up of the cipher library included). */
TEST(Stress, SeparateHandlesLoadInParallel)
{
    PatternDir d;
    const Expected e = expected_answers(d);
    Findings found;
    std::vector<std::thread> threads;
    for (int r = 0; r < kReaders; ++r)
        threads.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                TAZE *h = nullptr;
                if (TAZE_Init(&h) != 0 || TAZE_LoadPatternDir(h, d.dir().c_str(), kPrefix) != 0)
                    found.note("load failed");
                else
                    check_all(h, e.table, e.answers, e.versions, found);
                TAZE_Fini(h);
            }
        });
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(found.count(), 0) << found.text();
}

} // namespace
