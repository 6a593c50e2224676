/* The pattern directory scan on real directories: which files qualify, the
 * order of the list, the result codes and the messages; and the C++ load
 * report, which must name the file the library loads and give every other
 * entry the reason the library's scan had. */
#include <dirent.h>
#include <sys/stat.h>

#include <map>
#include <regex>

#include "readptn.h"
#include "taze.hpp"
#include "taze_file.h"
#include "tazeptn.h"
#include "tazewriter_info.h"
#include "test_support.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::uint32_t>>; /* path, version */

constexpr std::uint32_t ver(std::uint32_t product, std::uint32_t build, std::uint32_t version)
{
    return KORM_MAKE_PATTERN_VER(product, build, version);
}

struct File {
    std::string name;
    std::uint32_t version; /* the version the file holds */
    std::uint16_t kind = KORM_SUB_TAZE_RULE;
    bool broken = false; /* the peek reads its version, the load fails */
};

void put(const std::string &dir, const File &f)
{
    tazw::Container c;
    c.ptnVer = f.version;
    tazw::SubPattern s;
    s.subtype = f.kind;
    s.payload = tazw::pattern_info_section(1);
    s.flip_digest_bit = f.broken;
    c.subs.push_back(s);
    ASSERT_TRUE(tazw::write_file(dir + "/" + f.name, tazw::build_container(c)));
}

/* One scan into `head` (not emptied first): its code and what it printed. */
std::pair<int, std::string> scan_into(const char *dir, const char *prefix, LIST_HEAD *head,
                                      unsigned int mask = VKDEBUG_ERR)
{
    tazt::DebugMask dm(mask);
    tazt::StdoutCapture capture;
    int rc = getTAZPatternList(dir, prefix, head);
    return {rc, capture.finish()};
}

struct Scan {
    int rc;
    std::string out;
    Entries list;
};
Scan scan(const std::string &dir, unsigned int mask = VKDEBUG_ERR)
{
    LIST_HEAD head;
    VK_LIST_INIT(&head);
    auto [rc, out] = scan_into(dir.c_str(), "a", &head, mask);
    Entries list;
    for (LIST_HEAD *l = head.next; l != &head; l = l->next) {
        const PatternVersion_st *pv = VK_LIST_ENTRY(l, PatternVersion_st, pattern_list);
        list.emplace_back(pv->path, pv->version);
    }
    delPatternVersionList(&head);
    EXPECT_TRUE(VK_LIST_EMPTY(&head));
    return {rc, out, list};
}

using R = taze::candidates::reason;
using Reasons = std::map<std::string, R>;

/* The library's choice and the report of the same directory agree: the
 * same result, the loaded file, every entry's reason. */
void expect_report(const std::string &dir, const std::string &loaded, const Reasons &reasons)
{
    TAZE *h = nullptr;
    ASSERT_EQ(TAZE_Init(&h), 0);
    const int rc = TAZE_LoadPatternDir(h, dir.c_str(), "a");
    char version[32] = "";
    TAZE_GetPatternVersion(h, version, sizeof version);
    TAZE_Fini(h);

    taze::handle reporting;
    taze::load_report report;
    const std::error_code ec = reporting.try_load_dir(dir, "a", report);
    EXPECT_EQ(ec.value(), rc);
    EXPECT_EQ(report.result, rc);
    EXPECT_EQ(report.path, loaded.empty() ? "" : dir + "/" + loaded);
    EXPECT_EQ(reporting.pattern_version().value_or(""), version);
    Reasons got;
    for (const auto &e : report.entries) {
        got[e.name] = e.reason;
        EXPECT_EQ(e.result, e.reason == R::load_failed ? READ_ERR : 0) << e.name;
        if (e.reason == R::loaded) {
            EXPECT_EQ(report.version, e.version);
        }
    }
    EXPECT_EQ(got, reasons);
}

TEST(DirScan, NamingAndContents)
{
    const std::uint32_t v77 = ver(1, 35, 77);
    const struct {
        const char *name;
        std::vector<File> files;
        int rc;
        Entries list;        /* file names and versions, in order */
        std::string message; /* printed among others; {dir} is the directory */
        std::string loaded;  /* the file a directory load takes, or "" */
        Reasons reasons;     /* of every entry */
    } cases[] = {
        {"number matches the version", {{"a77.ptn", v77}}, 0, {{"a77.ptn", v77}}, "", "a77.ptn",
         {{"a77.ptn", R::loaded}}},
        {"leading zeros", {{"a0077.ptn", v77}}, 0, {{"a0077.ptn", v77}}, "", "a0077.ptn", {{"a0077.ptn", R::loaded}}},
        {"number differs", {{"a78.ptn", v77}}, -7, {}, "RealVer:0x0000004d, FileVer:0x0000004e\n", "",
         {{"a78.ptn", R::version_mismatch}}},
        {"characters after the suffix", {{"a77.ptn.bak", v77}}, 0, {{"a77.ptn.bak", v77}}, "", "a77.ptn.bak",
         {{"a77.ptn.bak", R::loaded}}},
        {"suffix cut short", {{"a77.pt", v77}}, -7, {}, "suffix not match(.pt, .ptn)\n", "",
         {{"a77.pt", R::suffix_mismatch}}},
        {"no number reads as 0", {{"a.ptn", ver(1, 0, 0)}}, 0, {{"a.ptn", ver(1, 0, 0)}}, "", "a.ptn",
         {{"a.ptn", R::loaded}}},
        {"not a number", {{"ax.ptn", v77}}, -7, {}, "suffix not match(x.ptn, .ptn)\n", "",
         {{"ax.ptn", R::suffix_mismatch}}},
        {"other prefix", {{"b77.ptn", v77}}, -7, {}, "prefix not match(b77.ptn, a)\n", "",
         {{"b77.ptn", R::prefix_mismatch}}},
        {"prefix is case-sensitive", {{"A77.ptn", v77}}, -7, {}, "prefix not match(A77.ptn, a)\n", "",
         {{"A77.ptn", R::prefix_mismatch}}},
        {"subdirectory", {{"a77.ptn/", v77}}, -7, {}, "stat({dir}/a77.ptn)< 0, or 0 == S_ISREG()\n", "",
         {{"a77.ptn", R::not_regular_file}}},
        {"raw kind only: no version", {{"a77.ptn", v77, KORM_SUB_YUB_RULE}}, -7, {}, "peekTAZPatternVer({dir}/a77.ptn)\n",
         "", {{"a77.ptn", R::peek_failed}}},
        {"product and build not named", {{"a77.ptn", ver(15, 255, 77)}}, 0, {{"a77.ptn", ver(15, 255, 77)}}, "",
         "a77.ptn", {{"a77.ptn", R::loaded}}},
        {"sorted by product, then version",
         {{"a7.ptn", ver(1, 0, 7)}, {"a5.ptn", ver(1, 9, 5)}, {"a3.ptn", ver(2, 0, 3)}, {"a6.ptn", ver(1, 4, 6)}}, 0,
         {{"a5.ptn", ver(1, 9, 5)}, {"a6.ptn", ver(1, 4, 6)}, {"a7.ptn", ver(1, 0, 7)}, {"a3.ptn", ver(2, 0, 3)}}, "",
         "a3.ptn",
         {{"a3.ptn", R::loaded}, {"a5.ptn", R::not_tried}, {"a6.ptn", R::not_tried}, {"a7.ptn", R::not_tried}}},
        {"the newest is broken",
         {{"a77.ptn", v77}, {"a78.ptn", ver(1, 35, 78), KORM_SUB_TAZE_RULE, true}, {"a79.ptn", v77}, {"b80.ptn", v77}},
         0, {{"a77.ptn", v77}, {"a78.ptn", ver(1, 35, 78)}}, "", "a77.ptn",
         {{"a77.ptn", R::loaded}, {"a78.ptn", R::load_failed}, {"a79.ptn", R::version_mismatch},
          {"b80.ptn", R::prefix_mismatch}}},
        {"every candidate broken", {{"a5.ptn", ver(1, 0, 5), KORM_SUB_TAZE_RULE, true}}, 0,
         {{"a5.ptn", ver(1, 0, 5)}}, "", "", {{"a5.ptn", R::load_failed}}},
        {"empty directory", {}, -7, {}, "No pattern file found\n", "", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string dir = tazt::temp_dir();
        for (const File &f : c.files) {
            if (f.name.back() == '/')
                ASSERT_EQ(mkdir((dir + "/" + f.name).c_str(), 0700), 0);
            else
                put(dir, f);
        }
        Entries expected;
        for (const auto &e : c.list) expected.emplace_back(dir + "/" + e.first, e.second);
        const Scan s = scan(dir);
        EXPECT_EQ(s.rc, c.rc);
        EXPECT_EQ(s.list, expected);
        const std::string message = std::regex_replace(c.message, std::regex("\\{dir\\}"), dir);
        EXPECT_NE(s.out.find(message), std::string::npos) << s.out;
        if (c.rc == -7) {
            EXPECT_NE(s.out.find("No pattern file found\n"), std::string::npos);
        }
        EXPECT_EQ(scan(dir + "/").list, expected) << "with a trailing '/'";
        EXPECT_EQ(scan(dir, 0).out, "") << "error bit off";
        expect_report(dir, c.loaded, c.reasons);
    }
}

/* Files whose versions differ only in the build keep the order in which
 * the directory lists them. */
TEST(DirScan, BuildOnlyDifferencesKeepDirectoryOrder)
{
    const std::string dir = tazt::temp_dir();
    for (const File &f : std::vector<File>{{"a78.ptn", ver(1, 0, 78), KORM_SUB_TAZE_RULE, true},
                                           {"a77.ptn", ver(1, 3, 77)}, {"a077.ptn", ver(1, 1, 77)},
                                           {"a0077.ptn", ver(1, 2, 77)}, {"a00077.ptn", ver(1, 0, 77)},
                                           {"a000077.ptn", ver(1, 9, 77)}})
        put(dir, f);
    Entries order; /* the version-77 files in readdir order, then 78 */
    Reasons reasons{{"a78.ptn", R::load_failed}};
    DIR *d = opendir(dir.c_str());
    ASSERT_NE(d, nullptr);
    while (struct dirent *de = readdir(d)) {
        const std::string name = de->d_name;
        if (name.find("77") == std::string::npos) continue;
        order.emplace_back(dir + "/" + name, 0);
        reasons[name] = R::not_tried;
    }
    closedir(d);
    /* After the broken newest file, the one found last is tried first. */
    const std::string last = order.back().first.substr(dir.size() + 1);
    reasons[last] = R::loaded;
    order.emplace_back(dir + "/a78.ptn", 0);
    Scan s = scan(dir);
    ASSERT_EQ(s.rc, 0);
    for (auto &e : s.list) e.second = 0;
    EXPECT_EQ(s.list, order);
    expect_report(dir, last, reasons);
}

/* Argument and directory faults leave the list as it was. */
TEST(DirScan, Failures)
{
    const std::string dir = tazt::temp_dir();
    const std::string file = dir + "/plain.txt", missing = dir + "/missing";
    ASSERT_TRUE(tazw::write_file(file, {'x'}));
    LIST_HEAD head;
    PatternVersion_st kept{1, nullptr, {}};
    const struct {
        const char *path, *prefix;
        LIST_HEAD *pvh;
        int rc;
        std::string message; /* regular expression of the whole output */
    } cases[] = {
        {nullptr, "a", &head, -1, "path:\\(nil\\), prefix:0x[0-9a-f]+, pvh:0x[0-9a-f]+\n"},
        {dir.c_str(), nullptr, &head, -1, "path:0x[0-9a-f]+, prefix:\\(nil\\), pvh:0x[0-9a-f]+\n"},
        {dir.c_str(), "a", nullptr, -1, "path:0x[0-9a-f]+, prefix:0x[0-9a-f]+, pvh:\\(nil\\)\n"},
        {missing.c_str(), "a", &head, -2, "stat\\(" + missing + "\\)\n"},
        {file.c_str(), "a", &head, -3, "S_ISDIR\\(" + file + "\\)==0\n"},
    };
    for (const auto &c : cases) {
        VK_LIST_INIT(&head);
        vk_list_add_tail(&kept.pattern_list, &head);
        auto [rc, out] = scan_into(c.path, c.prefix, c.pvh);
        EXPECT_EQ(rc, c.rc) << c.message;
        EXPECT_TRUE(std::regex_match(out, std::regex(c.message))) << out;
        EXPECT_TRUE(head.next == &kept.pattern_list && kept.pattern_list.next == &head) << c.message;
    }
    delPatternVersionList(nullptr);
    delPatternVersion(nullptr);
}

/* A directory named by exactly `length` characters (nested directories). */
std::string deep_dir(const std::string &base, std::size_t length)
{
    std::string path = base;
    mkdir(path.c_str(), 0700);
    while (path.size() < length) {
        std::size_t left = length - path.size(), take = std::min<std::size_t>(left, 201);
        if (left - take == 1) --take; /* never leave a single character */
        path += "/" + std::string(take - 1, 'd');
        mkdir(path.c_str(), 0700);
    }
    return path;
}

/* Paths live in 512 bytes: a directory that leaves no room for '/' and a
 * terminator is refused; an entry whose full path does not fit is skipped,
 * never looked up under its cut name. */
TEST(DirScan, LongPaths)
{
    const std::string base = tazt::temp_dir();
    ASSERT_LT(base.size(), 300u);
    const std::string fits = deep_dir(base + "/fits", 511 - 8); /* + "/a77.ptn" = 511 characters */
    put(fits, {"a77.ptn", ver(1, 0, 77)});
    put(fits, {"a077.ptn", ver(1, 0, 77)}); /* 512 characters */
    put(fits, {"a077.pt", ver(1, 0, 77)});  /* what the cut path would name */
    Scan s = scan(fits);
    EXPECT_EQ(s.list, (Entries{{fits + "/a77.ptn", ver(1, 0, 77)}}));
    EXPECT_NE(s.out.find("stat(" + fits + "/a077.pt)< 0, or 0 == S_ISREG()\n"), std::string::npos) << s.out;
    expect_report(fits, "a77.ptn", {{"a77.ptn", R::loaded}, {"a077.ptn", R::path_too_long}, {"a077.pt", R::suffix_mismatch}});

    const std::string full = deep_dir(base + "/full", 510); /* with its '/': no room for a name */
    put(full, {"a77.ptn", ver(1, 0, 77)});
    s = scan(full + "/");
    EXPECT_EQ(s.rc, -7);
    EXPECT_NE(s.out.find("stat(" + full + "/)< 0, or 0 == S_ISREG()\n"), std::string::npos) << s.out;

    for (std::size_t length : {511, 512, 600}) {
        const std::string dir = deep_dir(base + "/long" + std::to_string(length), length);
        s = scan(dir);
        EXPECT_EQ(s.rc, -4) << length;
        EXPECT_EQ(s.out, "opendir(" + dir + ")==0\n") << length;
    }
}

} // namespace
