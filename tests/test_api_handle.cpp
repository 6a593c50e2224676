/* The handle, calls on a null or empty handle, and the process-wide debug
 * mask with what each of its setters lets through. */
#include <functional>
#include <string>
#include <vector>

#include "test_support.h"
#include "tazewriter_info.h"

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

/* One call on a handle that is null or holds no pattern. */
struct EmptyCall {
    const char *name;
    std::function<int(TAZE *)> run;
    int on_empty; /* a null handle always gives PARA_ERR */
};

TEST(ApiHandle, NullAndEmptyHandlesAreRefused)
{
    char buf[32];
    char *text = nullptr;
    unsigned int u = 0, v = 0;
    const char *info = nullptr;
    const unsigned char *data = nullptr;
    const std::uint8_t ipv6[16] = {};
    TAZE_StringList list{};
    TAZE_StringIntMap si{};
    TAZE_StringIPv6Map sip{};
    TAZE_IPv6IntMap ipi{};
    const std::vector<EmptyCall> calls = {
        {"GetPatternVersion", [&](TAZE *h) { return TAZE_GetPatternVersion(h, buf, sizeof buf); }, PARA_ERR},
        {"GetCompilerVersion", [&](TAZE *h) { return TAZE_GetCompilerVersion(h, buf, sizeof buf); }, PARA_ERR},
        {"ReloadPatternDir", [&](TAZE *h) { return TAZE_ReloadPatternDir(h, "/", "a"); }, PARA_ERR},
        {"GetRawPatternByType", [&](TAZE *h) { return TAZE_GetRawPatternByType(h, RPT_YUB, &data, &u); },
         UNKNOWN_ERR},
        {"GetRuleInfoCount", [&](TAZE *h) { return TAZE_GetRuleInfoCount(h, &u); }, PARA_ERR},
        {"GetRuleInfoCountEx", [&](TAZE *h) { return TAZE_GetRuleInfoCountEx(h, PT_TAZ, &u); }, PARA_ERR},
        {"GetRuleIndexDesc", [&](TAZE *h) { return TAZE_GetRuleIndexDesc(h, 0, &text); }, PARA_ERR},
        {"GetRuleIdDesc", [&](TAZE *h) { return TAZE_GetRuleIdDesc(h, 1, &text); }, PARA_ERR},
        {"GetRuleIdRiskEx", [&](TAZE *h) { return TAZE_GetRuleIdRiskEx(h, PT_ULM, 1, &text); }, PARA_ERR},
        {"CheckRuleIdClean", [&](TAZE *h) { return TAZE_CheckRuleIdClean(h, 1, 6, 1, &u); }, PARA_ERR},
        {"GetCleanInfo", [&](TAZE *h) { return TAZE_GetCleanInfo(h, 6, &u, &text, &text); }, PARA_ERR},
        {"GetProtocolIdDesc", [&](TAZE *h) { return TAZE_GetProtocolIdDesc(h, 6, &text); }, PARA_ERR},
        {"GetKnownRiskInfo", [&](TAZE *h) { return TAZE_GetKnownRiskInfo(h, 2, 6, &u, &v); }, PARA_ERR},
        {"GetUlmInfo", [&](TAZE *h) { return TAZE_GetUlmInfo(h, &info); }, PARA_ERR},
        {"GetThreatType", [&](TAZE *h) { return TAZE_GetThreatType(h, 1, &u); }, PARA_ERR},
        {"SearchStringList, unknown kind",
         [&](TAZE *h) { return TAZE_PatternSearchStringList(h, 0, "a", 2); }, PARA_ERR},
        {"SearchIPv6RangeList", [&](TAZE *h) { return TAZE_PatternSearchIPv6RangeList(h, 0, ipv6, PT_TAZ); },
         PARA_ERR},
        {"GetStringList", [&](TAZE *h) { return TAZE_PatternGetStringList(h, 0, PT_TAZ, &list); }, PARA_ERR},
        {"GetSIMapByKey", [&](TAZE *h) { return TAZE_PatternGetSIMapByKey(h, PT_TAZ, MT_STRING, 0, "a", &si); },
         PARA_ERR},
        {"GetSIPv6MapByKey",
         [&](TAZE *h) { return TAZE_PatternGetSIPv6MapByKey(h, PT_TAZ, MT_STRING, 0, "a", &sip); }, PARA_ERR},
        {"GetIPv6IMapByIndex", [&](TAZE *h) { return TAZE_PatternGetIPv6IMapByIndex(h, PT_TAZ, 0, 0, &ipi); },
         PARA_ERR},
        {"GetIIMapCount", [&](TAZE *h) { return TAZE_PatternGetIIMapCount(h, PT_TAZ, 0, 0); }, PARA_ERR},
    };
    tazt::Handle empty = tazt::new_handle();
    for (const EmptyCall &c : calls) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.run(nullptr), PARA_ERR);
        EXPECT_EQ(c.run(empty.get()), c.on_empty);
    }
    EXPECT_EQ(text, nullptr); /* nothing was copied */
    EXPECT_EQ(list.strings, nullptr);
    EXPECT_EQ(si.ints, nullptr); /* refused before the result is touched */

    /* The switches and the unload do nothing without a loaded pattern. */
    for (TAZE *h : {static_cast<TAZE *>(nullptr), empty.get()}) {
        TAZE_PointToULMPattern(h);
        TAZE_PointToTAZPattern(h);
        TAZE_UnloadPattern(h);
    }
    EXPECT_EQ(TAZE_GetPatternVersion(empty.get(), buf, sizeof buf), PARA_ERR);
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
