/* Loading one file or the newest good file of a directory, reloading with
 * fallback, version texts and the raw pattern (the pattern switches are
 * tested with the second kind). */
#include <optional>
#include <string>
#include <vector>

#include "test_support.h"
#include "tazeptn.h"
#include "tazewriter_info.h"

namespace {

using tazw::Bytes;

constexpr std::uint32_t kVer77 = KORM_MAKE_PATTERN_VER(1, 35, 77);
constexpr std::uint32_t kVer5 = KORM_MAKE_PATTERN_VER(1, 0, 5);
constexpr std::uint32_t kVer7 = KORM_MAKE_PATTERN_VER(1, 0, 7);
constexpr std::uint32_t kVer9 = KORM_MAKE_PATTERN_VER(1, 0, 9);

/* Fewer than 16 bytes: an image without sections. */
const Bytes kTiny = {'t', 'a', 'z', 'e'};
const Bytes kRaw = {'r', 'a', 'w', 0, 1, 2, 3, 0xFF};

tazw::SubPattern sub(std::uint16_t subtype, const Bytes &payload)
{
    tazw::SubPattern s;
    s.subtype = subtype;
    s.payload = payload;
    return s;
}

Bytes container(std::uint32_t ptnVer, std::vector<tazw::SubPattern> subs)
{
    tazw::Container c;
    c.ptnVer = ptnVer;
    c.subs = std::move(subs);
    return tazw::build_container(c);
}

/* A well-formed container whose main body fails its integrity check. */
Bytes corrupt_file(std::uint32_t ptnVer)
{
    tazw::SubPattern s = sub(7, kTiny);
    s.flip_body_byte = 0;
    return container(ptnVer, {s});
}

Bytes good_file(std::uint32_t ptnVer, bool with_raw = false)
{
    return tazt::pattern_file(kTiny, ptnVer, std::nullopt, with_raw ? std::optional<Bytes>(kRaw) : std::nullopt);
}

/* A version text of the handle, or "none" when it is refused. */
std::string version_of(int (*get)(TAZE *, char *, int), TAZE *h)
{
    char buf[32] = {};
    return get(h, buf, sizeof buf) == 0 ? std::string(buf) : std::string("none");
}
std::string pattern_version(TAZE *h) { return version_of(TAZE_GetPatternVersion, h); }
std::string compiler_version(TAZE *h) { return version_of(TAZE_GetCompilerVersion, h); }

/* The raw bytes the handle serves, or nullopt when it has none. */
std::optional<Bytes> raw_pattern(TAZE *h)
{
    const unsigned char *data = nullptr;
    unsigned int len = 0;
    if (TAZE_GetRawPatternByType(h, RPT_YUB, &data, &len) != 0) return std::nullopt;
    return Bytes(data, data + len);
}

struct LoadCase {
    const char *name;
    std::optional<Bytes> file; /* nullopt: the path does not exist */
    int rc;
};

TEST(ApiLoad, LoadPatternResults)
{
    tazw::SubPattern bad_digest = sub(7, kTiny);
    bad_digest.flip_digest_bit = true;
    Bytes truncated = good_file(kVer77);
    truncated.resize(truncated.size() - 8);
    const std::vector<LoadCase> cases = {
        {"good file", good_file(kVer77), 0}, {"missing file", std::nullopt, OPEN_R_ERR},
        {"corrupt body", corrupt_file(kVer77), READ_ERR},
        {"altered digest", container(kVer77, {bad_digest}), READ_ERR},
        {"second kind only", container(kVer77, {sub(8, kTiny)}), READ_ERR},
        {"raw pattern only", container(kVer77, {sub(9, kRaw)}), READ_ERR},
        {"not a container", Bytes(64, 'x'), READ_ERR}, {"truncated body", truncated, READ_ERR},
        {"empty file", Bytes{}, READ_ERR},
    };
    const std::string fallback = tazt::write_temp(good_file(kVer5));
    for (const LoadCase &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = c.file ? tazt::write_temp(*c.file) : tazt::temp_dir() + "/absent.ptn";
        tazt::Handle h = tazt::new_handle();
        EXPECT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(pattern_version(h.get()), "1.00077.35");
            EXPECT_EQ(compiler_version(h.get()), "0.00000.00");
            continue;
        }
        /* A failed load leaves the handle empty and ready for the next one. */
        EXPECT_EQ(pattern_version(h.get()), "none");
        EXPECT_EQ(TAZE_LoadPattern(h.get(), fallback.c_str()), 0);
        EXPECT_EQ(pattern_version(h.get()), "1.00005.00");
    }
}

TEST(ApiLoad, LoadIsRefusedWhenLoadedOrWithoutArguments)
{
    const std::string first = tazt::write_temp(good_file(kVer77));
    const std::string second = tazt::write_temp(good_file(kVer5), tazw::pattern_file_name("a", kVer5));
    const std::string dir = second.substr(0, second.rfind('/'));
    tazt::Handle h = tazt::new_handle();
    EXPECT_EQ(TAZE_LoadPattern(nullptr, first.c_str()), PARA_ERR);
    EXPECT_EQ(TAZE_LoadPattern(h.get(), nullptr), PARA_ERR);
    EXPECT_EQ(TAZE_LoadPatternDir(nullptr, dir.c_str(), "a"), PARA_ERR);
    EXPECT_EQ(TAZE_LoadPatternDir(h.get(), nullptr, "a"), PARA_ERR);
    EXPECT_EQ(TAZE_LoadPatternDir(h.get(), dir.c_str(), nullptr), PARA_ERR);
    EXPECT_EQ(TAZE_ReloadPatternDir(h.get(), dir.c_str(), "a"), PARA_ERR); /* nothing loaded yet */

    ASSERT_EQ(TAZE_LoadPattern(h.get(), first.c_str()), 0);
    EXPECT_EQ(TAZE_LoadPattern(h.get(), second.c_str()), PARA_ERR);
    EXPECT_EQ(TAZE_LoadPatternDir(h.get(), dir.c_str(), "a"), PARA_ERR);
    EXPECT_EQ(TAZE_ReloadPatternDir(h.get(), nullptr, "a"), PARA_ERR);
    EXPECT_EQ(TAZE_ReloadPatternDir(h.get(), dir.c_str(), nullptr), PARA_ERR);
    EXPECT_EQ(pattern_version(h.get()), "1.00077.35");
}

struct DirFile {
    std::uint32_t ver;
    bool good;
    const char *prefix = "a";
    bool raw = true; /* the file holds a raw pattern */
};

/* A fresh directory holding the files, each named after its version. */
std::string make_dir(const std::vector<DirFile> &files)
{
    const std::string dir = tazt::temp_dir();
    for (const DirFile &f : files) {
        const Bytes bytes = f.good ? good_file(f.ver, f.raw) : corrupt_file(f.ver);
        EXPECT_TRUE(tazw::write_file(dir + "/" + tazw::pattern_file_name(f.prefix, f.ver), bytes));
    }
    return dir;
}

TEST(ApiLoad, ScanFailureIsReportedOnTheErrorBit)
{
    const std::string missing = tazt::temp_dir() + "/no-such-dir";
    for (unsigned int mask : {0u, VKDEBUG_WARN, VKDEBUG_ERR}) {
        tazt::DebugMask scope(mask);
        tazt::StdoutCapture capture;
        tazt::Handle h = tazt::new_handle();
        EXPECT_EQ(TAZE_LoadPatternDir(h.get(), missing.c_str(), "a"), ACCESS_ERR);
        const std::string printed = capture.finish();
        if (mask == VKDEBUG_ERR) {
            EXPECT_NE(printed.find("getTAZPatternList()=-2\n"), std::string::npos) << printed;
        } else {
            EXPECT_EQ(printed, "");
        }
    }
}

struct ReloadCase {
    const char *name;
    std::optional<std::vector<DirFile>> files; /* nullopt: reload from the first directory again */
    bool missing_dir;
    int rc;
    const char *version;
    bool raw; /* the handle serves a raw pattern afterwards */
};

TEST(ApiLoad, ReloadReplacesOrKeepsTheOldPattern)
{
    const std::vector<ReloadCase> cases = {
        {"all corrupt", std::vector<DirFile>{{kVer7, false}, {kVer9, false}}, false, READ_ERR, "1.00005.00", true},
        {"missing directory", std::nullopt, true, ACCESS_ERR, "1.00005.00", true},
        {"empty directory", std::vector<DirFile>{}, false, ACCESS_ERR, "1.00005.00", true},
        {"newer file", std::vector<DirFile>{{kVer7, true}}, false, 0, "1.00007.00", true},
        {"newest corrupt", std::vector<DirFile>{{kVer7, true}, {kVer9, false}}, false, 0, "1.00007.00", true},
        {"same file again", std::nullopt, false, 0, "1.00005.00", true},
        {"newer file without a raw pattern", std::vector<DirFile>{{kVer7, true, "a", false}}, false, 0, "1.00007.00",
         false},
    };
    const std::string first = make_dir({{kVer5, true}});
    for (const ReloadCase &c : cases) {
        SCOPED_TRACE(c.name);
        tazt::Handle h = tazt::new_handle();
        ASSERT_EQ(TAZE_LoadPatternDir(h.get(), first.c_str(), "a"), 0);
        TAZE_PointToULMPattern(h.get()); /* a reload points back at the main kind */
        std::string dir = c.files ? make_dir(*c.files) : first;
        if (c.missing_dir) dir += "/no-such-dir";
        EXPECT_EQ(TAZE_ReloadPatternDir(h.get(), dir.c_str(), "a"), c.rc);
        EXPECT_EQ(pattern_version(h.get()), c.version);
        EXPECT_EQ(raw_pattern(h.get()), c.raw ? std::optional<Bytes>(kRaw) : std::nullopt);
        unsigned int count = 99;
        EXPECT_EQ(TAZE_GetRuleInfoCount(h.get(), &count), c.rc == 0 ? 0 : PARA_ERR);
    }
}

struct VersionCase {
    std::uint32_t ver;
    int size;
    int rc;
    const char *text;
};

TEST(ApiLoad, VersionTexts)
{
    const std::vector<VersionCase> cases = {
        {kVer77, 10, PARA_ERR, ""}, {kVer77, 11, 0, "1.00077.35"}, {0, 11, 0, "0.00000.00"},
        {KORM_MAKE_PATTERN_VER(2, 7, 123456), 16, 0, "2.123456.07"},
        {KORM_MAKE_PATTERN_VER(15, 255, 0xFFFFF), 11, 0, "15.1048575"}, /* cut to size - 1 */
        {KORM_MAKE_PATTERN_VER(15, 255, 0xFFFFF), 32, 0, "15.1048575.255"},
    };
    for (const VersionCase &c : cases) {
        SCOPED_TRACE(c.text);
        const std::string path = tazt::write_temp(good_file(c.ver));
        tazt::Handle h = tazt::new_handle();
        ASSERT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), 0);
        for (int which = 0; which < 2; ++which) {
            std::vector<char> buf(static_cast<std::size_t>(c.size) + 4, 'X');
            const int rc = which == 0 ? TAZE_GetPatternVersion(h.get(), buf.data(), c.size)
                                      : TAZE_PeekTAZPatternVer(path.c_str(), buf.data(), c.size);
            EXPECT_EQ(rc, c.rc) << which;
            if (c.rc == 0) {
                EXPECT_STREQ(buf.data(), c.text) << which;
            } else {
                EXPECT_EQ(buf[0], 'X') << which;
            }
            EXPECT_EQ(buf[static_cast<std::size_t>(c.size)], 'X') << "wrote past the buffer";
        }
    }
}

TEST(ApiLoad, PeekFailures)
{
    char buf[16] = "untouched";
    const std::string good = tazt::write_temp(good_file(kVer77));
    const std::string raw_only = tazt::write_temp(container(kVer77, {sub(9, kRaw)}));
    const std::string missing = tazt::temp_dir() + "/absent.ptn";
    EXPECT_EQ(TAZE_PeekTAZPatternVer(nullptr, buf, sizeof buf), PARA_ERR);
    EXPECT_EQ(TAZE_PeekTAZPatternVer(good.c_str(), nullptr, sizeof buf), PARA_ERR);
    EXPECT_EQ(TAZE_PeekTAZPatternVer(missing.c_str(), buf, sizeof buf), UNKNOWN_ERR);
    EXPECT_EQ(TAZE_PeekTAZPatternVer(raw_only.c_str(), buf, sizeof buf), UNKNOWN_ERR);
    EXPECT_STREQ(buf, "untouched");
    /* The peek does not decrypt: a corrupt body still has a version. */
    const std::string corrupt = tazt::write_temp(corrupt_file(kVer77));
    EXPECT_EQ(TAZE_PeekTAZPatternVer(corrupt.c_str(), buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "1.00077.35");
}

TEST(ApiLoad, RawPattern)
{
    const std::string with_raw = tazt::write_temp(good_file(kVer77, true));
    const std::string without = tazt::write_temp(good_file(kVer77));
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPattern(h.get(), with_raw.c_str()), 0);
    EXPECT_EQ(raw_pattern(h.get()), std::optional<Bytes>(kRaw));
    const unsigned char *data = nullptr;
    unsigned int len = 0;
    EXPECT_EQ(TAZE_GetRawPatternByType(h.get(), 1, &data, &len), PARA_ERR);
    EXPECT_EQ(TAZE_GetRawPatternByType(h.get(), RPT_YUB, nullptr, &len), PARA_ERR);
    EXPECT_EQ(TAZE_GetRawPatternByType(h.get(), RPT_YUB, &data, nullptr), PARA_ERR);
    EXPECT_EQ(data, nullptr);

    tazt::Handle plain = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPattern(plain.get(), without.c_str()), 0);
    EXPECT_EQ(TAZE_GetRawPatternByType(plain.get(), RPT_YUB, &data, &len), UNKNOWN_ERR);
    EXPECT_EQ(TAZE_GetRawPatternByType(plain.get(), 1, &data, &len), PARA_ERR);
}

} // namespace
