/* taze pick: which file of a directory TAZE_LoadPatternDir would load, why
 * every other entry is passed over, and which candidates fail to load. The
 * candidate list and its order come from the library's own scan; the
 * reasons for skipping an entry follow the same rules, entry by entry. */
#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <memory>
#include <ostream>
#include <set>

#include "examine_commands.h"
#include "tazapi.h"
#include "taze_file.h"
#include "tazeptn.h"

namespace tazi {

namespace {

constexpr const char *kPickUsage = "usage: taze pick DIR PREFIX\n"
                                   "\n"
                                   "Replays the directory scan of TAZE_LoadPatternDir: every entry of DIR in\n"
                                   "directory order with the reason it is skipped (not a regular file, prefix\n"
                                   "mismatch, suffix mismatch: the decimal number after PREFIX must be followed\n"
                                   "by \".ptn\", peek failed, or version mismatch: the number must equal the\n"
                                   "version field inside the file), then the qualifying files from the highest\n"
                                   "version down with whether each one loads, and finally the file that\n"
                                   "TAZE_LoadPatternDir loads.\n"
                                   "\n"
                                   "Exit codes: 0 a file would load, 1 none would (or DIR cannot be scanned),\n"
                                   "2 usage error.\n";

constexpr char kSuffix[] = ".ptn";

/* Why the scan passes over one directory entry, or "" when it qualifies. */
std::string skip_reason(const std::string &path, const char *name, const std::string &prefix, std::uint32_t *version)
{
    struct stat st;
    if (path.size() >= TAZE_PATH_MAX) return "path too long for the scan (" + std::to_string(TAZE_PATH_MAX) + " bytes)";
    if (stat(path.c_str(), &st) < 0) return std::string("cannot stat: ") + std::strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0)
        return "prefix mismatch: the name does not begin with " + tazc::quote_text(prefix);
    char *end = nullptr;
    const long long number = std::strtoll(name + prefix.size(), &end, 10);
    if (std::strncmp(end, kSuffix, sizeof kSuffix - 1) != 0)
        return "suffix mismatch: " + tazc::quote_text(end) + " follows the number instead of \".ptn\"";
    unsigned int peeked = 0;
    if (peekTAZPatternVer(path.c_str(), &peeked) != 0)
        return "peek failed: no usable main or second pattern sub-pattern (or not a pattern container)";
    const std::uint32_t real = KORM_GET_PATTERN_VER(peeked);
    const auto named = static_cast<std::uint32_t>(number);
    if (real != named)
        return "version mismatch: the file holds version field " + std::to_string(real) + " (" + version_text(peeked) +
               ") but its name says " + std::to_string(named);
    *version = peeked;
    return "";
}

struct HandleDeleter {
    void operator()(TAZE *h) const { TAZE_Fini(h); }
};
using Handle = std::unique_ptr<TAZE, HandleDeleter>;

Handle new_handle()
{
    TAZE *h = nullptr;
    return Handle(TAZE_Init(&h) == 0 ? h : nullptr);
}

std::string loaded_version(TAZE *h)
{
    char buf[32] = {};
    return TAZE_GetPatternVersion(h, buf, sizeof buf) == 0 ? buf : "?";
}

const char *scan_error(int rc)
{
    switch (rc) {
    case -2: return "the directory cannot be stat-ed";
    case -3: return "the path is not a directory";
    case -4: return "the directory cannot be opened";
    case -7: return "no file qualifies";
    default: return "the scan failed";
    }
}

} // namespace

int cmd_pick(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kPickUsage)) return kExitOk;
    Args positional;
    const std::string bad = split_args(args, {}, &positional);
    if (!bad.empty()) return usage_error(err, "pick", bad);
    if (positional.size() != 2) return usage_error(err, "pick", "give a directory DIR and a file name PREFIX");
    const std::string &dir = positional[0], &prefix = positional[1];

    LIST_HEAD head;
    VK_LIST_INIT(&head);
    const int rc = getTAZPatternList(dir.c_str(), prefix.c_str(), &head);
    if (rc < 0 && rc != -7) {
        err << "taze pick: " << dir << ": " << scan_error(rc) << " (scan result " << rc << ")\n";
        return kExitFailed;
    }
    std::vector<std::pair<std::string, std::uint32_t>> candidates; /* ascending, as the scan sorted them */
    for (LIST_HEAD *p = head.next; p != &head; p = p->next) {
        const PatternVersion_st *pv = VK_LIST_ENTRY(p, PatternVersion_st, pattern_list);
        candidates.emplace_back(pv->path, pv->version);
    }
    delPatternVersionList(&head);

    /* Every entry with its reason, in the order readdir gives them. */
    const std::string base = dir.empty() || dir.back() == '/' ? dir : dir + "/";
    out << "scanning " << base << " for " << prefix << "<version>.ptn\n";
    std::set<std::string> qualified;
    if (DIR *d = opendir(base.c_str())) {
        while (const dirent *de = readdir(d)) {
            if (std::strcmp(de->d_name, ".") == 0 || std::strcmp(de->d_name, "..") == 0) continue;
            const std::string path = base + de->d_name;
            std::uint32_t version = 0;
            const std::string why = skip_reason(path, de->d_name, prefix, &version);
            if (why.empty()) qualified.insert(path);
            out << "  " << std::left << std::setw(10) << (why.empty() ? "candidate" : "skipped") << std::setw(24)
                << de->d_name << " " << (why.empty() ? version_text(version) : why) << "\n";
        }
        closedir(d);
    }
    /* The replay and the library's scan agree unless the directory
     * changed in between. */
    std::set<std::string> listed;
    for (const auto &c : candidates) listed.insert(c.first);
    if (listed != qualified)
        out << "  note: the directory changed during the scan; the candidates below are the library's\n";

    if (candidates.empty()) {
        out << "no file qualifies: TAZE_LoadPatternDir returns " << code_text(ACCESS_ERR) << "\n";
        return kExitFailed;
    }
    out << "candidates, tried from the highest version down:\n";
    std::string chosen, chosen_version;
    for (auto it = candidates.rbegin(); it != candidates.rend(); ++it) {
        out << "  " << it->first << "  " << version_text(it->second) << "  ";
        if (!chosen.empty()) {
            out << "not tried\n";
            continue;
        }
        Handle h = new_handle();
        const int load = h ? TAZE_LoadPattern(h.get(), it->first.c_str()) : NO_MEM_ERR;
        if (load == 0) {
            chosen = it->first;
            chosen_version = loaded_version(h.get());
            out << "loads\n";
            continue;
        }
        LoadedFile f;
        std::string error;
        const std::string why = f.load(it->first, &error) ? f.refusal() : error;
        out << "fails to load with " << code_text(load) << (why.empty() ? "" : ": " + why) << "\n";
    }

    /* The library's own answer, for comparison. */
    Handle h = new_handle();
    const int dir_rc = h ? TAZE_LoadPatternDir(h.get(), dir.c_str(), prefix.c_str()) : NO_MEM_ERR;
    if (dir_rc != 0) {
        out << "no candidate loads: TAZE_LoadPatternDir returns " << code_text(dir_rc) << "\n";
        return kExitFailed;
    }
    const std::string version = loaded_version(h.get());
    if (chosen.empty() || version != chosen_version)
        out << "note: TAZE_LoadPatternDir loaded pattern version " << version << "\n";
    out << "would load: " << chosen << " (pattern version " << version << ")\n";
    return kExitOk;
}

} // namespace tazi
