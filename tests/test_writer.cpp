/* The container writer byte by byte, its overrides for malformed files,
 * file names, and the store orders that the library's bisection needs. */
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

#include "test_support.h"
#include "taze_impl.h"
#include "tazeptn.h"

namespace {

using tazw::Bytes;
using tazw::Order;

Bytes hex(const std::string &text)
{
    Bytes out;
    std::string digits;
    for (char c : text)
        if (c != ' ') digits += c;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(std::uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::uint32_t be32(const Bytes &b, std::size_t at)
{
    return std::uint32_t(b.at(at)) << 24 | std::uint32_t(b.at(at + 1)) << 16 | std::uint32_t(b.at(at + 2)) << 8 |
           b.at(at + 3);
}

tazw::SubPattern plain(std::uint16_t subtype, const std::string &payload)
{
    tazw::SubPattern s;
    s.subtype = subtype;
    s.enctype = KORM_ENC_NONE;
    s.payload.assign(payload.begin(), payload.end());
    return s;
}

/* Two plain sub-patterns, the second behind 8 bytes of filler. */
tazw::Container two_subs()
{
    tazw::Container c;
    c.ptnVer = KORM_MAKE_PATTERN_VER(1, 35, 77);
    c.subs.push_back(plain(7, "abc"));
    tazw::SubPattern raw = plain(9, "XY");
    raw.minver = 1;
    raw.maxver = 2;
    raw.offset = 99; /* its header ends at 91 */
    c.subs.push_back(raw);
    return c;
}

TEST(Writer, PlainContainerLayout)
{
    const Bytes want = hex(
        "54415A50 0001 0000 1230004D 00000002 00000000 00000000 00000000 00000000" /* main header */
        "0007 0000 00000000 00000000 00000000"                                     /* sub 1 at 32 */
        "00000003 00000003 00000000000000000000000000000000 616263"                /* enc 1, body */
        "0009 0000 00000001 00000002 00000063"                                     /* sub 2 at 75 */
        "0000000000000000"                                                         /* filler 91..98 */
        "00000002 00000002 00000000000000000000000000000000 5859");                /* enc 2, body */
    EXPECT_EQ(tazw::build_container(two_subs()), want);
}

TEST(Writer, Overrides)
{
    struct Case {
        std::string name;
        std::function<void(tazw::Container &)> change;
        std::size_t at;    /* offset of the changed bytes */
        std::string want;  /* hex of the bytes there */
        std::size_t size;  /* size of the whole file */
    };
    const std::vector<Case> cases = {
        {"defaults", [](tazw::Container &) {}, 0, "54415A50 0001 0000", 125},
        {"other magic", [](tazw::Container &c) { c.magic = "TAZX"; }, 0, "54415A58", 125},
        {"short magic is padded", [](tazw::Container &c) { c.magic = "TA"; }, 0, "54410000 0001", 125},
        {"long magic is cut", [](tazw::Container &c) { c.magic = "TAZPQ"; }, 0, "54415A50 0001", 125},
        {"format version and mbz", [](tazw::Container &c) { c.fmtVer = 2; c.mbz = 7; }, 4, "0002 0007", 125},
        {"count", [](tazw::Container &c) { c.cntSub = 5; }, 12, "00000005", 125},
        {"enclen", [](tazw::Container &c) { c.subs[0].enclen = 0x01020304; }, 48, "01020304 00000003 00", 125},
        {"declen", [](tazw::Container &c) { c.subs[0].declen = 9; }, 48, "00000003 00000009 00", 125},
        {"digest bit", [](tazw::Container &c) { c.subs[0].flip_digest_bit = true; }, 56, "01 00", 125},
        {"body byte", [](tazw::Container &c) { c.subs[0].flip_body_byte = 1; }, 72, "61 9D 63", 125},
        {"body byte beyond the body", [](tazw::Container &c) { c.subs[0].flip_body_byte = 3; }, 72,
         "616263 0009", 125},
        {"offset at the position: no filler", [](tazw::Container &c) { c.subs[1].offset = 91; }, 87,
         "0000005B 00000002", 117},
        {"offset behind the position: no filler", [](tazw::Container &c) { c.subs[1].offset = 10; }, 87,
         "0000000A 00000002", 117},
        {"offset of the first sub", [](tazw::Container &c) { c.subs[0].offset = 50; }, 44,
         "00000032 0000 00000003", 125},
        {"engine versions", [](tazw::Container &c) { c.subs[0].minver = 0x10002; c.subs[0].maxver = 3; }, 32,
         "0007 0000 00010002 00000003", 125},
        {"no sub-patterns", [](tazw::Container &c) { c.subs.clear(); }, 12, "00000000", 32},
    };
    for (const Case &k : cases) {
        tazw::Container c = two_subs();
        k.change(c);
        const Bytes file = tazw::build_container(c);
        const Bytes want = hex(k.want);
        ASSERT_EQ(file.size(), k.size) << k.name;
        EXPECT_EQ(Bytes(file.begin() + long(k.at), file.begin() + long(k.at + want.size())), want) << k.name;
    }
}

TEST(Writer, EncryptedSubPatterns)
{
    for (std::size_t n : {0u, 1u, 16u, 31u, 32u, 33u, 48u, 1000u}) {
        tazw::Container c;
        tazw::SubPattern s;
        s.payload = Bytes(n, std::uint8_t('q'));
        s.offset = 60; /* 12 bytes of filler */
        c.subs.push_back(s);
        const Bytes file = tazw::build_container(c);
        const std::size_t body = std::max<std::size_t>(32, (n + 15) / 16 * 16);
        ASSERT_EQ(file.size(), 60 + 24 + body) << n;
        EXPECT_EQ(be32(file, 32), 0x00070001u) << n; /* subtype, enctype */
        EXPECT_EQ(be32(file, 60), body) << n;
        EXPECT_EQ(be32(file, 64), n) << n; /* the body itself: test_crypto */
    }
}

TEST(Writer, FileNamesAndFiles)
{
    EXPECT_EQ(tazw::pattern_file_name("a", KORM_MAKE_PATTERN_VER(1, 35, 77)), "a77.ptn");
    EXPECT_EQ(tazw::pattern_file_name("tz", 0xFFFFFFFFu), "tz1048575.ptn");
    EXPECT_EQ(tazw::pattern_file_name("", 0), "0.ptn");

    const std::string dir = tazt::temp_dir();
    const Bytes data = tazw::build_container(two_subs());
    ASSERT_TRUE(tazw::write_file(dir + "/f.ptn", data));
    std::ifstream in(dir + "/f.ptn", std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), data);
    EXPECT_TRUE(tazw::write_file(dir + "/empty.ptn", {}));
    EXPECT_FALSE(tazw::write_file(dir + "/missing/f.ptn", data));
}

TEST(Writer, PairOrders)
{
    using namespace std::string_literals;
    const struct {
        Order order;
        std::string a, b;
        bool a_first, b_first;
    } cases[] = {
        {Order::Fold, "abc", "ABD", true, false},
        {Order::Fold, "ABC", "abc", false, false},       /* equal under folding */
        {Order::Fold, "_", "A", true, false},            /* 'A' folds to 0x61, after '_' */
        {Order::Fold, "z", "\x80", true, false},         /* high bytes after ASCII */
        {Order::Fold, "\xC4", "\xE4", true, false},      /* only ASCII letters fold */
        {Order::Fold, "ab\0z"s, "ab", false, false},     /* C text ends at the NUL */
        {Order::Bytewise, "A", "_", true, false}, {Order::Bytewise, "B", "a", true, false},
        {Order::Bytewise, "~", "\xFF", true, false},
        {Order::FoldReversed, "log", "a.log", true, false},    /* a proper suffix first */
        {Order::FoldReversed, "backup.log", ".backup.log", true, false},
        {Order::FoldReversed, "xa", "ab", true, false},        /* compared from the last byte */
        {Order::FoldReversed, "B.com", "b.COM", false, false}, {Order::FoldReversed, "a_", "aB", true, false},
        {Order::BytewiseReversed, "xA", "xa", true, false}, {Order::BytewiseReversed, "Ab", "ab", true, false},
        {Order::Any, "a", "b", false, false},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(tazw::less_in(c.order, c.a, c.b), c.a_first) << c.a << " / " << c.b;
        EXPECT_EQ(tazw::less_in(c.order, c.b, c.a), c.b_first) << c.b << " / " << c.a;
    }
}

} // namespace
