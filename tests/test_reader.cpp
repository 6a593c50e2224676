/* The streaming container reader, the version peek, the record release
 * rules and the header converters: containers built by the writer are fed
 * in chunks, cut short and damaged byte by byte, and the records the reader
 * leaves behind are checked. */
#include <memory>
#include <ostream>
#include <regex>
#include <tuple>

#include "counting_alloc.h"
#include "readptn.h"
#include "taze_impl.h"
#include "tazeptn.h"
#include "test_support.h"
#include "vkerror.h"

namespace {

using tazw::Bytes;

constexpr std::uint32_t kVer = 0x1230004D; /* 1.00077.35 */

/* Payloads of fewer than 16 bytes hold no section: they load as empty images. */
const Bytes kTaz = {'m', 'a', 'i', 'n'};
const Bytes kUlm = {'s', 'e', 'c', 'o', 'n', 'd'};
const Bytes kRaw = [] {
    Bytes b;
    for (int i = 0; i < 70; ++i) b.push_back(std::uint8_t(i * 7 + 3));
    return b;
}();
/* 40 bytes: one section of a kind the loader skips. */
const Bytes kSkippedSection = tazw::section(0x12345678u, 0, Bytes(24, 'x'));

tazw::SubPattern sub(std::uint16_t kind, const Bytes &payload, std::uint16_t enctype = KORM_ENC_NONE)
{
    tazw::SubPattern s;
    s.subtype = kind;
    s.enctype = enctype;
    s.payload = payload;
    return s;
}

template <typename Change>
tazw::SubPattern with(tazw::SubPattern s, Change change)
{
    change(s);
    return s;
}

Bytes container(const std::vector<tazw::SubPattern> &subs, std::uint32_t ptnVer = kVer)
{
    tazw::Container c;
    c.ptnVer = ptnVer;
    c.subs = subs;
    return tazw::build_container(c);
}

/* Where each sub-pattern lies: header, body and end of body. */
struct Span {
    std::size_t header, body, end;
};
std::vector<Span> layout(const std::vector<tazw::SubPattern> &subs)
{
    std::vector<Span> out;
    std::size_t pos = KORMHEAD_SIZE;
    for (const auto &s : subs) {
        Bytes body = s.payload;
        std::uint8_t digest[16];
        if (s.enctype) tazw::encrypt_body(s.payload, body, digest);
        const std::size_t start = std::max<std::size_t>(pos + KORMSUB_SIZE, s.offset) + ENCHEAD_SIZE;
        out.push_back({pos, start, start + body.size()});
        pos = start + body.size();
    }
    return out;
}

/* The three kinds, the second one behind a filler of `gap` bytes. */
std::vector<tazw::SubPattern> three_kinds(std::uint16_t enctype, std::uint32_t gap = 0)
{
    std::vector<tazw::SubPattern> subs = {sub(KORM_SUB_TAZE_RULE, kTaz, enctype), sub(KORM_SUB_ULM_RULE, kUlm, enctype),
                                          sub(KORM_SUB_YUB_RULE, kRaw, enctype)};
    if (gap) subs[1].offset = std::uint32_t(layout({subs[0]})[0].end + KORMSUB_SIZE + gap);
    return subs;
}

/* What reading one file left behind. */
struct Outcome {
    int feed; /* first non-zero result while feeding */
    int end;  /* result of the end of input */
    bool taz, ulm;
    std::uint32_t version;
    Bytes raw;
    bool operator==(const Outcome &o) const
    {
        return std::tie(feed, end, taz, ulm, version, raw) == std::tie(o.feed, o.end, o.taz, o.ulm, o.version, o.raw);
    }
};
std::ostream &operator<<(std::ostream &os, const Outcome &o)
{
    return os << "{feed " << o.feed << ", end " << o.end << ", taz " << o.taz << ", ulm " << o.ulm << ", version 0x"
              << std::hex << o.version << std::dec << ", raw " << o.raw.size() << " bytes}";
}
Outcome loaded(bool taz, bool ulm, Bytes raw = {}) { return {0, 0, taz, ulm, kVer, std::move(raw)}; }
Outcome failed(int feed, bool taz = false) { return {feed, -1, taz, false, 0, {}}; }

struct ReaderDeleter {
    void operator()(QDPatternBuf *p) const { delPatternBuffer(p); }
};
using Reader = std::unique_ptr<QDPatternBuf, ReaderDeleter>;

/* Chunk size 0: the file is read by readPatternFile, as TAZE_LoadPattern
 * reads it; its failure is the reader's latched code, counted at the end. */
constexpr std::size_t kFromFile = 0;

/* Feed the first `size` bytes of file in chunks, each in its own exactly
 * sized buffer (so that a read past a chunk is caught), then end the input. */
Outcome read_bytes(const Bytes &file, std::size_t chunk, std::size_t size)
{
    Reader r(newPatternBuffer());
    int feed = 0;
    int end = 0;
    if (chunk == kFromFile) {
        static const std::string path = tazt::temp_dir() + "/cut.ptn";
        EXPECT_TRUE(tazw::write_file(path, Bytes(file.begin(), file.begin() + long(size))));
        std::FILE *f = std::fopen(path.c_str(), "rb");
        end = readPatternFile(r.get(), f) == 0 ? 0 : r->status;
        std::fclose(f);
    } else {
        for (std::size_t off = 0; off < size && feed == 0; off += chunk) {
            std::vector<char> piece(file.begin() + long(off), file.begin() + long(std::min(off + chunk, size)));
            feed = putPatternBuffer(r.get(), piece.data(), int(piece.size()));
        }
        char none = 0;
        end = putPatternBuffer(r.get(), &none, 0);
    }
    const struct _TAZPattern *rec = r->pTAZPattern;
    const struct _RawPattern *raw = r->pRawPattern[TAZE_YUB];
    return {feed, end, rec->taz_ptn != nullptr, rec->ulm_ptn != nullptr, rec->patternVer,
            raw->data ? Bytes(raw->data, raw->data + raw->len) : Bytes()};
}
Outcome read_file(const Bytes &file, std::size_t chunk = 32) { return read_bytes(file, chunk, file.size()); }

/* A main payload of about 700 KiB (several decryption steps): one section
 * of a kind the loader skips. */
Bytes big_payload()
{
    Bytes data(700 * 1024 + 5);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = std::uint8_t(i * 131 + (i >> 9));
    return tazw::section(0x12345678u, 0, data);
}

TEST(Reader, EveryChunkSizeBuildsTheSameRecord)
{
    const struct {
        const char *name;
        Bytes file;
    } files[] = {
        {"plain", container(three_kinds(KORM_ENC_NONE))},
        {"plain, filler of 700", container(three_kinds(KORM_ENC_NONE, 700))},
        {"encrypted", container(three_kinds(KORM_ENC_TFSH_MD5))},
        {"encrypted, filler of 3000", container(three_kinds(KORM_ENC_TFSH_MD5, 3000))},
        {"encrypted bodies of several decryption steps", container({sub(KORM_SUB_TAZE_RULE, big_payload(), KORM_ENC_TFSH_MD5),
                                                                   sub(KORM_SUB_ULM_RULE, kUlm, KORM_ENC_TFSH_MD5),
                                                                   sub(KORM_SUB_YUB_RULE, kRaw, KORM_ENC_TFSH_MD5)})},
    };
    for (const auto &f : files)
        for (std::size_t chunk : {kFromFile, std::size_t(1), std::size_t(7), std::size_t(32), std::size_t(3000),
                                  std::size_t(4096), std::size_t(300007), f.file.size()})
            EXPECT_EQ(read_file(f.file, chunk), loaded(true, true, kRaw)) << f.name << ", chunks of " << chunk;
}

/* Cut at every byte: inside a header or filler the end of input fails;
 * inside a body it is accepted, without the version; an image exists only
 * once its whole body was read. */
TEST(Reader, EveryTruncationEndsCleanly)
{
    for (std::uint16_t enctype : {KORM_ENC_NONE, KORM_ENC_TFSH_MD5}) {
        const auto subs = three_kinds(enctype, 100);
        const Bytes file = container(subs);
        const auto spans = layout(subs);
        ASSERT_EQ(spans.back().end, file.size());
        for (std::size_t cut = 0; cut < file.size(); ++cut) {
            bool in_body = false;
            for (const Span &s : spans) in_body = in_body || (cut >= s.body && cut < s.end);
            const Outcome expected{0, in_body ? 0 : -1, cut >= spans[0].end, cut >= spans[1].end, 0, {}};
            EXPECT_EQ(read_bytes(file, 32, cut), expected) << "enctype " << enctype << ", cut at " << cut;
            EXPECT_EQ(read_bytes(file, kFromFile, cut).end, expected.end) << "file, enctype " << enctype << ", cut at " << cut;
        }
    }
}

TEST(Reader, ContainerEdgeCases)
{
    auto file = [](std::vector<tazw::SubPattern> subs, auto change) {
        tazw::Container c;
        c.ptnVer = kVer;
        c.subs = std::move(subs);
        change(c);
        return tazw::build_container(c);
    };
    auto cut = [](Bytes b, std::size_t size) {
        b.resize(size);
        return b;
    };
    const std::uint32_t header_end = KORMHEAD_SIZE + KORMSUB_SIZE; /* file position after the first header */
    const auto taz = sub(KORM_SUB_TAZE_RULE, kTaz);
    const auto taz_enc = sub(KORM_SUB_TAZE_RULE, kSkippedSection, KORM_ENC_TFSH_MD5); /* 48 bytes stored */
    const auto at_once = with(taz, [&](auto &s) { s.offset = header_end; });
    Bytes trailing = container({taz});
    trailing.insert(trailing.end(), 5000, 0xEE);

    const struct {
        const char *name;
        Bytes file;
        Outcome expected;
    } cases[] = {
        {"no sub-pattern: waits for a header", file({}, [](auto &c) { c.cntSub = 0; }), failed(0)},
        {"cntSub 2, one sub-pattern", file({taz}, [](auto &c) { c.cntSub = 2; }), failed(0, true)},
        {"cntSub 0, one sub-pattern read", file({taz}, [](auto &c) { c.cntSub = 0; }), loaded(true, false)},
        {"bad magic", file({taz}, [](auto &c) { c.magic = "TAZQ"; }), failed(-1)},
        {"shorter than a main header", cut(container({taz}), 31), failed(0)},
        {"fmtVer and mbz unchecked", file({taz}, [](auto &c) { c.fmtVer = 2, c.mbz = 1; }), loaded(true, false)},
        {"filler of 3000", container({with(taz, [&](auto &s) { s.offset = header_end + 3000; })}), loaded(true, false)},
        {"filler of 3001", container({with(taz, [&](auto &s) { s.offset = header_end + 3001; })}), failed(-1)},
        {"offset behind: read at once", container({with(taz, [](auto &s) { s.offset = 10; })}), loaded(true, false)},
        {"offset at the position", container({at_once}), loaded(true, false)},
        {"offset at the position, cut there", cut(container({at_once}), header_end), failed(0)},
        {"minver 1 skipped", container({with(taz, [](auto &s) { s.minver = 1; })}), loaded(false, false)},
        {"maxver 1 skipped", container({with(taz, [](auto &s) { s.maxver = 1; })}), loaded(false, false)},
        {"kind 6 skipped", container({with(taz, [](auto &s) { s.subtype = 6; })}), loaded(false, false)},
        {"enclen 0: no image", container({sub(KORM_SUB_TAZE_RULE, {})}), loaded(false, false)},
        {"second kind alone", container({sub(KORM_SUB_ULM_RULE, kUlm)}), loaded(false, true)},
        {"raw plain: len is declen", container({sub(KORM_SUB_YUB_RULE, kRaw)}), loaded(false, false, kRaw)},
        /* A main body stored with bytes beyond its payload: the image keeps
         * the payload (its buffer cut down when far longer), at the first
         * capacity step and beyond it. */
        {"main, body 100,000 bytes beyond its payload", container({with(taz, [](auto &s) {
             s.payload.resize(s.payload.size() + 100000, 0xAB);
             s.declen = std::uint32_t(kTaz.size());
         })}),
         loaded(true, false)},
        {"main, body ending just before 64 KiB", container({with(taz, [](auto &s) {
             s.payload.resize(65536 - 16, 0);
             s.declen = std::uint32_t(kTaz.size());
         })}),
         loaded(true, false)},
        {"raw, declen below enclen", container({with(sub(KORM_SUB_YUB_RULE, kRaw), [](auto &s) { s.declen = 5; })}),
         loaded(false, false, Bytes(kRaw.begin(), kRaw.begin() + 5))},
        {"raw encrypted", container({sub(KORM_SUB_YUB_RULE, kRaw, KORM_ENC_TFSH_MD5)}), loaded(false, false, kRaw)},
        {"second raw body replaces the first", container({sub(KORM_SUB_YUB_RULE, Bytes(20, 'a')), sub(9, kRaw)}),
         loaded(false, false, kRaw)},
        {"enctype 2 reads as plain", container({with(taz, [](auto &s) { s.enctype = 2; })}), loaded(true, false)},
        {"trailing bytes ignored", trailing, loaded(true, false)},
        {"encrypted", container({taz_enc}), loaded(true, false)},
        {"altered digest", container({with(taz_enc, [](auto &s) { s.flip_digest_bit = true; })}), failed(-1)},
        {"altered key byte", container({with(taz_enc, [](auto &s) { s.flip_body_byte = 21; })}), failed(-1)},
        /* Lengths that would let decryption or the digest leave the body. */
        {"encrypted, declen > enclen", container({with(taz_enc, [](auto &s) { s.declen = 49; })}), failed(-1)},
        {"plain, declen > enclen", container({with(taz, [](auto &s) { s.declen = 5; })}), failed(-1)},
        {"enclen not whole blocks", container({with(taz_enc, [](auto &s) { s.enclen = 40; })}), failed(-1)},
        {"enclen below 32", container({with(taz_enc, [](auto &s) { s.enclen = 16, s.declen = 16; })}), failed(-1)},
        {"enclen of 2^31", container({with(taz, [](auto &s) { s.minver = 1, s.enclen = 0x80000000u; })}), failed(-1)},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(read_file(c.file, 32), c.expected) << c.name << ", chunks of 32";
        EXPECT_EQ(read_file(c.file, c.file.size() + 1), c.expected) << c.name << ", one piece";
    }
}

/* A second body of a kind replaces the first image, which is released
 * (the leak checker would report it otherwise): the later one answers. */
TEST(Reader, LaterBodyOfAKindWins)
{
    for (std::uint16_t kind : {KORM_SUB_TAZE_RULE, KORM_SUB_ULM_RULE}) {
        std::vector<char> b = [&] {
            Bytes f = container({sub(kind, kTaz), sub(kind, kSkippedSection, KORM_ENC_TFSH_MD5)});
            return std::vector<char>(f.begin(), f.end());
        }();
        Reader r(newPatternBuffer());
        ASSERT_EQ(putPatternBuffer(r.get(), b.data(), int(b.size())), 0);
        ASSERT_EQ(putPatternBuffer(r.get(), b.data(), 0), 0);
        const taz_pattern_st *img = kind == KORM_SUB_TAZE_RULE ? r->pTAZPattern->taz_ptn : r->pTAZPattern->ulm_ptn;
        ASSERT_NE(img, nullptr) << kind;
        EXPECT_EQ(img->ptn_len, kSkippedSection.size()) << kind;
    }
}

/* The first failure is latched: later input and the end of input return it
 * without even staging the bytes. Faults of the call itself, and input
 * after the end, are not latched. */
TEST(Reader, StatusIsLatched)
{
    const Bytes good = container({sub(KORM_SUB_TAZE_RULE, kTaz)});
    std::vector<char> b(good.begin(), good.end()), x = b;
    x[0] = 'X';
    Reader r(newPatternBuffer());
    EXPECT_EQ(putPatternBuffer(nullptr, b.data(), int(b.size())), -1);
    EXPECT_EQ(putPatternBuffer(r.get(), nullptr, 5), -1);
    EXPECT_EQ(putPatternBuffer(r.get(), x.data(), int(x.size())), -1);
    const int held = r->bufIndex;
    EXPECT_EQ(putPatternBuffer(r.get(), b.data(), int(b.size())), -1);
    EXPECT_EQ(r->bufIndex, held);
    EXPECT_EQ(putPatternBuffer(r.get(), b.data(), 0), -1);

    Reader ok(newPatternBuffer());
    EXPECT_EQ(putPatternBuffer(ok.get(), b.data(), int(b.size())), 0);
    EXPECT_EQ(putPatternBuffer(ok.get(), b.data(), 0), 0);
    EXPECT_EQ(putPatternBuffer(ok.get(), b.data(), 1), -1);
    EXPECT_EQ(putPatternBuffer(ok.get(), b.data(), 0), 0);
    EXPECT_EQ(ok->pTAZPattern->patternVer, kVer);
}

/* A handler that never consumes anything is cut off by the progress guard. */
TEST(Reader, ProgressGuardStopsAnIdleHandler)
{
    Reader r(newPatternBuffer());
    auto idle = [](QDPatternBuf *) -> INT32 { return 0; };
    EXPECT_EQ(setHandleFun(nullptr, 1, idle), PARA_ERR);
    EXPECT_EQ(setHandleFun(r.get(), 1, idle), 0);
    char data[5] = {};
    EXPECT_EQ(putPatternBuffer(r.get(), data, 5), -1);
    EXPECT_EQ(r->status, -1);
}

/* A release frees only when the count was 1, images and bytes with the
 * record (the leak checker reports anything left behind). */
TEST(Reader, ReleaseRules)
{
    EXPECT_EQ(delTAZPattern(nullptr), 0);
    EXPECT_EQ(delRawPattern(nullptr), 0);
    Reader r(newPatternBuffer());
    struct _TAZPattern *rec = r->pTAZPattern;
    struct _RawPattern *raw = r->pRawPattern[TAZE_YUB];
    Bytes payload = kTaz;
    EXPECT_EQ(parseTAZPattern(nullptr, payload.data(), int(payload.size())), -1);
    ASSERT_EQ(parseTAZPattern(rec, payload.data(), int(payload.size())), 0);
    raw->data = static_cast<unsigned char *>(std::malloc(8));
    raw->len = 8;
    rec->aRefCount.counter = raw->aRefCount.counter = 2;
    EXPECT_EQ(delTAZPattern(rec), 0);
    EXPECT_EQ(delRawPattern(raw), 0);
    EXPECT_EQ(rec->aRefCount.counter, 1);
    EXPECT_NE(rec->taz_ptn, nullptr);
    EXPECT_EQ(raw->len, 8u);
    /* The reader releases the last references. */
}

/* A body buffer is sized once from enclen when the file holds the body; a
 * claim beyond the file's end costs only what arrives. */
TEST(Reader, BodyBufferSizedFromWhatTheFileHolds)
{
#ifndef TAZT_COUNTING
    GTEST_SKIP() << "a sanitizer brings its own allocator: nothing counted";
#else
    const Bytes payload = big_payload();
    const Bytes file = container({sub(KORM_SUB_TAZE_RULE, payload, KORM_ENC_TFSH_MD5)});
    const std::size_t enclen_at = KORMHEAD_SIZE + KORMSUB_SIZE;
    Bytes hostile = file; /* claims 1 GiB */
    hostile[enclen_at] = 0x40;
    const struct {
        const char *name;
        const Bytes &file;
        std::size_t chunk;
        bool loads;
        long long most; /* peak bytes above the reader itself */
    } cases[] = {
        {"whole body, from the file", file, kFromFile, true, static_cast<long long>(payload.size() + 64 * 1024)},
        {"claim of 1 GiB, from the file", hostile, kFromFile, false, 2LL << 20},
        {"claim of 1 GiB, pushed", hostile, 4096, false, 2LL << 20},
    };
    for (const auto &c : cases) {
        const long long before = g_live.load();
        g_peak = before;
        const Outcome o = read_file(c.file, c.chunk);
        EXPECT_EQ(o.taz, c.loads) << c.name;
        EXPECT_LE(g_peak.load() - before, c.most) << c.name;
    }
#endif
}

TEST(Reader, PeekVersion)
{
    const std::string dir = tazt::temp_dir();
    auto write = [&](const std::string &name, const Bytes &b) {
        EXPECT_TRUE(tazw::write_file(dir + "/" + name, b));
        return dir + "/" + name;
    };
    const auto taz = sub(KORM_SUB_TAZE_RULE, kTaz);
    Bytes bad_magic = container({taz});
    bad_magic[3] = 'Q';
    const std::string missing = dir + "/missing.ptn";
    const std::string chunk_failed = "putPatternBufferPeek\\(0x[0-9a-f]+, 0x[0-9a-f]+, 32\\) failed\n";
    const std::string end_failed = "putPatternBufferPeek\\(0x[0-9a-f]+, 0x[0-9a-f]+, 0\\) failed\n";
    constexpr unsigned kUntouched = 0xDEAD;
    const struct {
        const char *name;
        std::string path;
        int rc;
        unsigned int version;
        std::string message; /* regular expression of the whole output */
    } cases[] = {
        {"three kinds", write("a", container(three_kinds(KORM_ENC_TFSH_MD5))), 0, kVer, ""},
        {"main kind", write("b", container({taz}, 0x00100005)), 0, 0x00100005, ""},
        {"second kind", write("c", container({sub(KORM_SUB_ULM_RULE, kUlm)})), 0, kVer, ""},
        {"nothing decrypted", write("d", container({with(taz, [](auto &s) { s.enctype = 1, s.flip_digest_bit = 1; })})),
         0, kVer, ""},
        {"raw kind only", write("e", container({sub(KORM_SUB_YUB_RULE, kRaw)})), -1, kUntouched, ""},
        {"main kind, enclen 0", write("f", container({sub(KORM_SUB_TAZE_RULE, {})})), -1, kUntouched, ""},
        {"main kind, minver 3", write("g", container({with(taz, [](auto &s) { s.minver = 3; })})), -1, kUntouched, ""},
        {"bad magic", write("h", bad_magic), -1, kUntouched, chunk_failed},
        {"cut in the main header", write("i", Bytes(bad_magic.begin(), bad_magic.begin() + 20)), -1, kUntouched,
         end_failed},
        {"missing file", missing, -1, kUntouched, ">>fopen\\(" + missing + "\\)\n"},
    };
    for (const auto &c : cases)
        for (unsigned int mask : {VKDEBUG_ERR, 0u}) {
            tazt::DebugMask dm(mask);
            tazt::StdoutCapture out;
            unsigned int ver = kUntouched;
            EXPECT_EQ(peekTAZPatternVer(c.path.c_str(), &ver), c.rc) << c.name;
            EXPECT_EQ(ver, c.version) << c.name;
            const std::string text = out.finish();
            EXPECT_TRUE(std::regex_match(text, std::regex(mask ? c.message : ""))) << c.name << ": " << text;
        }
    unsigned int ver = 0;
    EXPECT_EQ(peekTAZPatternVer(nullptr, &ver), -1);
    EXPECT_EQ(peekTAZPatternVer(cases[0].path.c_str(), nullptr), -1);
}

} // namespace
