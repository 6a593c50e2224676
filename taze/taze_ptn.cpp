/* Rule, clean, protocol, severity, pattern-info and threat-type sections:
 * their loaders and releasers, and the lookups over the tables they fill.
 *
 * Every loader reads the section body through one bounds-checked cursor.
 * Positions are 64-bit, so no sum of 32-bit file fields can wrap; a record
 * or string that would end past the section fails the load. Claimed counts
 * are compared with the bytes that remain before anything is allocated. */
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "byteorder.h"
#include "format.h"
#include "tazapi.h"
#include "taze_impl.h"
#include "taze_ptn.h"
#include "vk_platform.h"

namespace {

using taze::count_fits;
using taze::LeCursor;
using Str = const unsigned char *;

/* Every record starts with its length RL, and every element of a counted
 * array is at least this long, so n of them need 4 * n bytes. */
constexpr std::uint64_t kMinStride = 4;

/* Bytes that the arrays of one section may take in all. Records can overlap
 * (RL only gives the stride; the fields are read whatever it says), so
 * without a cap every record of a small section could claim an array as
 * long as the rest of the section, and the section would allocate the
 * square of its size. Inside a section walk the arrays draw on the walk's
 * budget (taz_share_budget), which the list arrays share; a section loaded
 * on its own gets three bytes per section byte and a small allowance. A
 * well-formed record spends at least half its array bytes on disk, so both
 * stay far above what a compiled pattern needs. */
constexpr std::uint64_t kSectionBytesPerByte = 3;
constexpr std::uint64_t kSectionAllowanceBytes = 64 * 1024;

/* The budget left to the section being loaded on this thread (null outside
 * a section loader and a section walk). */
thread_local std::uint64_t *t_bytes_left = nullptr;

/* Grants a section loader its budget for as long as it runs, unless a
 * section walk already shares its own. */
class SectionAllowance {
public:
    explicit SectionAllowance(UINT32 len)
        : left_(kSectionBytesPerByte * len + kSectionAllowanceBytes), saved_(t_bytes_left)
    {
        if (t_bytes_left == nullptr) t_bytes_left = &left_;
    }
    ~SectionAllowance() { t_bytes_left = saved_; }
    SectionAllowance(const SectionAllowance &) = delete;
    SectionAllowance &operator=(const SectionAllowance &) = delete;

private:
    std::uint64_t left_;
    std::uint64_t *saved_;
};

/* Takes an array of n elements of slot bytes from the current budget. */
bool take_elements(std::uint64_t n, std::size_t slot)
{
    if (t_bytes_left == nullptr) return true;
    if (n > *t_bytes_left / (slot ? slot : 1)) return false;
    *t_bytes_left -= n * slot;
    return true;
}

} // namespace

std::uint64_t *taz_share_budget(std::uint64_t *bytes_left)
{
    std::uint64_t *prev = t_bytes_left;
    t_bytes_left = bytes_left;
    return prev;
}

namespace {

/* The threat-type array holds 16 bytes per entry, twice an entry's size;
 * the entries lie packed in the first half. */
constexpr std::size_t kThreatTypeSlot = 16;
static_assert(sizeof(taz_threat_type_info_st) * 2 == kThreatTypeSlot, "threat type slot");

/* ---- Field readers ------------------------------------------------------ */

using taze::read_field;
/* A string: u32 byte count, the bytes, a terminator byte that must lie in
 * the section (its value is not looked at). The pointer is the first byte. */
bool read_field(LeCursor &c, Str &v)
{
    counted_string_t s;
    if (!c.str(s, true)) return false;
    v = s.ptr;
    return true;
}

template <typename... Fields>
bool read_fields(LeCursor &c, Fields &...f)
{
    return (read_field(c, f) && ...);
}

/* One record: RL, then the fields from the byte after RL. Record start + 4,
 * the record end (start + 4 + RL) and start + 8 must lie in the section;
 * the fields are read whatever RL says, and the cursor then moves to the
 * record end. */
template <typename Read>
bool read_record(LeCursor &c, Read &&read)
{
    const std::uint64_t start = c.pos();
    UINT32 rl;
    if (!c.u32(rl)) return false;
    const std::uint64_t end = start + 4 + rl;
    if (!c.within(end) || !c.within(start + 8) || !read(c)) return false;
    c.seek(end);
    return true;
}

/* Allocates n zeroed elements (slot bytes each, at least one slot so that
 * a count of 0 still gets its own allocation) after checking that n
 * elements can fit in what remains, then reads them in order. nr is set
 * once the array exists. */
template <typename T, typename Read>
bool fill_array(LeCursor &c, UINT32 n, UINT32 &nr, T *&arr, Read &&read,
                std::size_t slot = sizeof(T))
{
    if (!count_fits(n, kMinStride, c.remaining()) || !take_elements(n, slot)) return false;
    arr = static_cast<T *>(taz_alloc_zeroed(n, slot));
    if (!arr) return false;
    nr = n;
    for (UINT32 i = 0; i < n; ++i)
        if (!read(c, arr[i])) return false;
    return true;
}

/* n records, each framed by its RL. */
template <typename T, typename Read>
bool fill_records(LeCursor &c, UINT32 n, UINT32 &nr, T *&arr, Read &&read,
                  std::size_t slot = sizeof(T))
{
    return fill_array(
        c, n, nr, arr,
        [&read](LeCursor &rc, T &e) { return read_record(rc, [&](LeCursor &fc) { return read(fc, e); }); },
        slot);
}

/* A counted array inside a record: u32 count, then the elements. An empty
 * array is allocated only when alloc_empty is set. */
template <typename T, typename Read>
bool read_counted(LeCursor &c, UINT32 &nr, T *&arr, bool alloc_empty, Read &&read)
{
    UINT32 n;
    if (!c.u32(n)) return false;
    if (n == 0 && !alloc_empty) return true;
    return fill_array(c, n, nr, arr, read);
}

/* ---- Record layouts ----------------------------------------------------- */

bool read_clean_body(LeCursor &c, taz_clean_info_st &ci)
{
    return read_fields(c, ci.protocol.port_l, ci.protocol.port_h, ci.priority, ci.direction, ci.target,
                       ci.src_ptn, ci.dst_ptn);
}

bool read_rule(LeCursor &c, taz_rule_info_st &r)
{
    return read_fields(c, r.rule_id, r.confidence_level, r.risk_type, r.risk_type_group, r.enable,
                       r.description) &&
           read_clean_body(c, r.clean_info);
}

bool read_protocol(LeCursor &c, taz_protocol_info_st &p) { return read_fields(c, p.id, p.desc, p.group_idx); }

bool read_group(LeCursor &c, taz_protocol_group_info_st &g)
{
    return read_fields(c, g.id, g.desc) &&
           read_counted(c, g.nr_protocol_idxs, g.protocol_idx, false,
                        [](LeCursor &ec, UINT32 &idx) { return ec.u32(idx); });
}

bool read_risk(LeCursor &c, taz_risk_info_st &r) { return read_fields(c, r.direction, r.severity, r.policy_id); }

bool read_known_risk(LeCursor &c, taz_known_risk_info_st &k)
{
    port_rng_list_st &pr = k.protocol_ranges;
    return read_risk(c, k.info) &&
           read_counted(c, pr.nr_port_ranges, pr.port_ranges, false,
                        [](LeCursor &ec, port_rng_st &r) { return read_fields(ec, r.port_l, r.port_h); });
}

/* rule_id, nr_risk_infos, then that many known risk records (each framed by
 * its own RL). The nested array is allocated even for a count of 0. */
bool read_potential_risk(LeCursor &c, taz_potential_risk_info_st &p)
{
    return c.u32(p.rule_id) &&
           read_counted(c, p.nr_risk_infos, p.risk_infos, true, [](LeCursor &ec, taz_known_risk_info_st &k) {
               return read_record(ec, [&k](LeCursor &fc) { return read_known_risk(fc, k); });
           });
}

bool read_threat_type(LeCursor &c, taz_threat_type_info_st &t) { return read_fields(c, t.rule_id, t.threat_type); }

/* ---- Release ------------------------------------------------------------ */

/* Frees an array after releasing what each element owns, and leaves it
 * empty, so that a second release frees nothing. */
template <typename T, typename Each>
void release(T *&arr, UINT32 &nr, Each &&each)
{
    if (arr)
        for (UINT32 i = 0; i < nr; ++i) each(arr[i]);
    std::free(arr);
    arr = nullptr;
    nr = 0;
}

template <typename T>
void release(T *&arr, UINT32 &nr)
{
    release(arr, nr, [](T &) {});
}

void release_known(taz_known_risk_info_st &k)
{
    release(k.protocol_ranges.port_ranges, k.protocol_ranges.nr_port_ranges);
}

/* ---- Sections of several sub-lists --------------------------------------- */

/* Walks the m lists of a section body: each list header and the list's
 * bytes must lie inside; a list whose count is 0 is skipped whatever its
 * magic. on_list gets the magic, the count and a cursor on the first byte
 * after the list header (bounded by the section, not by the list). */
template <typename OnList>
int walk_lists(const unsigned char *buf, UINT32 len, UINT32 m, OnList &&on_list)
{
    const bool ok = taze::walk_list_headers(buf, len, m, [&](UINT32 magic, UINT32, UINT32 count, LeCursor &c) {
        return count == 0 || on_list(magic, count, LeCursor(buf, len, c.pos()));
    });
    return ok ? 0 : -1;
}

enum class MagicText { PatternInfo, ThreatType };

/* An unknown sub-list is reported (error bit) and skipped. */
bool skip_unknown(MagicText text, UINT32 magic)
{
    if (text == MagicText::ThreatType)
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "BUG: Un-recognized threat type info header magic: %08x", magic);
    else
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "BUG: Un-recognized pattern info pattern header magic: %08x", magic);
    return true;
}

/* A sub-list that fills one array: the first one wins, later ones are
 * reported (warning bit) and skipped. */
template <typename T, typename Read>
bool array_list(LeCursor c, UINT32 count, UINT32 &nr, T *&arr, const char *duplicate, Read &&read,
                std::size_t slot = sizeof(T))
{
    if (nr != 0 || arr != nullptr) {
        VK_DEBUG_PRINTF(VKDEBUG_WARN, "%s", duplicate);
        return true;
    }
    return fill_records(c, count, nr, arr, read, slot);
}

/* A default list: records of direction 2 fill the inbound default, 3 the
 * outbound one (a later record overwrites), others are ignored. The list
 * is a duplicate once either default has a direction. */
bool default_list(LeCursor c, UINT32 count, taz_risk_info_st &inbound, taz_risk_info_st &outbound,
                  const char *duplicate)
{
    if (inbound.direction != 0 || outbound.direction != 0) {
        VK_DEBUG_PRINTF(VKDEBUG_WARN, "%s", duplicate);
        return true;
    }
    if (!count_fits(count, kMinStride, c.remaining())) return false;
    for (UINT32 i = 0; i < count; ++i) {
        taz_risk_info_st r{};
        if (!read_record(c, [&r](LeCursor &fc) { return read_risk(fc, r); })) return false;
        if (r.direction == TAZ_DIR_INBOUND) inbound = r;
        else if (r.direction == TAZ_DIR_OUTBOUND) outbound = r;
    }
    return true;
}

/* ---- Section loaders ------------------------------------------------------ */

/* Every loader's precondition: an image and a non-empty section body. */
bool precondition_holds(const taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len)
{
    assert(ptn && ptn_buf && ptn_len>0);
    return ptn && ptn_buf && ptn_len > 0;
}

/* One kind of sub-list and what reads it into the image. */
struct SubList {
    UINT32 magic;
    bool (*read)(taz_pattern_st &ptn, UINT32 count, LeCursor c);
};

/* A section of sub-lists dispatched by magic; other magics are reported
 * with the family's text and skipped. On failure unload (when there is
 * one) releases the section's tables. */
template <std::size_t N>
int load_sub_lists(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count,
                   const SubList (&kinds)[N], MagicText unknown, void (*unload)(taz_pattern_st *))
{
    if (!precondition_holds(ptn, ptn_buf, ptn_len)) return -1;
    SectionAllowance allowance(ptn_len);
    const int rc = walk_lists(ptn_buf, ptn_len, count, [&](UINT32 magic, UINT32 n, LeCursor c) {
        for (const SubList &k : kinds)
            if (k.magic == magic) return k.read(*ptn, n, c);
        return skip_unknown(unknown, magic);
    });
    if (rc != 0 && unload) unload(ptn);
    return rc;
}

/* Readers of the sub-lists, made from the table fields they fill. */
template <auto Table, auto Nr, auto Arr, auto Read, const char *Duplicate, std::size_t Slot = 0>
bool array_sub_list(taz_pattern_st &p, UINT32 n, LeCursor c)
{
    auto &table = p.*Table;
    using T = std::remove_pointer_t<std::remove_reference_t<decltype(table.*Arr)>>;
    return array_list(c, n, table.*Nr, table.*Arr, Duplicate, Read, Slot ? Slot : sizeof(T));
}

template <auto Inbound, auto Outbound, const char *Duplicate>
bool default_sub_list(taz_pattern_st &p, UINT32 n, LeCursor c)
{
    return default_list(c, n, p.severity_info.*Inbound, p.severity_info.*Outbound, Duplicate);
}

constexpr char kDupProtocols[] = "BUG: Duplicated Protocol info list defined";
constexpr char kDupGroups[] = "BUG: Duplicated Protocol Group info list defined";
constexpr char kDupKnown[] = "BUG: Duplicated known risk info list defined";
constexpr char kDupKnownDefault[] = "BUG: Duplicated default known risk info list defined";
constexpr char kDupPotential[] = "BUG: Duplicated potential risk info list defined";
constexpr char kDupPotentialDefault[] = "BUG: Duplicated default potential risk info list defined";
constexpr char kDupThreatTypes[] = "BUG: Duplicated threat type info list defined";

using PI = taz_protocol_info_list_st;
using SI = taz_severity_info_list_st;
using TI = taz_threat_type_info_list_st;
constexpr auto kProt = &taz_pattern_st::protocol_info;
constexpr auto kSeve = &taz_pattern_st::severity_info;

constexpr SubList kProtocolLists[] = {
    {MAGIC_TAZE_PROTOCOL_LIST,
     array_sub_list<kProt, &PI::nr_prot_infos, &PI::prot_infos, read_protocol, kDupProtocols>},
    {MAGIC_TAZE_PROTOOCOL_GROUP_LIST,
     array_sub_list<kProt, &PI::nr_prog_infos, &PI::prog_infos, read_group, kDupGroups>},
};

constexpr SubList kSeverityLists[] = {
    {MAGIC_TAZE_SEVERITY_KNOWN,
     array_sub_list<kSeve, &SI::nr_known_infos, &SI::known_infos, read_known_risk, kDupKnown>},
    {MAGIC_TAZE_SEVERITY_KNOWN_DEFAULT,
     default_sub_list<&SI::known_inbound_info, &SI::known_outbound_info, kDupKnownDefault>},
    {MAGIC_TAZE_SEVERITY_POTENT,
     array_sub_list<kSeve, &SI::nr_potential_infos, &SI::potential_infos, read_potential_risk, kDupPotential>},
    {MAGIC_TAZE_SEVERITY_POTENT_DEFAULT,
     default_sub_list<&SI::potential_inbound_info, &SI::potential_outbound_info, kDupPotentialDefault>},
};

constexpr SubList kThreatTypeLists[] = {
    {MAGIC_TAZE_THREAT_TYPE,
     array_sub_list<&taz_pattern_st::threat_type_info, &TI::nr_threat_type_infos, &TI::threat_type_infos,
                    read_threat_type, kDupThreatTypes, kThreatTypeSlot>},
};

/* A later compiler version list overwrites the value (no duplicate check). */
constexpr SubList kPatternInfoLists[] = {
    {MAGIC_TAZE_PATTERN_COMPILER_VER,
     [](taz_pattern_st &p, UINT32, LeCursor c) { return c.u32(p.taz_ptn_compiler_version); }},
};

/* One list of n records (rules, clean entries). An empty list is a success
 * only where empty_ok says so, and then leaves the table as it is. A list
 * that loads replaces (and releases) the table of an earlier section of
 * the same kind. Any failure releases the table. */
template <typename T, typename Read>
int single_list(taz_pattern_st *ptn, const unsigned char *buf, UINT32 len, UINT32 &nr, T *&arr, bool empty_ok,
                void (*unload)(taz_pattern_st *), Read &&read)
{
    LeCursor c(buf, len);
    UINT32 magic = 0, size = 0, n = 0;
    if (!c.list_header(magic, size, n) || !c.within(std::uint64_t(size) + 12)) {
        unload(ptn);
        return -1;
    }
    if (n == 0) return empty_ok ? 0 : -1;
    unload(ptn);
    SectionAllowance allowance(len);
    if (!fill_records(c, n, nr, arr, read)) {
        unload(ptn);
        return -1;
    }
    return 0;
}

/* Every releaser asserts its image, then empties its tables. */
template <typename Release>
void unload(taz_pattern_st *ptn, Release &&release_tables)
{
    assert(ptn);
    if (ptn) release_tables(*ptn);
}

/* ---- Lookup helpers ------------------------------------------------------- */

template <typename T>
const T *entry_at(const T *arr, UINT32 nr, UINT32 index)
{
    return arr && index < nr ? &arr[index] : nullptr;
}

/* The value of one field, or the table's failure value (0 or null). */
template <typename T, typename V>
V value_of(const T *e, V T::*field)
{
    return e ? e->*field : V{};
}

const taz_rule_info_st *rule_at(const taz_pattern_st *sp, UINT32 index)
{
    return sp ? entry_at(sp->rule_info_list.rule_infos, sp->rule_info_list.nr_rule_infos, index) : nullptr;
}

/* Rule id 0 is never searched. */
const taz_rule_info_st *rule_by_id(const taz_pattern_st *sp, UINT32 rule_id)
{
    return rule_id != 0 ? taz_rule_info_get(sp, rule_id) : nullptr;
}

const taz_protocol_info_st *protocol_at(const taz_pattern_st *sp, UINT32 index)
{
    return sp ? entry_at(sp->protocol_info.prot_infos, sp->protocol_info.nr_prot_infos, index) : nullptr;
}

const taz_protocol_group_info_st *group_at(const taz_pattern_st *sp, UINT32 index)
{
    return sp ? entry_at(sp->protocol_info.prog_infos, sp->protocol_info.nr_prog_infos, index) : nullptr;
}

/* Entry 0 answers every id it does not hold itself: when entry 0 differs,
 * entries 1.. are compared in stored order and the first equal one wins;
 * every other case (entry 0 matches, no match, count 0) gives entry 0. */
template <typename T>
const T *entry_by_id(const T *arr, UINT32 nr, UINT32 id)
{
    if (!arr) return nullptr;
    if (nr != 0 && arr[0].id != id)
        for (UINT32 i = 1; i < nr; ++i)
            if (arr[i].id == id) return &arr[i];
    return &arr[0];
}

const taz_protocol_info_st *taz_protocol_get(const taz_pattern_st *sp, UINT32 protocol_id)
{
    return sp ? entry_by_id(sp->protocol_info.prot_infos, sp->protocol_info.nr_prot_infos, protocol_id) : nullptr;
}

const taz_protocol_group_info_st *taz_protocol_group_get(const taz_pattern_st *sp, UINT32 group_id)
{
    return sp ? entry_by_id(sp->protocol_info.prog_infos, sp->protocol_info.nr_prog_infos, group_id) : nullptr;
}

/* Group positions and member positions come from the file unchecked; one
 * that is out of range answers 0 like a missing entry. */
UINT32 group_id_of(const taz_pattern_st *sp, const taz_protocol_info_st *p)
{
    return p ? taz_protocol_group_index_id(sp, p->group_idx) : 0;
}

UINT32 member_protocol_id(const taz_pattern_st *sp, const taz_protocol_group_info_st *g, UINT32 protocol_index)
{
    const UINT32 *pos = g ? entry_at(g->protocol_idx, g->nr_protocol_idxs, protocol_index) : nullptr;
    return pos ? taz_protocol_index_id(sp, *pos) : 0;
}

/* Whether one clean entry applies: -1 for a missing entry or output, 1 with
 * *target set when the protocol lies in its range, its direction is 1 or
 * the asked one and its target is not 0; else 0. */
int taz_clean_parameter_check(const taz_clean_info_st *ci, UINT32 protocol, UINT32 direction, UINT32 *target)
{
    if (!ci || !target) return -1;
    if (protocol > ci->protocol.port_h || protocol < ci->protocol.port_l) return 0;
    if (ci->direction != TAZ_DIR_ANY && ci->direction != direction) return 0;
    if (ci->target == 0) return 0;
    *target = ci->target;
    return 1;
}

/* The first protocol-wide clean entry whose range is not all zero and
 * holds the protocol; only that one entry is ever considered. */
const taz_clean_info_st *taz_clean_info_get(const taz_pattern_st *sp, UINT32 protocol)
{
    const taz_clean_info_list_st &cl = sp->clean_info_list;
    for (UINT32 i = 0; cl.clean_infos && i < cl.nr_clean_infos; ++i) {
        const port_rng_st &r = cl.clean_infos[i].protocol;
        if ((r.port_l != 0 || r.port_h != 0) && protocol >= r.port_l && protocol <= r.port_h)
            return &cl.clean_infos[i];
    }
    return nullptr;
}

int copy_clean(const taz_clean_info_st &ci, UINT32 *priority, Str *src_ptn, Str *dst_ptn)
{
    if (!priority || !src_ptn || !dst_ptn) return -1;
    *priority = ci.priority;
    *src_ptn = ci.src_ptn;
    *dst_ptn = ci.dst_ptn;
    return 0;
}

/* A risk entry fits when its direction is the asked one or 1 and the low
 * 16 bits of the protocol lie in its ranges (none: it fits nothing). */
const taz_known_risk_info_st *first_fit(const taz_known_risk_info_st *arr, UINT32 nr, UINT32 direction,
                                        UINT32 protocol)
{
    for (UINT32 i = 0; arr && i < nr; ++i) {
        const taz_known_risk_info_st &k = arr[i];
        if ((k.info.direction == direction || k.info.direction == TAZ_DIR_ANY) && k.protocol_ranges.port_ranges &&
            port_rng_list_search(static_cast<unsigned short>(protocol), &k.protocol_ranges) == 1)
            return &k;
    }
    return nullptr;
}

int give_risk(const taz_risk_info_st &r, UINT32 *policy_id, UINT32 *severity)
{
    *policy_id = r.policy_id;
    *severity = r.severity;
    return 0;
}

/* Nothing fitted: the default of an inbound (2) or outbound (3) question. */
int give_default(UINT32 direction, const taz_risk_info_st &inbound, const taz_risk_info_st &outbound,
                 UINT32 *policy_id, UINT32 *severity)
{
    if (direction == TAZ_DIR_INBOUND) return give_risk(inbound, policy_id, severity);
    if (direction == TAZ_DIR_OUTBOUND) return give_risk(outbound, policy_id, severity);
    return -1;
}

} // namespace

extern "C" {

/* ---- Loaders and releasers ------------------------------------------------ */

/* The section holds exactly one list; its count is not used. */
int taz_load_rule_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32)
{
    const int rc = precondition_holds(ptn, ptn_buf, ptn_len)
                       ? single_list(ptn, ptn_buf, ptn_len, ptn->rule_info_list.nr_rule_infos,
                                     ptn->rule_info_list.rule_infos, false, taz_unload_rule_info_ptns, read_rule)
                       : -1;
    if (rc == 0) rule_info_list_init(&ptn->rule_info_list);
    return rc;
}

/* Clean entries keep file order: the first fitting entry wins. */
int taz_load_clean_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32)
{
    if (!precondition_holds(ptn, ptn_buf, ptn_len)) return -1;
    taz_clean_info_list_st &cl = ptn->clean_info_list;
    return single_list(ptn, ptn_buf, ptn_len, cl.nr_clean_infos, cl.clean_infos, true, taz_unload_clean_info_ptns,
                       read_clean_body);
}

/* A failed pattern-info or threat-type section releases nothing itself: a
 * partly read threat-type array stays attached until the image teardown. */
#define TAZ_SUB_LIST_LOADER(name, kinds, unknown, unload_on_failure)                         \
    int name(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count) \
    {                                                                                         \
        return load_sub_lists(ptn, ptn_buf, ptn_len, count, kinds, unknown, unload_on_failure); \
    }
TAZ_SUB_LIST_LOADER(taz_load_protocol_ptns, kProtocolLists, MagicText::PatternInfo, taz_unload_protocol_ptns)
TAZ_SUB_LIST_LOADER(taz_load_severity_ptns, kSeverityLists, MagicText::PatternInfo, taz_unload_severity_ptns)
TAZ_SUB_LIST_LOADER(taz_load_ptn_info_ptns, kPatternInfoLists, MagicText::PatternInfo, nullptr)
TAZ_SUB_LIST_LOADER(taz_load_threat_type, kThreatTypeLists, MagicText::ThreatType, nullptr)
#undef TAZ_SUB_LIST_LOADER

#define TAZ_ARRAY_UNLOADER(name, table, arr, nr) \
    void name(taz_pattern_st *ptn) { unload(ptn, [](taz_pattern_st &p) { release(p.table.arr, p.table.nr); }); }
TAZ_ARRAY_UNLOADER(taz_unload_rule_info_ptns, rule_info_list, rule_infos, nr_rule_infos)
TAZ_ARRAY_UNLOADER(taz_unload_clean_info_ptns, clean_info_list, clean_infos, nr_clean_infos)
TAZ_ARRAY_UNLOADER(taz_unload_threat_type, threat_type_info, threat_type_infos, nr_threat_type_infos)
#undef TAZ_ARRAY_UNLOADER

void taz_unload_protocol_ptns(taz_pattern_st *ptn)
{
    unload(ptn, [](taz_pattern_st &p) {
        release(p.protocol_info.prot_infos, p.protocol_info.nr_prot_infos);
        release(p.protocol_info.prog_infos, p.protocol_info.nr_prog_infos,
                [](taz_protocol_group_info_st &g) { release(g.protocol_idx, g.nr_protocol_idxs); });
    });
}

void taz_unload_severity_ptns(taz_pattern_st *ptn)
{
    unload(ptn, [](taz_pattern_st &p) {
        taz_severity_info_list_st &si = p.severity_info;
        release(si.known_infos, si.nr_known_infos, release_known);
        release(si.potential_infos, si.nr_potential_infos,
                [](taz_potential_risk_info_st &e) { release(e.risk_infos, e.nr_risk_infos, release_known); });
    });
}

/* ---- Field getters ----------------------------------------------------------
 * Each answers one field of the entry its locator finds, or the table's
 * failure value (0 or null). Rule ids are looked up by bisection (id 0 is
 * never searched); protocol and group ids fall back to entry 0. */
#define TAZ_BY_INDEX(type, name, locate, record, field) \
    type name(const taz_pattern_st *sp, UINT32 index) { return value_of(locate(sp, index), &record::field); }
#define TAZ_BY_ID(type, name, locate, record, field) \
    type name(const taz_pattern_st *sp, UINT32 id) { return value_of(locate(sp, id), &record::field); }
TAZ_BY_INDEX(UINT32, taz_rule_index_rule_id, rule_at, taz_rule_info_st, rule_id)
TAZ_BY_INDEX(Str, taz_rule_index_desc, rule_at, taz_rule_info_st, description)
TAZ_BY_INDEX(Str, taz_rule_index_risk_type, rule_at, taz_rule_info_st, risk_type)
TAZ_BY_INDEX(UINT32, taz_rule_index_risk_type_group, rule_at, taz_rule_info_st, risk_type_group)
TAZ_BY_INDEX(UINT32, taz_rule_index_confidence_level, rule_at, taz_rule_info_st, confidence_level)
TAZ_BY_INDEX(UINT32, taz_rule_index_enable, rule_at, taz_rule_info_st, enable)
TAZ_BY_ID(Str, taz_rule_id_description, rule_by_id, taz_rule_info_st, description)
TAZ_BY_ID(Str, taz_rule_id_risk_type, rule_by_id, taz_rule_info_st, risk_type)
TAZ_BY_ID(UINT32, taz_rule_id_risk_type_group, rule_by_id, taz_rule_info_st, risk_type_group)
TAZ_BY_ID(UINT32, taz_rule_id_confidence_level, rule_by_id, taz_rule_info_st, confidence_level)
TAZ_BY_INDEX(UINT32, taz_protocol_index_id, protocol_at, taz_protocol_info_st, id)
TAZ_BY_INDEX(Str, taz_protocol_index_desc, protocol_at, taz_protocol_info_st, desc)
TAZ_BY_INDEX(UINT32, taz_protocol_group_index_id, group_at, taz_protocol_group_info_st, id)
TAZ_BY_INDEX(Str, taz_protocol_group_index_desc, group_at, taz_protocol_group_info_st, desc)
TAZ_BY_INDEX(UINT32, taz_protocol_group_index_protocol_count, group_at, taz_protocol_group_info_st,
             nr_protocol_idxs)
TAZ_BY_ID(Str, taz_protocol_id_desc, taz_protocol_get, taz_protocol_info_st, desc)
TAZ_BY_ID(Str, taz_protocol_group_id_desc, taz_protocol_group_get, taz_protocol_group_info_st, desc)
TAZ_BY_ID(UINT32, taz_protocol_group_id_protocol_count, taz_protocol_group_get, taz_protocol_group_info_st,
          nr_protocol_idxs)
#undef TAZ_BY_ID
#undef TAZ_BY_INDEX

UINT32 taz_rule_count(const taz_pattern_st *sp) { return sp ? sp->rule_info_list.nr_rule_infos : 0; }

const taz_rule_info_st *taz_rule_info_get(const taz_pattern_st *sp, UINT32 rule_id)
{
    return sp ? rule_info_list_search(rule_id, &sp->rule_info_list) : nullptr;
}

/* ---- Clean ---------------------------------------------------------------- */

int taz_rule_id_check_clean(const taz_pattern_st *sp, UINT32 rule_id, UINT32 protocol, UINT32 direction,
                            UINT32 *target)
{
    if (!sp) return -1;
    const taz_rule_info_st *r = rule_by_id(sp, rule_id);
    return r ? taz_clean_parameter_check(&r->clean_info, protocol, direction, target) : 0;
}

/* A missing rule also answers 0, with the outputs untouched. */
int taz_rule_id_get_clean(const taz_pattern_st *sp, UINT32 rule_id, UINT32 *priority, const unsigned char **src_ptn,
                          const unsigned char **dst_ptn)
{
    if (!sp) return -1;
    const taz_rule_info_st *r = rule_by_id(sp, rule_id);
    return r ? copy_clean(r->clean_info, priority, src_ptn, dst_ptn) : 0;
}

int taz_clean_info_check_clean(const taz_pattern_st *sp, UINT32 protocol, UINT32 direction, UINT32 *target)
{
    if (!sp) return -1;
    const taz_clean_info_st *ci = taz_clean_info_get(sp, protocol);
    return ci ? taz_clean_parameter_check(ci, protocol, direction, target) : 0;
}

/* Unlike the rule form, a miss here is -1. */
int taz_clean_info_get_clean(const taz_pattern_st *sp, UINT32 protocol, UINT32 *priority,
                             const unsigned char **src_ptn, const unsigned char **dst_ptn)
{
    const taz_clean_info_st *ci = sp ? taz_clean_info_get(sp, protocol) : nullptr;
    return ci ? copy_clean(*ci, priority, src_ptn, dst_ptn) : -1;
}

/* ---- Protocols and protocol groups ---------------------------------------- */

UINT32 taz_protocol_count(const taz_pattern_st *sp) { return sp ? sp->protocol_info.nr_prot_infos : 0; }

UINT32 taz_protocol_group_count(const taz_pattern_st *sp) { return sp ? sp->protocol_info.nr_prog_infos : 0; }

UINT32 taz_protocol_index_group_id(const taz_pattern_st *sp, UINT32 index)
{
    return group_id_of(sp, protocol_at(sp, index));
}

UINT32 taz_protocol_group_index_protocol_index(const taz_pattern_st *sp, UINT32 group_index, UINT32 protocol_index)
{
    return member_protocol_id(sp, group_at(sp, group_index), protocol_index);
}

UINT32 taz_protocol_id_group_id(const taz_pattern_st *sp, UINT32 protocol_id)
{
    return group_id_of(sp, taz_protocol_get(sp, protocol_id));
}

UINT32 taz_protocol_group_id_protocol_index_id(const taz_pattern_st *sp, UINT32 group_id, UINT32 protocol_index)
{
    return member_protocol_id(sp, taz_protocol_group_get(sp, group_id), protocol_index);
}

/* ---- Risk, threat type, second-kind name ------------------------------------ */

int taz_known_risk_get_info(const taz_pattern_st *sp, UINT32 direction, UINT32 protocol, UINT32 *policy_id,
                            UINT32 *severity)
{
    if (!sp || !policy_id || !severity) return -1;
    const taz_severity_info_list_st &si = sp->severity_info;
    if (const taz_known_risk_info_st *k = first_fit(si.known_infos, si.nr_known_infos, direction, protocol))
        return give_risk(k->info, policy_id, severity);
    return give_default(direction, si.known_inbound_info, si.known_outbound_info, policy_id, severity);
}

/* The entries of the rule are tried in stored order; an entry without a
 * risk array ends the scan at once (later entries are not looked at). */
int taz_potential_risk_get_info(const taz_pattern_st *sp, UINT32 rule_id, UINT32 direction, UINT32 protocol,
                                UINT32 *policy_id, UINT32 *severity)
{
    if (!sp || !policy_id || !severity) return -1;
    const taz_severity_info_list_st &si = sp->severity_info;
    for (UINT32 i = 0; si.potential_infos && i < si.nr_potential_infos; ++i) {
        const taz_potential_risk_info_st &p = si.potential_infos[i];
        if (p.rule_id != rule_id) continue;
        if (!p.risk_infos) break;
        if (const taz_known_risk_info_st *k = first_fit(p.risk_infos, p.nr_risk_infos, direction, protocol))
            return give_risk(k->info, policy_id, severity);
    }
    return give_default(direction, si.potential_inbound_info, si.potential_outbound_info, policy_id, severity);
}

UINT32 taz_threat_type_get(const taz_pattern_st *sp, UINT32 rule_id)
{
    if (!sp) return TT_HIDDEN;
    const taz_threat_type_info_list_st &tt = sp->threat_type_info;
    for (UINT32 i = 0; tt.threat_type_infos && i < tt.nr_threat_type_infos; ++i)
        if (tt.threat_type_infos[i].rule_id == rule_id) return tt.threat_type_infos[i].threat_type;
    return TT_HIDDEN;
}

const unsigned char *taz_ulm_get_info(const taz_pattern_st *sp) { return sp ? sp->ulm_info.malname : nullptr; }

} // extern "C"
