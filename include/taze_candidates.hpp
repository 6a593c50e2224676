/* taze_candidates.hpp: the rules that make a file of a pattern directory a
 * candidate for loading, in one place for the library's directory scan,
 * the C++ reload holder's report (taze.hpp) and the inspector's `taze pick`.
 *
 * A directory entry is a candidate when its full path fits the scan's
 * 512-byte path buffer, it is a regular file, its name begins with the
 * prefix (case-sensitive), the decimal number after the prefix (strtoll,
 * base 10) is followed by the four characters ".ptn" (what follows them does
 * not matter), the pattern version can be peeked from the file, and the
 * version field of that version (its low 20 bits) equals the number taken as
 * a 32-bit unsigned value. Candidates are tried in descending order of the
 * product and version fields (the build is left out); equal keys are tried
 * in reverse directory order.
 *
 * Header-only and C++17; it declares no symbol of the library. The peek is
 * the caller's: the library passes its internal one, taze.hpp the exported
 * TAZE_PeekTAZPatternVer. */
#ifndef TAZE_CANDIDATES_HPP
#define TAZE_CANDIDATES_HPP

#include <dirent.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace taze {
namespace candidates {

/* Why a directory entry is or is not loaded. The first seven are the scan's
 * verdicts; the last three say what became of a candidate in a load. */
enum class reason : int {
    candidate = 0,    /* qualifies */
    path_too_long,    /* directory and name do not fit the path buffer */
    not_regular_file, /* cannot be stat-ed, or not a regular file */
    prefix_mismatch,  /* the name does not begin with the prefix */
    suffix_mismatch,  /* the number after the prefix is not followed by ".ptn" */
    peek_failed,      /* no pattern version can be read from the file */
    version_mismatch, /* the number differs from the version field inside */
    loaded,           /* the candidate that loaded */
    load_failed,      /* a newer candidate whose load failed (its code is kept) */
    not_tried,        /* an older candidate: a newer one loaded first */
};

/* Stable lower-case names ("version_mismatch"), for reports and JSON. */
inline const char *reason_name(reason r) noexcept
{
    static constexpr const char *names[] = {"candidate",   "path_too_long",    "not_regular_file", "prefix_mismatch",
                                            "suffix_mismatch", "peek_failed",  "version_mismatch", "loaded",
                                            "load_failed", "not_tried"};
    const auto i = static_cast<std::size_t>(r);
    return i < sizeof names / sizeof names[0] ? names[i] : "unknown";
}

/* Result codes of the scan. */
inline constexpr int scan_ok = 0;
inline constexpr int scan_bad_argument = -1;       /* a null argument */
inline constexpr int scan_close_failed = -1;       /* closing the directory failed */
inline constexpr int scan_stat_failed = -2;        /* the directory cannot be stat-ed */
inline constexpr int scan_not_directory = -3;      /* the path is not a directory */
inline constexpr int scan_open_failed = -4;        /* the directory cannot be opened (or its path is too long) */
inline constexpr int scan_alloc_close_failed = -5; /* an allocation failed, then closing failed */
inline constexpr int scan_alloc_failed = -6;       /* an allocation failed */
inline constexpr int scan_none_found = -7;         /* no file qualified */

/* Full paths live in a buffer of this many bytes, terminator included. */
inline constexpr std::size_t path_max = 512;
inline constexpr char suffix[] = ".ptn";
inline constexpr std::size_t suffix_len = sizeof suffix - 1;
/* The version field of a pattern version, which the file name carries. */
inline constexpr std::uint32_t version_field(std::uint32_t v) noexcept { return v & 0xFFFFFu; }
/* Sort key: product and version fields; the build is left out on purpose. */
inline constexpr std::uint32_t order_key(std::uint32_t v) noexcept { return v & 0xF00FFFFFu; }
/* Whether a candidate of version a is tried after one of version b. */
inline constexpr bool sorts_before(std::uint32_t a, std::uint32_t b) noexcept { return order_key(a) < order_key(b); }

/* One directory entry and the scan's verdict on it. The pointers are valid
 * only during the call that receives the entry. */
struct entry {
    const char *name = nullptr; /* as readdir gave it */
    const char *path = nullptr; /* the full path (cut when it does not fit) */
    reason why = reason::candidate;
    const char *after_number = nullptr; /* the text after the number (when the prefix matched) */
    std::uint32_t number = 0;           /* the file number as a 32-bit unsigned value */
    std::uint32_t version = 0;          /* the peeked version (when the peek succeeded) */
};

/* The verdict on the entry e.path named e.name; fills e.after_number,
 * e.number and e.version as far as it gets. peek(path, &version) returns 0
 * on success. */
template <class Peek>
reason classify(entry &e, const char *prefix, Peek &&peek)
{
    struct stat st;
    if (::stat(e.path, &st) < 0 || !S_ISREG(st.st_mode)) return reason::not_regular_file;
    const std::size_t plen = std::strlen(prefix);
    if (std::strncmp(e.name, prefix, plen) != 0) return reason::prefix_mismatch;
    char *end = nullptr;
    const long long number = std::strtoll(e.name + plen, &end, 10);
    e.after_number = end;
    e.number = static_cast<std::uint32_t>(number);
    if (std::strncmp(end, suffix, suffix_len) != 0) return reason::suffix_mismatch;
    std::uint32_t version = 0;
    if (peek(e.path, &version) != 0) return reason::peek_failed;
    e.version = version;
    return version_field(version) == e.number ? reason::candidate : reason::version_mismatch;
}

/* Scans the directory dir (prefix and dir not null) and hands every entry
 * except "." and ".." to the host, in readdir order. Host provides
 *   int  peek(const char *path, std::uint32_t *version);  0 on success
 *   bool take(const entry &e);     false: out of memory, the scan ends
 *   void failed(int code, const char *path);  before a negative result;
 *                                  path is the one to name, or null
 * Returns scan_ok when at least one entry qualified, else a scan code. */
template <class Host>
int scan(const char *dir, const char *prefix, Host &host)
{
    struct stat st;
    if (::stat(dir, &st) < 0) {
        host.failed(scan_stat_failed, dir);
        return scan_stat_failed;
    }
    if (!S_ISDIR(st.st_mode)) {
        host.failed(scan_not_directory, dir);
        return scan_not_directory;
    }
    /* The directory path with its '/' and a terminator must fit; a longer
     * one is refused like a directory that cannot be opened. */
    char path[path_max];
    const std::size_t dlen = std::strlen(dir);
    const bool slash = dlen > 0 && dir[dlen - 1] == '/';
    const std::size_t built = dlen + (slash ? 0 : 1);
    if (built >= sizeof path) {
        host.failed(scan_open_failed, dir);
        return scan_open_failed;
    }
    std::memcpy(path, dir, dlen);
    if (!slash) path[dlen] = '/';
    path[built] = '\0';
    DIR *d = ::opendir(path);
    if (!d) {
        host.failed(scan_open_failed, path);
        return scan_open_failed;
    }
    bool found = false;
    while (const struct dirent *de = ::readdir(d)) {
        const char *name = de->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        /* A full path that does not fit is cut and skipped, never looked up. */
        const std::size_t nlen = std::strlen(name);
        const std::size_t room = sizeof path - 1 - built;
        const std::size_t copied = nlen < room ? nlen : room;
        std::memcpy(path + built, name, copied);
        path[built + copied] = '\0';
        entry e;
        e.name = name;
        e.path = path;
        e.why = nlen > room ? reason::path_too_long
                            : classify(e, prefix, [&host](const char *p, std::uint32_t *v) { return host.peek(p, v); });
        if (!host.take(e)) {
            if (::closedir(d) != 0) {
                host.failed(scan_alloc_close_failed, nullptr);
                return scan_alloc_close_failed;
            }
            return scan_alloc_failed;
        }
        found = found || e.why == reason::candidate;
    }
    if (::closedir(d) != 0) {
        host.failed(scan_close_failed, nullptr);
        return scan_close_failed;
    }
    if (!found) {
        host.failed(scan_none_found, nullptr);
        return scan_none_found;
    }
    return scan_ok;
}

} // namespace candidates
} // namespace taze

#endif /* TAZE_CANDIDATES_HPP */
