/* The C++ interface taze.hpp on files built by the writer: typed errors of
 * the loading calls in their throwing and non-throwing forms, ownership of
 * the handle, optional results, views and pinned views, copied strings,
 * string arguments that are not terminated or hold a NUL, and the reload
 * holder (its concurrent readers run in test_stress). */
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "api_fixtures.h"
#include "taze.hpp"

namespace {

using namespace apif;
using namespace tazw;

constexpr std::uint32_t kVerA = 0x1230004D, kVerB = 0x1230004E; /* 1.00077.35, 1.00078.35 */
const IPv6 kAddr = v6({0x20, 0x01, 0x0d, 0xb8}, 1);

std::string long_text(const std::string &tag) { return tag + std::string(300, 'x'); }

/* The main pattern of file A ("alpha") or B ("beta"). */
Bytes main_payload(const std::string &tag, std::uint32_t rule)
{
    return concat({
        rule_info_section({{rule, 70, tag + "-risk", 3, 1, tag + " rule", {6, 6, 4, 1, 2, tag + "-src", "", {}}, {}},
                           {7, 10, "", 1, 0, "seven", {}, {}}}),
        protocol_section({{6, "tcp", 0, {}}}, {{100, "transport", {0}, {}}}),
        threat_type_section({{rule, TT_EXPLOIT, {}}}),
        pattern_info_section(0x10200003u),
        string_section(kind::STR, {{0, {tag + ".example", "common.example", long_text(tag)}}}),
        string_section(kind::SUF, {{0, {"." + tag}}}),
        section(kind::IP, 1, list(0, 1, ip_entries({{10, 20}}))),
        section(kind::PORT, 1, list(0, 1, port_entries({{135, 139}}))),
        section(kind::IPV6, 1, list(0, 1, ipv6_entries({{kAddr, kAddr}}))),
        map_section(map_kind(Family::StrInt, MT_STRING), std::vector<StrIntEntry>{{tag + ".example", {1, 2}}},
                    MT_STRING),
        map_section(map_kind(Family::StrStr, MT_STRING), std::vector<StrStrEntry>{{"k", {"v2", "v1"}}}, MT_STRING),
        map_section(map_kind(Family::StrIPv6, MT_STRING), std::vector<StrIPv6Entry>{{"host", {kAddr}}}, MT_STRING),
        map_section(map_kind(Family::IntStr, MT_STRING), std::vector<IntStrEntry>{{5, {"five"}}}, MT_STRING),
        map_section(kind::I6IM, std::vector<IPv6IntEntry>{{kAddr, {7, 8}}}, MT_STRING),
        map_section(kind::IIM, std::vector<IntIntEntry>{{80, {1}}}, MT_STRING),
    });
}

Bytes second_payload()
{
    return concat({rule_info_section({{200, 50, "ulm-risk", 1, 1, "ulm rule", {}, {}}}), ulm_info_section("second"),
                   string_section(kind::STR, {{0, {"ulm.example"}}})});
}

const Bytes kRaw = {'r', 'a', 'w', 0, 1};

Bytes file_a() { return tazt::pattern_file(main_payload("alpha", 100), kVerA, second_payload(), kRaw); }
Bytes file_b() { return tazt::pattern_file(main_payload("beta", 101), kVerB); }

/* Pattern files in their own directories, named as the directory scan expects. */
struct Files {
    std::string dir_a = tazt::temp_dir(), dir_bad = tazt::temp_dir(), dir_empty = tazt::temp_dir();
    std::string a = dir_a + "/" + pattern_file_name("taz", kVerA);
    std::string b = tazt::write_temp(file_b(), pattern_file_name("taz", kVerB));
    std::string bad = dir_bad + "/" + pattern_file_name("taz", kVerB);
    std::string ulm_only = tazt::write_temp(file_of({{8, second_payload()}}));
    Files()
    {
        EXPECT_TRUE(write_file(a, file_a()));
        Container c; /* named for version B, with a digest that does not fit */
        c.ptnVer = kVerB;
        SubPattern s;
        s.payload = main_payload("beta", 101);
        s.flip_digest_bit = true;
        c.subs.push_back(s);
        EXPECT_TRUE(write_file(bad, build_container(c)));
    }
};

const Files &files()
{
    static const Files f;
    return f;
}

/* ---- results shown as text: "none" for nullopt ---------------------------------------- */
std::string show(unsigned v) { return std::to_string(v); }
std::string show(std::size_t v) { return std::to_string(v); }
std::string show(const std::string &s) { return "'" + s + "'"; }
std::string show(std::string_view s) { return show(std::string(s)); }
std::string show(bool b) { return b ? "yes" : "no"; }
std::string show(taze::map_answer a) { return std::to_string(static_cast<int>(a)); }
std::string show(const taze::clean_check &c) { return c.clean ? "clean:" + show(c.target) : "keep"; }
std::string show(const taze::clean_data &c) { return show(c.priority) + ":" + show(c.src) + "/" + show(c.dst); }
std::string show(const taze::ipv6 &a) { return a == kAddr ? "A" : "?"; }
template <class T>
std::string show(const taze::view<T> &v)
{
    std::string s = "[";
    for (auto x : v) s += (s.size() > 1 ? "," : "") + show(x);
    return s + "]";
}
template <class K, class V>
std::string show(const taze::map_entry<K, V> &e)
{
    return show(e.key) + "=" + show(e.values);
}
template <class T>
std::string show(const taze::pinned<T> &p)
{
    return show(*p);
}
template <class T>
std::string show(const std::optional<T> &v)
{
    return v ? show(*v) : "none";
}

/* ---- loading calls: error codes, throwing and non-throwing ------------------------------ */
enum class Start { empty, loaded, moved_from };
enum class Op { load, load_dir, reload_dir };

std::error_code run(taze::handle &h, Op op, const std::string &a, const std::string &b, bool throwing)
{
    try {
        switch (op) {
        case Op::load:
            if (!throwing) return h.try_load(a);
            h.load(a);
            break;
        case Op::load_dir:
            if (!throwing) return h.try_load_dir(a, b);
            h.load_dir(a, b);
            break;
        case Op::reload_dir:
            if (!throwing) return h.try_reload_dir(a, b);
            h.reload_dir(a, b);
            break;
        }
    } catch (const taze::error &e) {
        EXPECT_EQ(&e.code().category(), &taze::error_category());
        EXPECT_NE(std::string(e.what()).find("TAZE_"), std::string::npos) << e.what();
        EXPECT_EQ(e.value(), static_cast<taze::errc>(e.code().value()));
        return e.code();
    }
    return {};
}

TEST(CppApi, LoadingErrors)
{
    const Files &f = files();
    const std::string with_nul = f.a + std::string(1, '\0') + "junk";
    struct Case {
        const char *name;
        Start start;
        Op op;
        std::string a, b;
        std::optional<taze::errc> expect; /* nullopt: success */
    };
    const std::vector<Case> cases = {
        {"load a good file", Start::empty, Op::load, f.a, "", std::nullopt},
        {"load a missing file", Start::empty, Op::load, f.dir_empty + "/none.ptn", "", taze::errc::open_r},
        {"load a broken file", Start::empty, Op::load, f.bad, "", taze::errc::read},
        {"load a file without main pattern", Start::empty, Op::load, f.ulm_only, "", taze::errc::read},
        {"load into a loaded handle", Start::loaded, Op::load, f.a, "", taze::errc::para},
        {"load into a moved-from handle", Start::moved_from, Op::load, f.a, "", taze::errc::para},
        {"a path with a NUL inside is not cut short", Start::empty, Op::load, with_nul, "", taze::errc::para},
        {"load a directory", Start::empty, Op::load_dir, f.dir_a, "taz", std::nullopt},
        {"load a directory without matching file", Start::empty, Op::load_dir, f.dir_a, "zzz", taze::errc::access},
        {"load an empty directory", Start::empty, Op::load_dir, f.dir_empty, "taz", taze::errc::access},
        {"reload an empty handle", Start::empty, Op::reload_dir, f.dir_a, "taz", taze::errc::para},
        {"reload a loaded handle", Start::loaded, Op::reload_dir, f.dir_a, "taz", std::nullopt},
        {"reload from broken files keeps the old pattern", Start::loaded, Op::reload_dir, f.dir_bad, "taz",
         taze::errc::read},
    };
    for (const Case &c : cases) {
        for (bool throwing : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (throwing ? " (throwing)" : ""));
            taze::handle h;
            if (c.start == Start::loaded) h.load(f.a);
            if (c.start == Start::moved_from) taze::handle other(std::move(h));
            const std::error_code ec = run(h, c.op, c.a, c.b, throwing);
            if (c.expect) {
                EXPECT_EQ(ec, *c.expect) << ec.message();
            } else {
                EXPECT_FALSE(ec) << ec.message();
            }
            const bool loaded = c.start == Start::loaded || !c.expect;
            EXPECT_EQ(h.loaded(), loaded);
            EXPECT_EQ(show(h.pattern_version()), loaded ? "'1.00077.35'" : "none");
        }
    }
}

TEST(CppApi, ErrorCategory)
{
    struct Case {
        taze::errc e;
        int code;
        const char *name;
    };
    for (const Case &c : {Case{taze::errc::para, PARA_ERR, "PARA_ERR"}, Case{taze::errc::no_mem, NO_MEM_ERR, "NO_MEM_ERR"},
                          Case{taze::errc::read, READ_ERR, "READ_ERR"}, Case{taze::errc::access, ACCESS_ERR, "ACCESS_ERR"},
                          Case{taze::errc::unknown, UNKNOWN_ERR, "UNKNOWN_ERR"}}) {
        const std::error_code ec = c.e;
        EXPECT_EQ(ec.value(), c.code);
        EXPECT_STREQ(ec.category().name(), "taze");
        EXPECT_NE(ec.message().find(c.name), std::string::npos) << ec.message();
    }
    EXPECT_EQ(std::error_code(taze::errc::no_mem), std::errc::not_enough_memory);
    EXPECT_NE(std::error_code(taze::errc::para), std::errc::not_enough_memory);
    EXPECT_EQ(taze::error_category().message(5), "taze error 5");
    std::string v;
    EXPECT_FALSE(taze::try_peek_version(files().a, v));
    EXPECT_EQ(v, "1.00077.35");
    EXPECT_THROW(taze::peek_version(files().dir_empty + "/none.ptn"), taze::error);
}

/* ---- ownership ------------------------------------------------------------------------------ */
TEST(CppApi, HandleOwnership)
{
    taze::handle h;
    h.load(files().a);
    TAZE *const native = h.native();

    taze::handle moved(std::move(h));
    EXPECT_EQ(moved.native(), native);
    EXPECT_EQ(h.native(), nullptr);
    EXPECT_FALSE(h.loaded());
    EXPECT_EQ(show(h.rule_count()), "none");
    EXPECT_EQ(show(h.threat_type(100)), "none") << "the C function would read a missing pattern";
    EXPECT_EQ(h.point_to(taze::kind::ulm), taze::errc::para);

    taze::handle target;
    target.load(files().b);
    target = std::move(moved); /* releases B's handle (a leak would show under the sanitizer) */
    EXPECT_EQ(target.native(), native);
    EXPECT_EQ(show(target.pattern_version()), "'1.00077.35'");

    /* Switching kinds, then unloading: the handle can load again. */
    EXPECT_FALSE(target.point_to(taze::kind::ulm));
    EXPECT_EQ(show(target.rule_index_desc(0)), "'ulm rule'");
    EXPECT_FALSE(target.point_to(taze::kind::taz));
    EXPECT_EQ(show(target.rule_index_desc(0)), "'seven'");
    target.unload();
    EXPECT_FALSE(target.loaded());
    EXPECT_EQ(show(target.pattern_version()), "none");
    EXPECT_FALSE(target.try_load(files().b));
    EXPECT_EQ(show(target.pattern_version()), "'1.00078.35'");
}

/* ---- optional results and copied strings -------------------------------------------------------- */
TEST(CppApi, OptionalResults)
{
    using Q = const taze::queries &;
    const auto ulm = taze::kind::ulm, taz = taze::kind::taz, bad = static_cast<taze::kind>(2);
    struct Case {
        const char *name;
        std::function<std::string(Q)> get;
        std::string loaded;
        std::string empty = "none"; /* nothing loaded */
    };
    const std::vector<Case> cases = {
        {"rule count", [](Q q) { return show(q.rule_count()); }, "2"},
        {"rule count of the second kind", [&](Q q) { return show(q.rule_count(ulm)); }, "1"},
        {"a kind that does not exist", [&](Q q) { return show(q.rule_count(bad)); }, "none"},
        {"description by position", [](Q q) { return show(q.rule_index_desc(1)); }, "'alpha rule'"},
        {"description past the end", [](Q q) { return show(q.rule_index_desc(2)); }, "none"},
        {"risk by position, second kind", [&](Q q) { return show(q.rule_index_risk(0, ulm)); }, "'ulm-risk'"},
        {"numbers by position", [&](Q q) {
             return show(q.rule_index_rule_id(1)) + show(q.rule_index_cl(1, taz)) + show(q.rule_index_enable(0)) +
                    show(q.rule_index_risk_group(1));
         }, "1007003", "nonenonenonenone"},
        {"description by id in the second kind", [](Q q) { return show(q.rule_id_desc(200)); }, "'ulm rule'"},
        {"description of an unknown id", [](Q q) { return show(q.rule_id_desc(999)); }, "none"},
        {"risk of an unknown id is empty", [](Q q) { return show(q.rule_id_risk(999)); }, "''"},
        {"numbers by id", [&](Q q) { return show(q.rule_id_cl(100)) + show(q.rule_id_risk_group(100, taz)); }, "703", "nonenone"},
        {"clean check", [](Q q) { return show(q.check_rule_clean(100, 6, 1)); }, "clean:2"},
        {"clean check of rule 0", [](Q q) { return show(q.check_rule_clean(0, 6, 1)); }, "none"},
        {"clean data", [](Q q) { return show(q.rule_clean(100)); }, "4:'alpha-src'/''"},
        {"clean data of an unknown rule: success without data", [](Q q) { return show(q.rule_clean(999)); },
         "0:''/''"},
        {"clean table without entries", [](Q q) { return show(q.clean_info(6)); }, "none"},
        {"protocols", [](Q q) {
             return show(q.protocol_count()) + show(q.protocol_index_desc(0)) + show(q.protocol_id_desc(6)) +
                    show(q.protocol_group_index_desc(0)) + show(q.protocol_group_id_protocol(100, 0));
         }, "1'tcp''tcp''transport'6", "nonenonenonenonenone"},
        {"no risk tables: no answer either way, the inbound default", [](Q q) {
             return show(q.known_risk(1, 6).has_value()) + show(q.known_risk(2, 6).has_value());
         }, "noyes", "nono"},
        {"threat type", [](Q q) { return show(q.threat_type(100)) + "," + show(q.threat_type(5)); }, "3,99", "none,none"},
        {"versions", [](Q q) { return show(q.pattern_version()) + show(q.compiler_version()); },
         "'1.00077.35''1.00003.02'", "nonenone"},
    };
    taze::handle empty, loaded;
    loaded.load(files().a);
    taze::reloading_handle holder;
    holder.load(files().a);
    const taze::snapshot snap = holder.current();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.get(loaded), c.loaded);
        EXPECT_EQ(c.get(*snap), c.loaded) << "through a snapshot";
        EXPECT_EQ(c.get(empty), c.empty) << "nothing loaded";
    }
}

/* ---- lists and string arguments ----------------------------------------------------------------- */
TEST(CppApi, ListsAndStringArguments)
{
    taze::handle h;
    h.load(files().a);
    const std::string buffer = "alpha.exampleXYZ";
    const std::string long_buffer = long_text("alpha") + "tail";
    const std::string with_nul = std::string("alpha.example") + '\0' + "x";
    const char *const null_text = nullptr;
    using L = taze::list_kind;
    struct Case {
        const char *name;
        std::optional<bool> got;
        std::optional<bool> expect;
    };
    const std::vector<Case> cases = {
        {"exact, any case", h.search(L::exact, 0, "ALPHA.example"), true},
        {"a view is cut at its end", h.search(L::exact, 0, std::string_view(buffer).substr(0, 13)), true},
        {"the whole buffer", h.search(L::exact, 0, buffer), false},
        {"a long view", h.search(L::exact, 0, std::string_view(long_buffer).substr(0, 305)), true},
        {"a long view, one byte short", h.search(L::exact, 0, std::string_view(long_buffer).substr(0, 304)), false},
        {"an empty view", h.search(L::exact, 0, std::string_view()), false},
        {"a string with a NUL inside", h.search(L::exact, 0, with_nul), std::nullopt},
        {"a view with a NUL inside", h.search(L::exact, 0, std::string_view(with_nul)), std::nullopt},
        {"a null text", h.search(L::exact, 0, null_text), std::nullopt},
        {"suffix", h.search(L::suffix, 0, "www.alpha"), true},
        {"a list number past the end", h.search(L::exact, 5, "alpha.example"), false},
        {"a negative list number", h.search(L::exact, -1, "alpha.example"), std::nullopt},
        {"an unknown list kind", h.search(static_cast<L>(8), 0, "alpha.example"), std::nullopt},
        {"the second kind", h.search(L::exact, 0, "ulm.example", taze::kind::ulm), true},
        {"ip", h.in_ip_range(0, 15), true},
        {"ip outside", h.in_ip_range(0, 21), false},
        {"port", h.in_port_range(0, 137), true},
        {"ipv6", h.in_ipv6_range(0, kAddr), true},
        {"ipv6 outside", h.in_ipv6_range(0, taze::ipv6{}), false},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.got, c.expect) << c.name;
    }
}

/* ---- borrowed results: the same cases on a handle (views) and a snapshot (pinned views) ---------- */
template <class H>
struct ViewCase {
    const char *name;
    std::function<std::string(const H &)> get;
    std::string expect;
};

template <class H>
std::vector<ViewCase<H>> view_cases()
{
    namespace m = taze::maps;
    return {
        {"string list", [](const H &h) { return show(h.string_list(0)); },
         "['alpha.example','" + long_text("alpha") + "','common.example']"},
        {"string list past the end", [](const H &h) { return show(h.string_list(1)); }, "none"},
        {"raw pattern", [](const H &h) { return show(h.raw_pattern().has_value()); }, "yes"},
        {"second kind's name", [](const H &h) { return show(h.ulm_info()); }, "'second'"},
        {"string to integer by key", [](const H &h) { return show(h.template map<m::str_int>(0).find("ALPHA.example")); },
         "'alpha.example'=[1,2]"},
        {"string to integer by index", [](const H &h) {
             const auto map = h.template map<m::str_int>(0);
             return show(map.size()) + show(map.at(0)) + show(map.at(1));
         }, "1'alpha.example'=[1,2]none"},
        {"string to integer search", [](const H &h) {
             const auto map = h.template map<m::str_int>(0);
             return show(map.contains("alpha.example", 2)) + show(map.contains("alpha.example", 9)) +
                    show(map.contains("nope", 1)) + show(map.contains(std::string_view("alpha.example!", 13), 1));
         }, "10-11"},
        {"a map number past the end", [](const H &h) { return show(h.template map<m::str_int>(1).size()); }, "none"},
        {"the second kind has no maps", [](const H &h) {
             return show(h.template map<m::str_int>(0, MT_STRING, taze::kind::ulm).size());
         }, "none"},
        {"string to string", [](const H &h) {
             const auto map = h.template map<m::str_str>(0);
             return show(map.find("k")) + show(map.contains("k", "V1"));
         }, "'k'=['v1','v2']1"},
        {"string to address", [](const H &h) {
             const auto map = h.template map<m::str_ipv6>(0);
             return show(map.find("host")) + show(map.at(0)) + show(map.contains("host", kAddr));
         }, "none'host'=[A]1"},
        {"address to integer", [](const H &h) {
             const auto map = h.template map<m::ipv6_int>(0);
             return show(map.find(kAddr)) + show(map.contains(kAddr, 8)) + show(map.size());
         }, "A=[7,8]11"},
        {"integer to integer", [](const H &h) {
             const auto map = h.template map<m::int_int>(0);
             return show(map.find(80)) + show(map.contains(80, 1)) + show(map.contains(80, 2));
         }, "80=[1]10"},
        {"integer to string", [](const H &h) { return show(h.template map<m::int_str>(0).find(5)); }, "5=['five']"},
    };
}

TEST(CppApi, ViewsOnHandleAndSnapshot)
{
    taze::handle h;
    h.load(files().a);
    for (const auto &c : view_cases<taze::handle>()) EXPECT_EQ(c.get(h), c.expect) << c.name;

    taze::reloading_handle holder;
    holder.load(files().a);
    const taze::snapshot snap = holder.current();
    for (const auto &c : view_cases<taze::snapshot>()) EXPECT_EQ(c.get(snap), c.expect) << c.name << " (snapshot)";

    const auto raw = h.raw_pattern();
    ASSERT_TRUE(raw);
    EXPECT_EQ(Bytes(raw->data(), raw->data() + raw->size()), kRaw);
    const auto list = h.string_list(0);
    ASSERT_TRUE(list);
    EXPECT_EQ(list->at(2), "common.example");
    EXPECT_THROW(list->at(3), std::out_of_range);
    EXPECT_TRUE(taze::view<std::uint32_t>().empty());
}

/* ---- the reload holder ----------------------------------------------------------------------------- */
TEST(CppApi, ReloadHolder)
{
    const Files &f = files();
    taze::reloading_handle holder;
    EXPECT_EQ(show(holder.current()->rule_count()), "none");
    EXPECT_EQ(holder.try_reload(), taze::errc::para) << "nothing loaded yet";
    EXPECT_EQ(holder.try_point_to(taze::kind::ulm), taze::errc::para);

    holder.load(f.a);
    taze::reloading_handle::reader reader(holder);
    const taze::snapshot *first = &reader.current();
    EXPECT_EQ(&reader.current(), first) << "no new pattern: the cached snapshot";
    const auto pinned_list = holder.current().string_list(0);
    const std::uint64_t gen = holder.generation();

    holder.load_dir(f.dir_a, "taz");
    holder.load(f.b);
    EXPECT_EQ(holder.generation(), gen + 2);
    EXPECT_EQ(show(reader.current()->pattern_version()), "'1.00078.35'");
    /* Pinned results of the first pattern stay readable after two reloads. */
    EXPECT_EQ(show(pinned_list), "['alpha.example','" + long_text("alpha") + "','common.example']");

    struct Case {
        const char *name;
        std::function<std::error_code()> op;
        std::optional<taze::errc> expect;
        std::string version, desc; /* what the published pattern says afterwards */
    };
    const std::vector<Case> cases = {
        {"a broken file keeps the published pattern", [&] { return holder.try_load(f.bad); }, taze::errc::read,
         "'1.00078.35'", "'seven'"},
        {"a bad argument", [&] { return holder.try_load(nullptr); }, taze::errc::para, "'1.00078.35'", "'seven'"},
        {"reload the last source", [&] { return holder.try_reload(); }, std::nullopt, "'1.00078.35'", "'seven'"},
        {"switch to a kind that is missing", [&] { return holder.try_point_to(taze::kind::ulm); }, std::nullopt,
         "'1.00078.35'", "none"},
        {"load keeps the chosen kind", [&] { return holder.try_load(f.a); }, std::nullopt, "'1.00077.35'",
         "'ulm rule'"},
        {"switch back", [&] { return holder.try_point_to(taze::kind::taz); }, std::nullopt, "'1.00077.35'", "'seven'"},
        {"directory", [&] { return holder.try_load_dir(f.dir_empty, "taz"); }, taze::errc::access, "'1.00077.35'",
         "'seven'"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::uint64_t before = holder.generation();
        const std::error_code ec = c.op();
        EXPECT_EQ(ec ? std::optional<taze::errc>(static_cast<taze::errc>(ec.value())) : std::nullopt, c.expect);
        EXPECT_EQ(holder.generation(), before + (ec ? 0 : 1));
        EXPECT_EQ(show(holder.current()->pattern_version()), c.version);
        EXPECT_EQ(show(holder.current()->rule_index_desc(0)), c.desc);
    }
    EXPECT_THROW(holder.load(f.dir_empty + "/none.ptn"), taze::error);
    EXPECT_NO_THROW(holder.reload());
}

/* The holder's report after each load: the file it took and why every
 * other entry of the directory was passed over. */
TEST(CppApi, ReloadReport)
{
    using R = taze::candidates::reason;
    const Files &f = files();
    const std::string dir = tazt::temp_dir(), a = dir + "/" + pattern_file_name("taz", kVerA);
    ASSERT_TRUE(write_file(a, file_a()));
    ASSERT_TRUE(write_file(dir + "/notes.txt", {'x'}));
    taze::reloading_handle holder;
    holder.load_dir(dir, "taz");
    ASSERT_TRUE(std::filesystem::copy_file(f.bad, dir + "/" + pattern_file_name("taz", kVerB)));
    const auto reasons = [](const taze::load_report &r) {
        std::string s;
        for (const auto &e : r.entries)
            if (e.name != "notes.txt" || e.reason != R::prefix_mismatch)
                s += e.name + ":" + taze::candidates::reason_name(e.reason) + ":" + std::to_string(e.result) + " ";
        return s;
    };
    const std::string a_name = pattern_file_name("taz", kVerA), b_name = pattern_file_name("taz", kVerB);
    const struct {
        const char *name;
        std::function<std::error_code()> op;
        int result;
        std::string path, reasons; /* reasons sorted by name; notes.txt left out */
    } cases[] = {
        {"the newest file is broken: the older one loads, the newest is reported",
         [&] { return holder.try_reload(); }, 0, a, a_name + ":loaded:0 " + b_name + ":load_failed:-96 "},
        {"nothing loads: the published pattern stays", [&] {
             std::remove(a.c_str());
             return holder.try_reload();
         },
         READ_ERR, "", b_name + ":load_failed:-96 "},
        {"a file", [&] { return holder.try_load(f.b); }, 0, f.b, ""},
        {"no directory", [&] { return holder.try_load_dir(dir + "/none", "taz"); }, ACCESS_ERR, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::uint64_t gen = holder.generation();
        EXPECT_EQ(c.op().value(), c.result);
        EXPECT_EQ(holder.generation(), gen + (c.result == 0 ? 1 : 0));
        taze::load_report r = holder.last_report();
        std::sort(r.entries.begin(), r.entries.end(), [](const auto &x, const auto &y) { return x.name < y.name; });
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(r.path, c.path);
        EXPECT_EQ(r.version, c.path.empty() ? 0 : c.path == a ? kVerA : kVerB);
        EXPECT_EQ(reasons(r), c.reasons);
    }
    EXPECT_EQ(show(holder.current()->pattern_version()), "'1.00078.35'");
}

} // namespace
