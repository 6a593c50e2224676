/* taze.hpp: header-only C++17 interface to the taze pattern engine.
 *
 * It adds no behaviour of its own: every answer comes from the C functions
 * of tazapi.h. What it adds is ownership and types:
 *
 *   taze::handle            move-only owner of one TAZE handle (TAZE_Init /
 *                           TAZE_Fini); loading calls throw taze::error or,
 *                           in their try_ forms, return a std::error_code.
 *   taze::errc              the vkerror.h codes as a typed error, with the
 *                           category taze::error_category().
 *   std::optional results   a query that the C function refuses (bad
 *                           argument, nothing loaded) gives std::nullopt.
 *   taze::view<T>           a borrowed, read-only span over pattern data;
 *                           counted strings come out as std::string_view and
 *                           IPv6 addresses as taze::ipv6.
 *   std::string results     the C string copies are taken over and freed.
 *   taze::reloading_handle  one writer reloads while any number of threads
 *                           keep querying a snapshot.
 *   taze::load_report       which file a directory load took and why every
 *                           other entry of the directory was passed over.
 *
 * String arguments (taze::zstr) accept const char*, std::string and
 * std::string_view. A const char* or std::string is NUL-terminated already
 * and is passed through. A std::string_view is copied, into a small buffer
 * on the stack or, when longer, onto the heap: whether the byte after a view
 * is a terminator cannot be tested without reading past the view. A string
 * with a NUL byte inside it is refused (nullopt, or errc::para), because the
 * C functions would silently see only the text before that byte.
 *
 * Lifetime of borrowed data: views obtained from a taze::handle stay valid
 * until that handle loads, reloads, unloads or is destroyed (as with the C
 * API). Views obtained from a reloading_handle snapshot come wrapped in
 * taze::pinned<T>, which keeps the pattern they point into alive, so they
 * stay valid across any number of reloads. */
#ifndef TAZE_HPP
#define TAZE_HPP

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "tazapi.h"
#include "taze_candidates.hpp"

namespace taze {

/* ---- error codes ----------------------------------------------------------- */

/* name, vkerror.h macro, description */
#define TAZE_HPP_ERRORS(X)                                                                        \
    X(unknown, UNKNOWN_ERR, "not found, rejected, or no usable pattern")                         \
    X(busy, BUSY_ERR, "busy")                                                                     \
    X(dtype_need_more_data, DTYPE_NEED_MORE_DATA_ERR, "more data needed")                         \
    X(zip_file_count, ZIP_FILE_COUNT_ERR, "archive file count")                                   \
    X(zip_crc_equ_skip, ZIP_CRC_EQU_SKIP_ERR, "archive checksum skip")                            \
    X(zip_ratio, ZIP_RATIO_ERR, "archive ratio")                                                  \
    X(seek, SEEK_ERR, "seek failed")                                                              \
    X(bad_file, BAD_FILE_ERR, "bad file")                                                         \
    X(psw_office, PSW_OFFICE_ERR, "password-protected document")                                  \
    X(need_scan_com, NEED_SCAN_COM, "needs a further scan")                                       \
    X(extract_too_big, EXTRACT_TOO_BIG_ERR, "extraction too big")                                 \
    X(disk_full, DISK_FULL_ERR, "disk full")                                                      \
    X(maxdecom, MAXDECOM_ERR, "decompression limit")                                              \
    X(file_exist, FILE_EXIST_ERR, "file exists")                                                  \
    X(platform, PLATFORM_ERR, "platform error")                                                   \
    X(not_supported, NOT_SUPPORTED_ERR, "not supported")                                          \
    X(bad_zip, BAD_ZIP_ERR, "bad archive")                                                        \
    X(newptn_struc_not_found, NEWPTN_STRUC_NOT_FOUND, "pattern structure not found")              \
    X(backup_name_full, BACKUP_NAME_FULL_ERR, "backup names exhausted")                           \
    X(buffer_too_short, BUFFER_TOO_SHORT_ERR, "buffer too short")                                 \
    X(bad_handle, BAD_HANDLE_ERR, "bad handle")                                                   \
    X(access, ACCESS_ERR, "pattern directory cannot be scanned or holds no matching file")       \
    X(break_, BREAK_ERR, "interrupted")                                                           \
    X(skip, SKIP_ERR, "skipped")                                                                  \
    X(bad_vsc, BAD_VSC_ERR, "bad engine data")                                                    \
    X(no_supp, NO_SUPP_ERR, "not supported")                                                      \
    X(psw_zip, PSW_ZIP_ERR, "password-protected archive")                                         \
    X(disable, DISABLE_ERR, "disabled")                                                           \
    X(open_r, OPEN_R_ERR, "pattern file cannot be opened for reading")                            \
    X(open_w, OPEN_W_ERR, "file cannot be opened for writing")                                    \
    X(read, READ_ERR, "pattern file rejected or holds no main pattern")                           \
    X(write, WRITE_ERR, "write failed")                                                           \
    X(no_mem, NO_MEM_ERR, "out of memory")                                                        \
    X(para, PARA_ERR, "bad argument or handle state")

enum class errc : int {
#define TAZE_HPP_ENUMERATOR(name, code, text) name = code,
    TAZE_HPP_ERRORS(TAZE_HPP_ENUMERATOR)
#undef TAZE_HPP_ENUMERATOR
};

namespace detail {

struct code_info {
    int code;
    const char *name;
    const char *text;
};

inline constexpr code_info code_table[] = {
#define TAZE_HPP_INFO(name, code, text) {code, #code, text},
    TAZE_HPP_ERRORS(TAZE_HPP_INFO)
#undef TAZE_HPP_INFO
};

class category_impl final : public std::error_category {
public:
    const char *name() const noexcept override { return "taze"; }
    std::string message(int code) const override
    {
        for (const code_info &i : code_table) {
            if (i.code == code) return std::string(i.text) + " (" + i.name + ")";
        }
        return "taze error " + std::to_string(code);
    }
    std::error_condition default_error_condition(int code) const noexcept override
    {
        if (code == NO_MEM_ERR) return std::errc::not_enough_memory;
        return std::error_condition(code, *this);
    }
};

} // namespace detail

#undef TAZE_HPP_ERRORS

inline const std::error_category &error_category() noexcept
{
    static const detail::category_impl category;
    return category;
}

inline std::error_code make_error_code(errc e) noexcept { return {static_cast<int>(e), error_category()}; }

/* The vkerror.h name of a result code ("READ_ERR"), or "" for another value. */
inline const char *error_name(int code) noexcept
{
    for (const detail::code_info &i : detail::code_table)
        if (i.code == code) return i.name;
    return "";
}

/* Thrown by the loading calls. code() holds the library's result code. */
class error : public std::system_error {
public:
    error(std::error_code ec, const char *operation) : std::system_error(ec, operation) {}
    errc value() const noexcept { return static_cast<errc>(code().value()); }
};

namespace detail {

/* 0 is success; any other result of a loading call is an error. */
inline std::error_code to_error(int rc) noexcept
{
    return rc == 0 ? std::error_code() : std::error_code(rc, error_category());
}

inline void throw_if(std::error_code ec, const char *operation)
{
    if (ec) throw error(ec, operation);
}

} // namespace detail
} // namespace taze

namespace std {
template <>
struct is_error_code_enum<taze::errc> : true_type {};
} // namespace std

namespace taze {

/* ---- small types -------------------------------------------------------------- */

using ipv6 = std::array<std::uint8_t, 16>; /* network byte order */

enum class kind : int { taz = PT_TAZ, ulm = PT_ULM };

enum class list_kind { exact, prefix, suffix, substring, exact_case, prefix_case, suffix_case, substring_case };

/* Answer of a map search: the key (or, for string values, the value) was not
 * found or the map type is not accepted; the value was not found; a match. */
enum class map_answer : int { miss = -1, no_value = 0, match = 1 };

enum class debug_level { off, error, warn, info, debug };

/* The debug mask is one for the whole process. */
inline void set_debug_level(debug_level level) noexcept
{
    static constexpr void (*const setters[])(TAZE *) = {&TAZE_disableDebug, &TAZE_setDbgLevelErr,
                                                        &TAZE_setDbgLevelWarn, &TAZE_setDbgLevelInfo,
                                                        &TAZE_setDbgLevelDebug};
    const auto i = static_cast<std::size_t>(level);
    if (i < std::size(setters)) setters[i](nullptr);
}

struct clean_check {
    bool clean = false;
    unsigned target = 0; /* meaningful when clean */
};

struct clean_data {
    unsigned priority = 0;
    std::string src, dst;
};

struct risk_info {
    unsigned policy_id = 0;
    unsigned severity = 0;
};

/* ---- string arguments ------------------------------------------------------------ */

class zstr {
public:
    zstr(const char *s) noexcept : p_(s), err_(s ? 0 : PARA_ERR) {}
    zstr(const std::string &s) noexcept : p_(s.c_str()) { refuse_inner_nul(s.data(), s.size()); }
    zstr(std::string_view s) noexcept
    {
        if (refuse_inner_nul(s.data(), s.size())) return;
        char *dst = buf_;
        if (s.size() >= sizeof buf_) {
            heap_.reset(new (std::nothrow) char[s.size() + 1]);
            if (!heap_) {
                err_ = NO_MEM_ERR;
                return;
            }
            dst = heap_.get();
        }
        if (!s.empty()) std::memcpy(dst, s.data(), s.size());
        dst[s.size()] = '\0';
        p_ = dst;
    }
    zstr(const zstr &) = delete;
    zstr &operator=(const zstr &) = delete;

    /* The terminated text, or null when the argument was refused. */
    const char *c_str() const noexcept { return err_ ? nullptr : p_; }
    std::error_code error() const noexcept { return detail::to_error(err_); }

private:
    bool refuse_inner_nul(const char *data, std::size_t size) noexcept
    {
        if (size && std::memchr(data, '\0', size)) err_ = PARA_ERR;
        return err_ != 0;
    }

    const char *p_ = nullptr;
    int err_ = 0;
    std::unique_ptr<char[]> heap_;
    char buf_[256];
};

/* ---- borrowed views ------------------------------------------------------------------ */

namespace detail {

/* How an element of pattern data is presented. */
template <class T>
struct element {
    using type = T;
    static type get(const T &x) noexcept { return x; }
};
template <>
struct element<TAZE_CountedString> {
    using type = std::string_view;
    static type get(const TAZE_CountedString &s) noexcept
    {
        return s.ptr ? type(reinterpret_cast<const char *>(s.ptr), s.len) : type();
    }
};
template <>
struct element<TAZE_IPv6> {
    using type = ipv6;
    static type get(const TAZE_IPv6 &a) noexcept
    {
        type r;
        std::memcpy(r.data(), a.bytes, r.size());
        return r;
    }
};

} // namespace detail

/* A borrowed, read-only array of pattern data. Elements are presented by
 * value (TAZE_CountedString as std::string_view, TAZE_IPv6 as taze::ipv6). */
template <class T>
class view {
public:
    using element_type = T;
    using value_type = typename detail::element<T>::type;
    using size_type = std::size_t;

    class iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = view::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = value_type;

        iterator() = default;
        explicit iterator(const T *p) noexcept : p_(p) {}
        value_type operator*() const noexcept { return detail::element<T>::get(*p_); }
        iterator &operator++() noexcept
        {
            ++p_;
            return *this;
        }
        iterator operator++(int) noexcept
        {
            iterator old = *this;
            ++p_;
            return old;
        }
        friend bool operator==(iterator a, iterator b) noexcept { return a.p_ == b.p_; }
        friend bool operator!=(iterator a, iterator b) noexcept { return a.p_ != b.p_; }

    private:
        const T *p_ = nullptr;
    };

    constexpr view() noexcept = default;
    view(const T *data, std::size_t size) noexcept : p_(size ? data : nullptr), n_(data ? size : 0) {}

    std::size_t size() const noexcept { return n_; }
    bool empty() const noexcept { return n_ == 0; }
    const T *data() const noexcept { return p_; }
    value_type operator[](std::size_t i) const noexcept { return detail::element<T>::get(p_[i]); }
    value_type at(std::size_t i) const
    {
        if (i >= n_) throw std::out_of_range("taze::view::at");
        return (*this)[i];
    }
    iterator begin() const noexcept { return iterator(p_); }
    iterator end() const noexcept { return iterator(p_ + n_); }

private:
    const T *p_ = nullptr;
    std::size_t n_ = 0;
};

inline std::string_view text(const TAZE_CountedString &s) noexcept { return detail::element<TAZE_CountedString>::get(s); }

/* One map entry: the key and its values, borrowed. */
template <class K, class V>
struct map_entry {
    K key;
    view<V> values;
};

/* A borrowed result together with the pattern it points into. */
template <class T>
class pinned {
public:
    pinned(T value, std::shared_ptr<const void> keep) noexcept : value_(std::move(value)), keep_(std::move(keep)) {}
    const T &get() const noexcept { return value_; }
    const T &operator*() const noexcept { return value_; }
    const T *operator->() const noexcept { return &value_; }

private:
    T value_;
    std::shared_ptr<const void> keep_;
};

namespace detail {

/* Result wrappers: borrowed as is, or pinned to a snapshot. */
struct no_pin {
    template <class T>
    T operator()(T v) const noexcept
    {
        return v;
    }
};
struct pin {
    std::shared_ptr<const void> keep;
    template <class T>
    pinned<T> operator()(T v) const noexcept
    {
        return pinned<T>(std::move(v), keep);
    }
};

/* Every map record holds its key, the value count and the values, in this order. */
template <class Record>
auto entry_of(const Record &r) noexcept
{
    const auto &[key, count, values] = r;
    using K = std::remove_cv_t<std::remove_reference_t<decltype(key)>>;
    using V = std::remove_pointer_t<std::remove_cv_t<std::remove_reference_t<decltype(values)>>>;
    return map_entry<typename element<K>::type, V>{element<K>::get(key), view<V>(values, count)};
}

inline const char *c_arg(const zstr &s) noexcept { return s.c_str(); }
inline const unsigned char *c_arg(const ipv6 &a) noexcept { return a.data(); }
inline std::uint32_t c_arg(std::uint32_t v) noexcept { return v; }
inline bool arg_ok(const zstr &s) noexcept { return s.c_str() != nullptr; }
template <class T>
bool arg_ok(const T &) noexcept
{
    return true;
}

/* The map functions of some families take no map type: leave it out for them. */
template <class Fn, class... A>
int call_map(Fn fn, TAZE *h, int ptn_type, int map_type, int magic, A... a) noexcept
{
    if constexpr (std::is_invocable_v<Fn, TAZE *, int, int, int, A...>) {
        return fn(h, ptn_type, map_type, magic, a...);
    } else {
        return fn(h, ptn_type, magic, a...);
    }
}

struct c_free {
    void operator()(char *p) const noexcept { std::free(p); }
};
using c_string = std::unique_ptr<char, c_free>;

} // namespace detail

/* ---- maps ------------------------------------------------------------------------ */

template <class Record, class Key, class Value, auto Search, auto ByKey, auto Count, auto ByIndex>
struct map_family {
    using record = Record;
    using key_type = Key;
    using value_type = Value;
    static constexpr auto search = Search;
    static constexpr auto by_key = ByKey;
    static constexpr auto count = Count;
    static constexpr auto by_index = ByIndex;
};

namespace maps {
using str_int = map_family<TAZE_StringIntMap, zstr, std::uint32_t, &TAZE_PatternSearchSIMap,
                           &TAZE_PatternGetSIMapByKey, &TAZE_PatternGetSIMapCount, &TAZE_PatternGetSIMapByIndex>;
/* Lookup by key is never answered for this family: use at() and contains(). */
using str_ipv6 = map_family<TAZE_StringIPv6Map, zstr, ipv6, &TAZE_PatternSearchSIPv6Map,
                            &TAZE_PatternGetSIPv6MapByKey, &TAZE_PatternGetSIPv6MapCount,
                            &TAZE_PatternGetSIPv6MapByIndex>;
using ipv6_int = map_family<TAZE_IPv6IntMap, ipv6, std::uint32_t, &TAZE_PatternSearchIPv6IMap,
                            &TAZE_PatternGetIPv6IMapByKey, &TAZE_PatternGetIPv6IMapCount,
                            &TAZE_PatternGetIPv6IMapByIndex>;
using int_int = map_family<TAZE_IntIntMap, std::uint32_t, std::uint32_t, &TAZE_PatternSearchIIMap,
                           &TAZE_PatternGetIIMapByKey, &TAZE_PatternGetIIMapCount, &TAZE_PatternGetIIMapByIndex>;
using int_str = map_family<TAZE_IntStringMap, std::uint32_t, zstr, &TAZE_PatternSearchISMap,
                           &TAZE_PatternGetISMapByKey, &TAZE_PatternGetISMapCount, &TAZE_PatternGetISMapByIndex>;
using str_str = map_family<TAZE_StringStringMap, zstr, zstr, &TAZE_PatternSearchSSMap, &TAZE_PatternGetSSMapByKey,
                           &TAZE_PatternGetSSMapCount, &TAZE_PatternGetSSMapByIndex>;
} // namespace maps

/* One map list of one pattern kind. Results are borrowed (or pinned, when
 * the map was taken from a snapshot). */
template <class Family, class Pin>
class map_ref {
public:
    using key_type = typename Family::key_type;
    using value_type = typename Family::value_type;
    using entry = decltype(detail::entry_of(std::declval<const typename Family::record &>()));
    using result = decltype(std::declval<const Pin &>()(std::declval<entry>()));

    map_ref(TAZE *h, Pin pin, kind k, int map_type, int magic) noexcept
        : h_(h), pin_(std::move(pin)), ptn_(static_cast<int>(k)), type_(map_type), magic_(magic)
    {
    }

    std::optional<map_answer> contains(const key_type &key, const value_type &value) const noexcept
    {
        if (!detail::arg_ok(key) || !detail::arg_ok(value)) return std::nullopt;
        const int rc =
            detail::call_map(Family::search, h_, ptn_, type_, magic_, detail::c_arg(key), detail::c_arg(value));
        if (rc < -1 || rc > 1) return std::nullopt;
        return static_cast<map_answer>(rc);
    }
    std::optional<result> find(const key_type &key) const
    {
        if (!detail::arg_ok(key)) return std::nullopt;
        typename Family::record r{};
        if (detail::call_map(Family::by_key, h_, ptn_, type_, magic_, detail::c_arg(key), &r) != 0) return std::nullopt;
        return pin_(detail::entry_of(r));
    }
    std::optional<std::size_t> size() const noexcept
    {
        const int rc = detail::call_map(Family::count, h_, ptn_, type_, magic_);
        if (rc < 0) return std::nullopt;
        return static_cast<std::size_t>(rc);
    }
    std::optional<result> at(std::size_t index) const
    {
        if (index > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
        typename Family::record r{};
        if (detail::call_map(Family::by_index, h_, ptn_, type_, magic_, static_cast<int>(index), &r) != 0) {
            return std::nullopt;
        }
        return pin_(detail::entry_of(r));
    }

private:
    TAZE *h_;
    Pin pin_;
    int ptn_, type_, magic_;
};

/* ---- queries that hand out nothing borrowed ----------------------------------------- */

/* Rule, clean, protocol and risk queries take an optional pattern kind: none
 * asks the current pattern (the plain C function), a kind asks that pattern
 * (the Ex form). List searches name the kind, the main pattern by default. */
class queries {
public:
    TAZE *native() const noexcept { return h_; }
    bool loaded() const noexcept { return loaded_; }

    std::optional<std::string> pattern_version() const { return version(&TAZE_GetPatternVersion); }
    std::optional<std::string> compiler_version() const { return version(&TAZE_GetCompilerVersion); }

    /* Getters of one number or one copied string by a position or an id.
     * Table rows: method, result (number: unsigned; copy: std::string, the C
     * copy freed), C function. Rows with an Ex form take an optional kind. */
#define TAZE_HPP_KEYED_EX(X)                                                 \
    X(rule_index_desc, copy, TAZE_GetRuleIndexDesc)                          \
    X(rule_index_risk, copy, TAZE_GetRuleIndexRisk)                          \
    X(rule_index_risk_group, number, TAZE_GetRuleIndexRiskGroup)             \
    X(rule_index_cl, number, TAZE_GetRuleIndexCL)                            \
    X(rule_index_enable, number, TAZE_GetRuleIndexEnable)                    \
    X(rule_index_rule_id, number, TAZE_GetRuleIndexRuleID)                   \
    X(rule_id_risk, copy, TAZE_GetRuleIdRisk) /* unknown rule: "" */         \
    X(rule_id_risk_group, number, TAZE_GetRuleIdRiskGroup)                   \
    X(rule_id_cl, number, TAZE_GetRuleIdCL)                                  \
    X(protocol_id_group_id, number, TAZE_GetProtocolIdGroupID)
#define TAZE_HPP_KEYED(X)                                                    \
    X(rule_id_desc, copy, TAZE_GetRuleIdDesc) /* main, then second kind */   \
    X(protocol_index_id, number, TAZE_GetProtocolIndexID)                    \
    X(protocol_index_desc, copy, TAZE_GetProtocolIndexDesc)                  \
    X(protocol_index_group_id, number, TAZE_GetProtocolIndexGroupID)         \
    X(protocol_id_desc, copy, TAZE_GetProtocolIdDesc)                        \
    X(protocol_group_index_id, number, TAZE_GetProtocolGroupIndexID)         \
    X(protocol_group_index_desc, copy, TAZE_GetProtocolGroupIndexDesc)       \
    X(protocol_group_index_protocol_count, number, TAZE_GetProtocolGroupIndexProtocolCount) \
    X(protocol_group_id_desc, copy, TAZE_GetProtocolGroupIdDesc)             \
    X(protocol_group_id_protocol_count, number, TAZE_GetProtocolGroupIdProtocolCount)
#define TAZE_HPP_GETTER_EX(name, result, fn) \
    auto name(unsigned key, std::optional<kind> k = {}) const { return result(k, &fn, &fn##Ex, key); }
#define TAZE_HPP_GETTER(name, result, fn) \
    auto name(unsigned key) const { return result({}, &fn, nullptr, key); }
    TAZE_HPP_KEYED_EX(TAZE_HPP_GETTER_EX)
    TAZE_HPP_KEYED(TAZE_HPP_GETTER)
#undef TAZE_HPP_GETTER
#undef TAZE_HPP_GETTER_EX
#undef TAZE_HPP_KEYED
#undef TAZE_HPP_KEYED_EX

    /* Counts, and the members of a protocol group by position or id. */
    std::optional<unsigned> rule_count(std::optional<kind> k = {}) const
    {
        return number(k, &TAZE_GetRuleInfoCount, &TAZE_GetRuleInfoCountEx);
    }
    std::optional<unsigned> protocol_count() const { return number({}, &TAZE_GetProtocolCount, nullptr); }
    std::optional<unsigned> protocol_group_count() const { return number({}, &TAZE_GetProtocolGroupCount, nullptr); }
    std::optional<unsigned> protocol_group_index_protocol(unsigned idx, unsigned pidx) const
    {
        return number({}, &TAZE_GetProtocolGroupIndexProtocolIndex, nullptr, idx, pidx);
    }
    std::optional<unsigned> protocol_group_id_protocol(unsigned id, unsigned pidx) const
    {
        return number({}, &TAZE_GetProtocolGroupIdProtocolIndexId, nullptr, id, pidx);
    }

    /* Clean-up. An unknown rule gives rule_clean priority 0 and empty
     * strings: the C function reports success and leaves its outputs. */
    std::optional<clean_check> check_rule_clean(unsigned id, unsigned protocol, unsigned direction,
                                                std::optional<kind> k = {}) const
    {
        return check(k, &TAZE_CheckRuleIdClean, &TAZE_CheckRuleIdCleanEx, id, protocol, direction);
    }
    std::optional<clean_data> rule_clean(unsigned id, std::optional<kind> k = {}) const
    {
        return clean(k, &TAZE_GetRuleIdClean, &TAZE_GetRuleIdCleanEx, id);
    }
    std::optional<clean_check> check_clean_info(unsigned protocol, unsigned direction,
                                                std::optional<kind> k = {}) const
    {
        return check(k, &TAZE_CheckCleanInfo, &TAZE_CheckCleanInfoEx, protocol, direction);
    }
    std::optional<clean_data> clean_info(unsigned protocol, std::optional<kind> k = {}) const
    {
        return clean(k, &TAZE_GetCleanInfo, &TAZE_GetCleanInfoEx, protocol);
    }

    /* Risk and threat type. */
    std::optional<risk_info> known_risk(unsigned direction, unsigned protocol, std::optional<kind> k = {}) const
    {
        return risk(k, &TAZE_GetKnownRiskInfo, &TAZE_GetKnownRiskInfoEx, direction, protocol);
    }
    std::optional<risk_info> potential_risk(unsigned rule_id, unsigned direction, unsigned protocol,
                                            std::optional<kind> k = {}) const
    {
        return risk(k, &TAZE_GetPotentialRiskInfo, &TAZE_GetPotentialRiskInfoEx, rule_id, direction, protocol);
    }
    /* A threat_type_e value; TT_HIDDEN for an unknown rule. */
    std::optional<unsigned> threat_type(unsigned rule_id, std::optional<kind> k = {}) const
    {
        if (!loaded_) return std::nullopt; /* the C function needs a loaded pattern */
        return number(k, &TAZE_GetThreatType, &TAZE_GetThreatTypeEx, rule_id);
    }

    /* List searches: true on a match. */
    std::optional<bool> search(list_kind list, int idx, const zstr &s, kind k = kind::taz) const noexcept
    {
        static constexpr int (*const searches[])(TAZE *, int, const char *, int) = {
            &TAZE_PatternSearchStringList,     &TAZE_PatternSearchPrefixList,     &TAZE_PatternSearchSuffixList,
            &TAZE_PatternSearchSubstringList,  &TAZE_PatternSearchCaseList,       &TAZE_PatternSearchPrefixCaseList,
            &TAZE_PatternSearchSuffixCaseList, &TAZE_PatternSearchSubstringCaseList};
        const auto i = static_cast<std::size_t>(list);
        if (!s.c_str() || i >= std::size(searches)) return std::nullopt;
        return answer(searches[i](h_, idx, s.c_str(), static_cast<int>(k)));
    }
    /* ip in host byte order. */
    std::optional<bool> in_ip_range(int idx, std::uint32_t ip, kind k = kind::taz) const noexcept
    {
        return answer(TAZE_PatternSearchIPRangeList(h_, idx, ip, static_cast<int>(k)));
    }
    std::optional<bool> in_ipv6_range(int idx, const ipv6 &a, kind k = kind::taz) const noexcept
    {
        return answer(TAZE_PatternSearchIPv6RangeList(h_, idx, a.data(), static_cast<int>(k)));
    }
    std::optional<bool> in_port_range(int idx, std::uint16_t port, kind k = kind::taz) const noexcept
    {
        return answer(TAZE_PatternSearchPortRangeList(h_, idx, port, static_cast<int>(k)));
    }

protected:
    queries() = default;
    queries(const queries &) = default;
    queries &operator=(const queries &) = default;
    ~queries() = default;

    TAZE *h_ = nullptr;
    bool loaded_ = false;

private:
    static std::optional<bool> answer(int rc) noexcept
    {
        if (rc != 0 && rc != 1) return std::nullopt;
        return rc == 1;
    }

    template <class Fn>
    std::optional<std::string> version(Fn fn) const
    {
        char buf[32];
        if (fn(h_, buf, static_cast<int>(sizeof buf)) != 0) return std::nullopt;
        return std::string(buf);
    }

    /* The plain function on the current pattern, or the Ex form on kind k. */
    template <class Plain, class Ex, class... A>
    int dispatch(std::optional<kind> k, Plain plain, Ex ex, A... a) const noexcept
    {
        if constexpr (std::is_null_pointer_v<Ex>) {
            return plain(h_, a...);
        } else {
            return k ? ex(h_, static_cast<unsigned>(*k), a...) : plain(h_, a...);
        }
    }

    template <class Plain, class Ex, class... A>
    std::optional<unsigned> number(std::optional<kind> k, Plain plain, Ex ex, A... a) const noexcept
    {
        unsigned v = 0;
        if (dispatch(k, plain, ex, a..., &v) != 0) return std::nullopt;
        return v;
    }

    template <class Plain, class Ex, class... A>
    std::optional<std::string> copy(std::optional<kind> k, Plain plain, Ex ex, A... a) const
    {
        char *s = nullptr;
        const int rc = dispatch(k, plain, ex, a..., &s);
        const detail::c_string owned(s);
        if (rc != 0 || !s) return std::nullopt;
        return std::string(s);
    }

    template <class Plain, class Ex, class... A>
    std::optional<clean_check> check(std::optional<kind> k, Plain plain, Ex ex, A... a) const noexcept
    {
        unsigned target = 0;
        const int rc = dispatch(k, plain, ex, a..., &target);
        if (rc != 0 && rc != 1) return std::nullopt;
        return clean_check{rc == 1, target};
    }

    template <class Plain, class Ex, class... A>
    std::optional<clean_data> clean(std::optional<kind> k, Plain plain, Ex ex, A... a) const
    {
        unsigned priority = 0;
        char *src = nullptr, *dst = nullptr;
        const int rc = dispatch(k, plain, ex, a..., &priority, &src, &dst);
        const detail::c_string own_src(src), own_dst(dst);
        if (rc != 0) return std::nullopt;
        return clean_data{priority, src ? src : "", dst ? dst : ""};
    }

    template <class Plain, class Ex, class... A>
    std::optional<risk_info> risk(std::optional<kind> k, Plain plain, Ex ex, A... a) const noexcept
    {
        risk_info r;
        if (dispatch(k, plain, ex, a..., &r.policy_id, &r.severity) != 0) return std::nullopt;
        return r;
    }
};

/* ---- queries that hand out borrowed data --------------------------------------------- */

/* Written once for the handle (plain views) and the snapshot (pinned views).
 * Self provides borrow_handle() and pinner(). */
template <class Self>
class borrowing {
public:
    /* The strings of exact list idx, in stored order. */
    auto string_list(int idx, kind k = kind::taz) const
    {
        TAZE_StringList l{};
        const bool ok = TAZE_PatternGetStringList(handle_(), idx, static_cast<int>(k), &l) == 0;
        return result_if(ok, view<TAZE_CountedString>(l.strings, l.nr_strings));
    }
    /* The raw (YUB) sub-pattern's bytes. */
    auto raw_pattern() const
    {
        const unsigned char *data = nullptr;
        unsigned len = 0;
        const bool ok = TAZE_GetRawPatternByType(handle_(), RPT_YUB, &data, &len) == 0;
        return result_if(ok, view<unsigned char>(data, len));
    }
    /* The second pattern kind's name. */
    auto ulm_info() const
    {
        const char *info = nullptr;
        const bool ok = TAZE_GetUlmInfo(handle_(), &info) == 0 && info;
        return result_if(ok, ok ? std::string_view(info) : std::string_view());
    }
    /* Map list `magic` of a family (taze::maps::...). map_type selects the
     * list array and the matching rules; the integer-to-integer and
     * IPv6-to-integer families ignore it. */
    template <class Family>
    auto map(int magic, int map_type = MT_STRING, kind k = kind::taz) const
    {
        return map_ref<Family, decltype(self().pinner())>(handle_(), self().pinner(), k, map_type, magic);
    }

protected:
    borrowing() = default;
    borrowing(const borrowing &) = default;
    borrowing &operator=(const borrowing &) = default;
    ~borrowing() = default;

private:
    const Self &self() const noexcept { return static_cast<const Self &>(*this); }
    TAZE *handle_() const noexcept { return self().borrow_handle(); }
    template <class T>
    auto result_if(bool ok, T value) const
    {
        using R = decltype(self().pinner()(std::move(value)));
        if (!ok) return std::optional<R>();
        return std::optional<R>(self().pinner()(std::move(value)));
    }
};

/* ---- directory load reports ----------------------------------------------------------- */

/* One entry of a pattern directory and what a directory load made of it. */
struct candidate_report {
    std::string name;          /* the file name, as the directory lists it */
    std::uint32_t number = 0;  /* the number after the prefix (0 when the prefix does not match) */
    std::uint32_t version = 0; /* the version peeked from the file (0 when the scan got no version) */
    candidates::reason reason = candidates::reason::candidate;
    int result = 0; /* TAZE_LoadPattern's code for load_failed, else 0 */
};

/* What one load or reload did. For a directory: every entry in directory
 * order; the candidates come out as loaded, load_failed (newer ones that
 * failed) or not_tried (older ones). */
struct load_report {
    std::string path;          /* the file that loaded; empty when none did */
    std::uint32_t version = 0; /* its pattern version */
    int result = 0;            /* the load's result code, as the C function returns it */
    int scan_result = 0;       /* the directory scan's code (0, or -1..-7) */
    std::vector<candidate_report> entries;

    const candidate_report *find(std::string_view name) const noexcept
    {
        for (const candidate_report &e : entries)
            if (e.name == name) return &e;
        return nullptr;
    }
};

namespace detail {

/* The 32-bit number of a version text "%d.%05d.%02d" (product, version,
 * build), as the C functions print it. */
inline std::uint32_t version_number(const char *text) noexcept
{
    char *end = nullptr;
    const unsigned long product = std::strtoul(text, &end, 10);
    const unsigned long version = *end ? std::strtoul(end + 1, &end, 10) : 0;
    const unsigned long build = *end ? std::strtoul(end + 1, &end, 10) : 0;
    return static_cast<std::uint32_t>((product & 0xFu) << 28 | (build & 0xFFu) << 20 | (version & 0xFFFFFu));
}

/* The pattern version of a file, through the exported peek. */
inline int peek_version_number(const char *path, std::uint32_t *out) noexcept
{
    char buf[32];
    const int rc = TAZE_PeekTAZPatternVer(path, buf, static_cast<int>(sizeof buf));
    if (rc == 0) *out = version_number(buf);
    return rc;
}

/* The host of candidates::scan for a report: keeps every entry. */
struct report_scan {
    load_report &report;
    std::vector<std::string> paths; /* of the candidates, by index in report.entries */

    static int peek(const char *path, std::uint32_t *version) noexcept { return peek_version_number(path, version); }
    bool take(const candidates::entry &e)
    {
        report.entries.push_back({e.name, e.number, e.version, e.why, 0});
        paths.emplace_back(e.why == candidates::reason::candidate ? e.path : "");
        return true;
    }
    void failed(int, const char *) noexcept {}
};

/* What TAZE_LoadPatternDir does, with the report: scan, then
 * TAZE_LoadPattern on the candidates from the newest down until one loads.
 * Returns the code TAZE_LoadPatternDir would return. */
inline int load_dir_reporting(TAZE *h, const char *dir, const char *prefix, load_report &report)
{
    report = load_report();
    report_scan host{report, {}};
    report.scan_result = candidates::scan(dir, prefix, host);
    if (report.scan_result != candidates::scan_ok) {
        for (candidate_report &e : report.entries)
            if (e.reason == candidates::reason::candidate) e.reason = candidates::reason::not_tried;
        return report.result = ACCESS_ERR;
    }
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < report.entries.size(); ++i)
        if (report.entries[i].reason == candidates::reason::candidate) order.push_back(i);
    /* The scan's ascending order (equal keys in directory order), walked
     * from its end: newest first, among equal keys the one found last. */
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return candidates::sorts_before(report.entries[a].version, report.entries[b].version);
    });
    std::reverse(order.begin(), order.end());
    int rc = ACCESS_ERR;
    for (std::size_t i : order) {
        candidate_report &e = report.entries[i];
        if (rc == 0) {
            e.reason = candidates::reason::not_tried;
            continue;
        }
        rc = TAZE_LoadPattern(h, host.paths[i].c_str());
        e.result = rc;
        e.reason = rc == 0 ? candidates::reason::loaded : candidates::reason::load_failed;
        if (rc == 0) {
            report.path = host.paths[i];
            report.version = e.version;
        }
    }
    return report.result = rc;
}

} // namespace detail

/* ---- the handle ------------------------------------------------------------------------ */

/* The throwing forms of the loading calls, for the handle and the reload
 * holder. Self provides try_load and try_load_dir. */
template <class Self>
class loading {
public:
    void load(const zstr &path) { detail::throw_if(self().try_load(path), "TAZE_LoadPattern"); }
    void load_dir(const zstr &dir, const zstr &prefix)
    {
        detail::throw_if(self().try_load_dir(dir, prefix), "TAZE_LoadPatternDir");
    }

protected:
    loading() = default;
    ~loading() = default;

private:
    Self &self() noexcept { return static_cast<Self &>(*this); }
};

/* Owns one TAZE handle. Loading and reloading must not run while another
 * thread queries the same handle; use reloading_handle for that. */
class handle : public queries, public borrowing<handle>, public loading<handle> {
public:
    handle() { detail::throw_if(init(), "TAZE_Init"); }
    explicit handle(std::error_code &ec) noexcept { ec = init(); }
    handle(handle &&o) noexcept { take(o); }
    handle &operator=(handle &&o) noexcept
    {
        if (this != &o) {
            reset();
            take(o);
        }
        return *this;
    }
    handle(const handle &) = delete;
    handle &operator=(const handle &) = delete;
    ~handle() { reset(); }

    /* Non-throwing forms: the library's result as an error code. */
    std::error_code try_load(const zstr &path) noexcept { return run(&TAZE_LoadPattern, path); }
    std::error_code try_load_dir(const zstr &dir, const zstr &prefix) noexcept
    {
        return run(&TAZE_LoadPatternDir, dir, prefix);
    }
    std::error_code try_reload_dir(const zstr &dir, const zstr &prefix) noexcept
    {
        return run(&TAZE_ReloadPatternDir, dir, prefix);
    }
    /* try_load_dir that also tells, in report, which file loaded and why
     * every other entry of the directory was passed over. It scans and
     * loads as TAZE_LoadPatternDir does (same candidate rules, same order,
     * same result codes) but prints none of the scan's debug messages. */
    std::error_code try_load_dir(const zstr &dir, const zstr &prefix, load_report &report)
    {
        report = load_report();
        std::error_code refused = dir.error() ? dir.error() : prefix.error();
        if (!refused && (!h_ || loaded_)) refused = make_error_code(errc::para);
        if (refused) {
            report.result = refused.value();
            return refused;
        }
        try {
            const int rc = detail::load_dir_reporting(h_, dir.c_str(), prefix.c_str(), report);
            if (rc == 0) loaded_ = true;
            return detail::to_error(rc);
        } catch (const std::bad_alloc &) {
            /* A file may have loaded before the report could grow. */
            if (char buf[32]; TAZE_GetPatternVersion(h_, buf, static_cast<int>(sizeof buf)) == 0) loaded_ = true;
            report.result = NO_MEM_ERR;
            return make_error_code(errc::no_mem);
        }
    }
    /* Releases the pattern and starts over with a fresh, empty handle (the
     * C handle cannot be used again after TAZE_UnloadPattern). */
    std::error_code try_unload() noexcept
    {
        reset();
        return init();
    }

    void reload_dir(const zstr &dir, const zstr &prefix)
    {
        detail::throw_if(try_reload_dir(dir, prefix), "TAZE_ReloadPatternDir");
    }
    void unload() { detail::throw_if(try_unload(), "TAZE_Init"); }

    /* Chooses the pattern the plain queries use; errc::para when nothing is loaded. */
    std::error_code point_to(kind k) noexcept
    {
        if (!loaded_) return make_error_code(errc::para);
        (k == kind::ulm ? TAZE_PointToULMPattern : TAZE_PointToTAZPattern)(h_);
        return {};
    }

private:
    friend class borrowing<handle>;

    std::error_code init() noexcept
    {
        TAZE *h = nullptr;
        const int rc = TAZE_Init(&h);
        h_ = rc == 0 ? h : nullptr;
        return detail::to_error(rc);
    }
    void reset() noexcept
    {
        TAZE_Fini(h_);
        h_ = nullptr;
        loaded_ = false;
    }
    void take(handle &o) noexcept
    {
        h_ = std::exchange(o.h_, nullptr);
        loaded_ = std::exchange(o.loaded_, false);
    }
    template <class Fn, class... Z>
    std::error_code run(Fn fn, const Z &...args) noexcept
    {
        std::error_code refused;
        ((refused = refused ? refused : args.error()), ...);
        if (refused) return refused;
        const int rc = fn(h_, args.c_str()...);
        if (rc == 0) loaded_ = true;
        return detail::to_error(rc);
    }
    TAZE *borrow_handle() const noexcept { return h_; }
    detail::no_pin pinner() const noexcept { return {}; }
};

/* Version text of a pattern file without loading it. */
inline std::error_code try_peek_version(const zstr &path, std::string &out)
{
    if (!path.c_str()) return path.error();
    char buf[32];
    const int rc = TAZE_PeekTAZPatternVer(path.c_str(), buf, static_cast<int>(sizeof buf));
    if (rc == 0) out = buf;
    return detail::to_error(rc);
}
inline std::string peek_version(const zstr &path)
{
    std::string v;
    detail::throw_if(try_peek_version(path, v), "TAZE_PeekTAZPatternVer");
    return v;
}

/* ---- reloading while others query ------------------------------------------------------ */

namespace detail {

/* A shared_ptr that one thread replaces while others copy it. */
template <class T>
class atomic_shared {
public:
#if defined(__cpp_lib_atomic_shared_ptr)
    std::shared_ptr<T> load() const noexcept { return p_.load(std::memory_order_acquire); }
    std::shared_ptr<T> exchange(std::shared_ptr<T> p) noexcept { return p_.exchange(std::move(p)); }

private:
    std::atomic<std::shared_ptr<T>> p_;
#else
    std::shared_ptr<T> load() const noexcept { return std::atomic_load_explicit(&p_, std::memory_order_acquire); }
    std::shared_ptr<T> exchange(std::shared_ptr<T> p) noexcept
    {
        return std::atomic_exchange_explicit(&p_, std::move(p), std::memory_order_acq_rel);
    }

private:
    std::shared_ptr<T> p_;
#endif
};

} // namespace detail

/* One loaded pattern, shared: queries through ->, borrowed results pinned. */
class snapshot : public borrowing<snapshot> {
public:
    snapshot() = default;
    const queries *operator->() const noexcept { return h_.get(); }
    const queries &operator*() const noexcept { return *h_; }
    explicit operator bool() const noexcept { return h_ != nullptr; }

private:
    friend class reloading_handle;
    friend class borrowing<snapshot>;
    explicit snapshot(std::shared_ptr<const handle> h) noexcept : h_(std::move(h)) {}
    TAZE *borrow_handle() const noexcept { return h_ ? h_->native() : nullptr; }
    detail::pin pinner() const noexcept { return detail::pin{h_}; }

    std::shared_ptr<const handle> h_;
};

/* Any number of threads query while one thread at a time reloads.
 *
 * Every load builds a new handle off to the side and, only when it has
 * loaded, publishes it with one atomic pointer swap. Readers never wait for
 * a load (which reads, decrypts and checks the whole file); a failed load
 * leaves the published pattern untouched; a pattern stays alive while any
 * snapshot or pinned result still refers to it, and is released by whoever
 * drops the last reference. The price is that old and new pattern are in
 * memory together for as long as a reader keeps an old snapshot.
 *
 * Readers take a snapshot per unit of work (a packet, a request) and query
 * through it; a reader thread can keep one reader object, which refreshes
 * its snapshot only when a newer pattern was published, so that most
 * queries touch no shared reference count. A reader object must not outlive
 * its holder; snapshots and pinned results may.
 *
 * Loads are serialised among themselves by a mutex; nothing else is locked. */
class reloading_handle : public loading<reloading_handle> {
public:
    class reader;

    /* An empty pattern is published at once; its queries give nullopt. */
    explicit reloading_handle(std::optional<kind> initial = std::nullopt) : current_(initial)
    {
        cur_.exchange(std::make_shared<handle>());
    }
    reloading_handle(const reloading_handle &) = delete;
    reloading_handle &operator=(const reloading_handle &) = delete;

    snapshot current() const { return snapshot(cur_.load()); }
    /* Raised by every publication. */
    std::uint64_t generation() const noexcept { return gen_.load(std::memory_order_acquire); }

    /* Load a file, or the newest good file of a directory, and publish it. */
    std::error_code try_load(const zstr &path) { return replace_from(path, nullptr); }
    std::error_code try_load_dir(const zstr &dir, const zstr &prefix) { return replace_from(dir, &prefix); }
    /* Load the last source that loaded again. */
    std::error_code try_reload() { return replace_again(std::nullopt); }
    /* Choose the pattern that plain queries use; publishes a handle newly
     * loaded from the last source, since a published one never changes. */
    std::error_code try_point_to(kind k) { return replace_again(k); }

    void reload() { detail::throw_if(try_reload(), "reload"); }
    void point_to(kind k) { detail::throw_if(try_point_to(k), "point_to"); }

    /* What the last load, reload or switch did, whether or not it published
     * a pattern: for a directory, the file it loaded and why every other
     * entry was passed over (a reload whose newest file is broken shows
     * that file as load_failed with its code); for a file, its path and
     * version. Waits for a load that is under way. */
    load_report last_report() const
    {
        const std::lock_guard<std::mutex> lock(writer_);
        return report_;
    }

private:
    struct source {
        bool dir = false;
        std::string path, prefix;
    };

    std::error_code replace_from(const zstr &path, const zstr *prefix)
    {
        if (!path.c_str()) return path.error();
        if (prefix && !prefix->c_str()) return prefix->error();
        try {
            const source s{prefix != nullptr, path.c_str(), prefix ? prefix->c_str() : ""};
            const std::lock_guard<std::mutex> lock(writer_);
            return replace(s, current_);
        } catch (const std::bad_alloc &) {
            return make_error_code(errc::no_mem);
        }
    }
    /* chosen: the kind to switch to; none keeps the current one. */
    std::error_code replace_again(std::optional<kind> chosen)
    {
        try {
            const std::lock_guard<std::mutex> lock(writer_);
            if (!source_) return make_error_code(errc::para);
            const source s = *source_;
            return replace(s, chosen ? chosen : current_);
        } catch (const std::bad_alloc &) {
            return make_error_code(errc::no_mem);
        }
    }
    /* Called with writer_ held. */
    std::error_code replace(const source &s, std::optional<kind> k)
    {
        std::error_code ec;
        auto next = std::make_shared<handle>(ec);
        if (ec) return ec;
        load_report report;
        if (s.dir) {
            ec = next->try_load_dir(s.path, s.prefix, report);
        } else {
            ec = next->try_load(s.path);
            report.result = ec.value();
            char buf[32];
            if (!ec && TAZE_GetPatternVersion(next->native(), buf, static_cast<int>(sizeof buf)) == 0) {
                report.path = s.path;
                report.version = detail::version_number(buf);
            }
        }
        report_ = std::move(report);
        if (!ec && k) ec = next->point_to(*k);
        if (ec) return ec;
        source_ = s;
        current_ = k;
        std::shared_ptr<const handle> old = cur_.exchange(std::move(next));
        gen_.fetch_add(1, std::memory_order_acq_rel);
        return {}; /* old is released here unless a reader still holds it */
    }

    mutable std::mutex writer_;
    load_report report_;
    std::optional<source> source_;
    std::optional<kind> current_;
    detail::atomic_shared<const handle> cur_;
    std::atomic<std::uint64_t> gen_{0};
};

/* A per-thread cache of the newest snapshot. Not shared between threads. */
class reloading_handle::reader {
public:
    explicit reader(const reloading_handle &owner) noexcept : owner_(&owner) {}
    const snapshot &current()
    {
        const std::uint64_t g = owner_->generation();
        if (!snap_ || g != gen_) {
            snap_ = owner_->current();
            gen_ = g;
        }
        return snap_;
    }
    /* Drops the cached snapshot, so that an old pattern can be released. */
    void release() noexcept { snap_ = snapshot(); }

private:
    const reloading_handle *owner_;
    snapshot snap_;
    std::uint64_t gen_ = 0;
};

} // namespace taze

#endif /* TAZE_HPP */
