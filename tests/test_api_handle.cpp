/* The handle, calls on a null or empty handle, and the process-wide debug
 * mask with what each of its setters lets through. */
#include <functional>
#include <string>
#include <vector>

#include "query_table.h"

namespace {

TEST(ApiHandle, InitAndFini)
{
    EXPECT_EQ(TAZE_Init(nullptr), PARA_ERR);
    TAZE_Fini(nullptr);

    TAZE *a = nullptr;
    TAZE *b = nullptr;
    ASSERT_EQ(TAZE_Init(&a), 0);
    ASSERT_EQ(TAZE_Init(&b), 0);
    ASSERT_NE(a, nullptr);
    EXPECT_NE(a, b);
    /* Releasing empty handles frees only the handles (checked by the
     * sanitizer's leak and double-free detection). */
    TAZE_Fini(b);
    TAZE_Fini(a);
}

/* Every query, and the calls the query table leaves out, on a null handle
 * and on one that holds no pattern: refused before any output is touched. */
TEST(ApiHandle, NullAndEmptyHandlesAreRefused)
{
    std::vector<apif::Query> calls = apif::every_query();
    calls.push_back(apif::query<apif::Text>("string list", [](TAZE *h, char **) {
        TAZE_StringList list{};
        return TAZE_PatternGetStringList(h, 0, PT_TAZ, &list) + (list.strings ? 1000 : 0);
    }));
    calls.push_back(apif::plain("reload", TAZE_ReloadPatternDir, "/", "a"));
    calls.push_back(apif::plain("unknown kind", TAZE_PatternSearchStringList, 0, "a", 2));
    calls.push_back({"pattern version", [](TAZE *h) {
                         char buf[32] = "untouched";
                         return std::to_string(TAZE_GetPatternVersion(h, buf, sizeof buf)) + " " + buf;
                     }});
    const std::string refused = std::to_string(PARA_ERR);
    tazt::Handle empty = tazt::new_handle();
    for (const apif::Query &q : calls) {
        const std::string on_null = q.ask(nullptr), on_empty = q.ask(empty.get());
        EXPECT_EQ(on_null.substr(on_null.find(' ') + 1), on_empty.substr(on_empty.find(' ') + 1)) << q.name;
        EXPECT_EQ(on_null.substr(0, on_null.find(' ')), refused) << q.name << ": " << on_null;
        const std::string want = q.name == "raw pattern" ? std::to_string(UNKNOWN_ERR) : refused;
        EXPECT_EQ(on_empty.substr(0, on_empty.find(' ')), want) << q.name << ": " << on_empty;
    }

    /* The switches and the unload do nothing without a loaded pattern. */
    for (TAZE *h : {static_cast<TAZE *>(nullptr), empty.get()}) {
        TAZE_PointToULMPattern(h);
        TAZE_PointToTAZPattern(h);
        TAZE_UnloadPattern(h);
    }
    EXPECT_EQ(calls.back().ask(empty.get()), refused + " untouched");
}

/* A pattern whose threat type section repeats its list: loading it warns. */
tazw::Bytes duplicate_warning_payload()
{
    namespace m = tazw::info_magic;
    const tazw::Bytes list = tazw::threat_type_list({{7, 3, {}}});
    return tazw::info_section(m::THREAT_TYPE, {list, list});
}

struct SetterCase {
    const char *name;
    void (*set)(TAZE *);
    unsigned int mask;
    bool errors;   /* error messages are printed */
    bool warnings; /* duplicate warnings are printed */
};

TEST(ApiHandle, DebugSettersOverwriteTheProcessWideMask)
{
    const std::vector<SetterCase> cases = {
        {"Err", TAZE_setDbgLevelErr, 0xF0000000u, true, true},
        {"Warn", TAZE_setDbgLevelWarn, 0x40000000u, false, true},
        {"Info", TAZE_setDbgLevelInfo, 0x20000000u, false, false},
        {"Debug", TAZE_setDbgLevelDebug, 0x10000000u, false, false},
        {"disable", TAZE_disableDebug, 0u, false, false},
    };
    const std::string missing = tazt::temp_dir() + "/missing.ptn";
    const std::string warn_file = tazt::write_temp(tazt::pattern_file(duplicate_warning_payload()));
    tazt::Handle other = tazt::new_handle();
    for (const SetterCase &c : cases) {
        SCOPED_TRACE(c.name);
        tazt::DebugMask restore(0xFFFFFFFFu);
        c.set(nullptr); /* the handle plays no part */
        EXPECT_EQ(debugLevel, c.mask);
        debugLevel = 0xFFFFFFFFu;
        c.set(other.get()); /* nor does a real one: the whole mask is replaced */
        EXPECT_EQ(debugLevel, c.mask);

        std::string printed;
        {
            tazt::StdoutCapture capture;
            char buf[16];
            EXPECT_EQ(TAZE_PeekTAZPatternVer(missing.c_str(), buf, sizeof buf), UNKNOWN_ERR);
            tazt::Handle h = tazt::new_handle();
            EXPECT_EQ(TAZE_LoadPattern(h.get(), warn_file.c_str()), 0);
            printed = capture.finish();
        }
        EXPECT_EQ(printed.find("TAZE_PeekTAZPatternVer()=-1\n") != std::string::npos, c.errors) << printed;
        EXPECT_EQ(printed.find("BUG: Duplicated threat type info list defined") != std::string::npos, c.warnings)
            << printed;
        if (!c.errors && !c.warnings) {
            EXPECT_EQ(printed, "");
        }
    }
}

} // namespace
