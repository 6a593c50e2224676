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

#include "query_table.h"
#include "taze.hpp"

namespace {

using namespace apif;

constexpr int kReaders = 4;
constexpr int kRounds = 30;  /* query table passes per reader, at least */
constexpr int kMaxRounds = 5000; /* and at most, whatever the writer does */
constexpr int kReloads = 12; /* reloads by the writer */
constexpr std::uint32_t kOlder = 0x1230004Du, kNewer = 0x1230004Eu;
const char kPrefix[] = "p";

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
    std::vector<Query> table = apif::every_query();
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
