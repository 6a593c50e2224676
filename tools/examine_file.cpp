/* The inspector's core: container layout, loading through the library's
 * reader, the section stream of a payload and typed family access. */
#include "examine.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "byteorder.h"
#include "format.h"
#include "names.h"
#include "taze.hpp"
#include "taze_impl.h"
#include "tazeptn.h"
#include "tfsh_md5.h"
#include "vkerror.h"

namespace names = taze::names;

namespace tazi {

/* ---- texts ------------------------------------------------------------------ */

std::string version_text(std::uint32_t v) { return taze::version_text(v); }

std::string magic_text(std::uint32_t magic)
{
    std::string s;
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<unsigned char>(magic >> (8 * i));
        if (c == 0) {
            s += "\\0";
        } else if (c < 0x20 || c >= 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02X", c);
            s += buf;
        } else {
            s += char(c);
        }
    }
    return s;
}

const char *direction_name(std::uint32_t direction) { return names::name_of(names::kDirections, direction); }
const char *threat_type_name(std::uint32_t threat_type) { return names::name_of(names::kThreatTypes, threat_type); }

bool direction_of(const std::string &name, std::uint32_t *direction)
{
    const names::Name *n = names::find_name(names::kDirections, name.c_str());
    if (n != nullptr) *direction = n->value;
    return n != nullptr;
}

const char *error_name(int code) { return taze::error_name(code); }

std::string code_text(int code)
{
    std::string s = std::to_string(code);
    if (*error_name(code)) s += std::string(" (") + error_name(code) + ")";
    return s;
}

std::string hex_bytes(const unsigned char *p, std::size_t n, const char *sep)
{
    std::string s;
    char buf[4];
    for (std::size_t i = 0; i < n; ++i) {
        if (i > 0) s += sep;
        std::snprintf(buf, sizeof buf, "%02x", p[i]);
        s += buf;
    }
    return s;
}

std::string ipv4_text(std::uint32_t host_order)
{
    in_addr a{};
    a.s_addr = htonl(host_order);
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

std::string ipv6_text(const unsigned char bytes[16])
{
    char buf[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, bytes, buf, sizeof buf);
    return buf;
}

/* ---- the container ---------------------------------------------------------- */

const char *subtype_name(std::uint16_t subtype)
{
    switch (subtype) {
    case KORM_SUB_TAZE_RULE: return "main pattern";
    case KORM_SUB_ULM_RULE: return "second pattern";
    case KORM_SUB_YUB_RULE: return "raw pattern";
    default: return "not read by this library";
    }
}

const char *enctype_name(std::uint16_t enctype)
{
    return enctype == KORM_ENC_TFSH_MD5 ? "Twofish + MD5"
           : enctype == KORM_ENC_NONE   ? "none"
                                        : "unknown (read as none)";
}

namespace {

std::string skip_reason(const SubHeader &s)
{
    switch (taze::body_use(s.sub, s.enc)) {
    case taze::BodyUse::kKindNotRead: return "kind not read";
    case taze::BodyUse::kVersionsSet: return "engine versions set (the reader needs both 0)";
    case taze::BodyUse::kEmpty: return "empty body";
    case taze::BodyUse::kRead: break;
    }
    return "";
}

} // namespace

Layout read_layout(const std::vector<unsigned char> &file)
{
    Layout l;
    l.file_size = file.size();
    const unsigned char *b = file.data();
    if (file.size() < KORMHEAD_SIZE) {
        l.problem = "the file is shorter than the 32-byte main header";
        return l;
    }
    l.has_head = true;
    taze::decode_main_header(b, l.head);
    if (!taze::has_file_magic(l.head)) {
        l.problem = "the magic is not \"TAZP\"";
        return l;
    }
    std::uint64_t pos = KORMHEAD_SIZE;
    l.end_pos = pos;
    for (std::uint32_t i = 0; i < l.head.cntSub; ++i) {
        const std::string which = "sub-pattern " + std::to_string(i);
        if (pos + KORMSUB_SIZE > file.size()) {
            l.problem = "the file ends inside the header of " + which;
            return l;
        }
        SubHeader s;
        s.header_pos = pos;
        taze::decode_sub_header(b + pos, s.sub);
        pos += KORMSUB_SIZE;
        if (s.sub.offset > pos) {
            if (s.sub.offset - pos > taze::kMaxFiller) {
                l.subs.push_back(s);
                l.problem = "the encryption header of " + which + " lies " + std::to_string(s.sub.offset - pos) +
                            " bytes past its header; the reader skips at most 3000";
                return l;
            }
            pos = s.sub.offset;
        }
        s.enc_pos = pos;
        if (pos + ENCHEAD_SIZE > file.size()) {
            l.subs.push_back(s);
            l.problem = "the file ends inside the encryption header of " + which;
            return l;
        }
        taze::decode_enc_header(b + pos, s.enc);
        pos += ENCHEAD_SIZE;
        s.skipped = skip_reason(s);
        s.complete = pos + s.enc.enclen <= file.size();
        l.subs.push_back(s);
        if (!s.complete) {
            l.problem = "the file ends inside the body of " + which;
            return l;
        }
        pos += s.enc.enclen;
        l.end_pos = pos;
    }
    if (l.head.cntSub == 0) l.problem = "the container names no sub-pattern; the reader waits for one and fails";
    return l;
}

/* ---- loading ------------------------------------------------------------------ */

bool LoadedFile::load(const std::string &path, std::string *error)
{
    errno = 0;
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        *error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    unsigned char chunk[4096];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    const int read_errno = std::ferror(f) != 0 ? (errno ? errno : EIO) : 0;
    std::fclose(f);
    if (read_errno != 0) {
        *error = "cannot read " + path + ": " + std::strerror(read_errno);
        return false;
    }
    layout = read_layout(bytes);

    reader_.reset(newPatternBuffer());
    if (!reader_) {
        *error = "out of memory";
        return false;
    }
    /* The pieces TAZE_LoadPattern feeds. */
    constexpr std::size_t kPiece = 32;
    char piece[kPiece] = {};
    for (std::size_t off = 0; off < bytes.size() && status == 0; off += kPiece) {
        const std::size_t len = std::min(kPiece, bytes.size() - off);
        std::memcpy(piece, bytes.data() + off, len);
        const int rc = putPatternBuffer(reader_.get(), piece, int(len));
        if (rc < 0) status = rc;
    }
    if (status == 0) status = putPatternBuffer(reader_.get(), piece, 0);
    stop_offset = reader_->fileOffset;
    return true;
}

const taz_pattern_st *LoadedFile::image(bool second_kind) const
{
    const _TAZPattern *rec = reader_ ? reader_->pTAZPattern : nullptr;
    if (!rec) return nullptr;
    return second_kind ? rec->ulm_ptn : rec->taz_ptn;
}

std::uint32_t LoadedFile::pattern_version() const
{
    const _TAZPattern *rec = reader_ ? reader_->pTAZPattern : nullptr;
    return rec && status == 0 ? rec->patternVer : layout.head.ptnVer;
}

std::string_view LoadedFile::raw() const
{
    const _RawPattern *r = reader_ ? reader_->pRawPattern[TAZE_YUB] : nullptr;
    if (!r || !r->data || !r->len) return {};
    return {reinterpret_cast<const char *>(r->data), r->len};
}

namespace {

/* Whether the encrypted body of a complete sub-pattern fails its MD5
 * check: decrypted here, on a copy, as the reader decrypts it. */
bool checksum_fails(const std::vector<unsigned char> &file, const SubHeader &s)
{
    if (!s.complete || s.sub.enctype != KORM_ENC_TFSH_MD5 || s.enc.enclen < 32 || s.enc.enclen % 16 != 0)
        return false;
    const std::uint64_t body = s.enc_pos + ENCHEAD_SIZE;
    if (body + s.enc.enclen > file.size()) return false;
    std::vector<unsigned char> copy(file.begin() + std::ptrdiff_t(body),
                                    file.begin() + std::ptrdiff_t(body + s.enc.enclen));
    ENCHEAD head = s.enc;
    return decBuf(&head, copy.data()) == KORM_TFSH_MD5_ERROR_CHECKSUM;
}

} // namespace

bool LoadedFile::truncated() const { return layout.problem.rfind("the file ends inside", 0) == 0; }

std::string LoadedFile::refusal() const
{
    if (status != 0) {
        std::string where = "in the main header";
        std::size_t sub = layout.subs.size();
        for (std::size_t i = 0; i < layout.subs.size(); ++i)
            if (layout.subs[i].header_pos <= stop_offset) {
                where = "in sub-pattern " + std::to_string(i);
                sub = i;
            }
        const std::string code = status == NO_MEM_ERR ? code_text(status) : std::to_string(status);
        std::string why =
            "the reader failed with " + code + " after " + std::to_string(stop_offset) + " bytes, " + where;
        /* The reader stops after the body it could not use. */
        for (std::size_t i = 0; i < layout.subs.size(); ++i)
            if (layout.subs[i].skipped.empty() && checksum_fails(bytes, layout.subs[i])) {
                sub = i;
                break;
            }
        if (sub < layout.subs.size() && checksum_fails(bytes, layout.subs[sub]))
            why = "the reader failed with " + code + " after " + std::to_string(stop_offset) + " bytes, in sub-pattern " +
                  std::to_string(sub) + ": checksum mismatch (the MD5 digest of the decrypted body differs from the one in its header)";
        else if (truncated())
            why += ": the file is truncated (" + layout.problem + ")";
        else if (!layout.problem.empty())
            why += " (" + layout.problem + ")";
        return why;
    }
    if (truncated())
        return "the file is truncated: " + layout.problem + " (" + std::to_string(layout.file_size) +
               " bytes); TAZE_LoadPattern refuses it with -96";
    if (!image(false)) return "it holds no usable main pattern (kind 7); TAZE_LoadPattern refuses it with -96";
    return "";
}

/* ---- sections ------------------------------------------------------------------ */

namespace {

struct InfoSection {
    std::uint32_t magic;
    const char *name;
    bool second_only;
};

constexpr InfoSection kInfoSections[] = {
    {MAGIC_TAZE_PATTERN_RULE_INFO, "rules", false},
    {MAGIC_TAZE_PATTERN_CLEAN_INFO, "clean", false},
    {MAGIC_TAZE_PATTERN_PATTERN_INFO, "compiler_version", false},
    {MAGIC_TAZE_PATTERN_PROTOCOL_INFO, "protocols, protocol_groups", false},
    {MAGIC_TAZE_PATTERN_SEVERITY_INFO, "severity", false},
    {MAGIC_TAZE_THREAT_TYPE, "threat_types", false},
    {MAGIC_TAZE_PATTERN_ULM_INFO, "name of the second kind", true},
};

const InfoSection *info_section(std::uint32_t magic)
{
    for (const InfoSection &s : kInfoSections)
        if (s.magic == magic) return &s;
    return nullptr;
}

const tazc::Family *family_of(std::uint32_t magic)
{
    for (const tazc::Family &f : tazc::families())
        if (f.magic == magic) return &f;
    return nullptr;
}

} // namespace

std::string section_name(std::uint32_t magic)
{
    std::string s = "\"" + magic_text(magic) + "\"";
    if (const tazc::Family *f = family_of(magic)) return s + " (" + f->group + "." + f->name + ")";
    if (const InfoSection *i = info_section(magic)) return s + " (" + i->name + ")";
    return s + " (unknown kind)";
}

bool section_accepted(std::uint32_t magic, bool second_kind)
{
    if (const tazc::Family *f = family_of(magic)) return !(second_kind && f->main_kind_only);
    if (const InfoSection *i = info_section(magic)) return second_kind || !i->second_only;
    return false;
}

bool single_list_section(std::uint32_t magic)
{
    return magic == MAGIC_TAZE_PATTERN_RULE_INFO || magic == MAGIC_TAZE_PATTERN_CLEAN_INFO;
}

Payload walk_payload(const taz_pattern_st &image)
{
    Payload out;
    const std::uint64_t len = image.ptn_len;
    std::uint64_t i = 0;
    while (image.ptn_buf && i + 16 <= len) {
        Section s;
        s.offset = i;
        taze::LeCursor h(image.ptn_buf, image.ptn_len, i);
        h.u32(s.hdr.magic);
        h.u32(s.hdr.crc);
        h.u32(s.hdr.size);
        h.u32(s.hdr.count);
        i += 16;
        if (i + s.hdr.size > len) {
            out.overrun = true;
            out.sections.push_back(s);
            return out;
        }
        if (family_of(s.hdr.magic) || info_section(s.hdr.magic)) {
            /* The loaders' list walk: each list is found through the size
             * field of the one before it. */
            const std::uint32_t lists = single_list_section(s.hdr.magic) ? 1 : s.hdr.count;
            s.lists_complete = taze::walk_list_headers(image.ptn_buf + i, s.hdr.size, lists,
                [&](std::uint32_t number, std::uint32_t size, std::uint32_t count, taze::LeCursor &c) {
                    s.lists.push_back(ListHeader{i + c.pos() - taze::kListHeaderBytes, number, size, count});
                    return true;
                });
        }
        i += s.hdr.size;
        out.sections.push_back(std::move(s));
    }
    out.trailing = len > i ? len - i : 0;
    return out;
}

const Section *last_section(const Payload &payload, std::uint32_t magic)
{
    const Section *found = nullptr;
    for (const Section &s : payload.sections)
        if (s.hdr.magic == magic) found = &s;
    return found;
}

bool stored_string(const taz_pattern_st &image, const unsigned char *p, counted_string_t *out)
{
    const unsigned char *begin = image.ptn_buf;
    if (!begin || !p || p < begin + 4 || p > begin + image.ptn_len) return false;
    const std::uint32_t n = littleEndianToU32(p - 4);
    if (std::uint64_t(p - begin) + n > image.ptn_len) return false;
    *out = counted_string_t{p, n};
    return true;
}

/* ---- typed families --------------------------------------------------------------- */

namespace {

using P = taz_pattern_st;

template <auto Lists, auto Count, auto Numbers>
AnyLists lists_of(const P &p)
{
    using L = std::remove_cv_t<std::remove_pointer_t<std::remove_reference_t<decltype(p.*Lists)>>>;
    return ListArray<L>{ListView<L>{p.*Lists, p.*Count, p.*Numbers}};
}

} // namespace

std::vector<ImageFamily> image_families(const taz_pattern_st &image)
{
    std::vector<ImageFamily> out;
    for (const tazc::Family &f : tazc::families())
        taze::each_family<P>([&](auto fam) {
            using F = decltype(fam);
            if (F::row.magic == f.magic) out.push_back(ImageFamily{&f, lists_of<F::lists, F::count, F::numbers>(image)});
        });
    return out;
}

/* ---- comparisons ------------------------------------------------------------------- */

int compare_stored(const counted_string_t &a, const counted_string_t &b, unsigned rule, bool case_sensitive)
{
    if (rule == 0 || rule == 1) return case_sensitive ? str_case_compare(&a, &b) : str_compare(&a, &b);
    if (rule != 2) return -1; /* substring lists keep any order */
    /* The backward comparison over the longer length; when it reports 0 for
     * strings of different length, the shorter is a suffix of the longer
     * and sorts first. */
    const UINT32 n = std::max(a.len, b.len);
    int r = case_sensitive ? strncmp_reverse(&a, &b, n) : strncasecmp_reverse(&a, &b, n);
    if (r == 0 && a.len != b.len) r = a.len < b.len ? -1 : 1;
    return r;
}

} // namespace tazi
