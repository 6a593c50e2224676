/* taze pick: which file of a directory TAZE_LoadPatternDir would load, why
 * every other entry is passed over, and why candidates fail to load. The
 * verdicts come from the candidate rules the library's scan uses
 * (taze_candidates.hpp) through the C++ interface's load report; the
 * library's own TAZE_LoadPatternDir is asked as well, for comparison. */
#include <algorithm>
#include <iomanip>
#include <ostream>

#include "examine_commands.h"
#include "taze.hpp"

namespace tazi {

namespace {

constexpr const char *kPickUsage = "usage: taze pick [--json] DIR PREFIX\n"
                                   "\n"
                                   "Replays the directory scan of TAZE_LoadPatternDir: every entry of DIR in\n"
                                   "directory order with the reason it is skipped (path too long, not a regular\n"
                                   "file, prefix mismatch, suffix mismatch: the decimal number after PREFIX must\n"
                                   "be followed by \".ptn\", peek failed, or version mismatch: the number must\n"
                                   "equal the version field inside the file), then the qualifying files from the\n"
                                   "highest version down with whether each one loads, and finally the file that\n"
                                   "TAZE_LoadPatternDir loads.\n"
                                   "\n"
                                   "  --json   print one JSON document instead (see docs/tools-json.md)\n"
                                   "\n"
                                   "Exit codes: 0 a file would load, 1 none would (or DIR cannot be scanned),\n"
                                   "2 usage error.\n";

using taze::candidates::reason;

const char *scan_error(int rc)
{
    namespace c = taze::candidates;
    switch (rc) {
    case c::scan_stat_failed: return "the directory cannot be stat-ed";
    case c::scan_not_directory: return "the path is not a directory";
    case c::scan_open_failed: return "the directory cannot be opened";
    case c::scan_none_found: return "no file qualifies";
    default: return "the scan failed";
    }
}

/* Why a candidate's load failed, in the inspector's words. */
std::string load_failure(const std::string &path)
{
    LoadedFile f;
    std::string error;
    if (!f.load(path, &error)) return error;
    const std::string checksum = checksum_problem(f);
    const std::string refusal = f.refusal();
    return checksum.empty() ? refusal : checksum + (refusal.empty() ? "" : " (" + refusal + ")");
}

/* What the scan or the load made of one entry, as text. */
std::string verdict(const taze::candidate_report &e, const std::string &prefix, const std::string &dir_path)
{
    switch (e.reason) {
    case reason::path_too_long:
        return "path too long for the scan (" + std::to_string(taze::candidates::path_max) + " bytes)";
    case reason::not_regular_file: return "not a regular file";
    case reason::prefix_mismatch: return "prefix mismatch: the name does not begin with " + tazc::quote_text(prefix);
    case reason::suffix_mismatch: return "suffix mismatch: the number after the prefix is not followed by \".ptn\"";
    case reason::peek_failed:
        return "peek failed: no usable main or second pattern sub-pattern (or not a pattern container)";
    case reason::version_mismatch:
        return "version mismatch: the file holds version field " +
               std::to_string(taze::candidates::version_field(e.version)) + " (" + version_text(e.version) +
               ") but its name says " + std::to_string(e.number);
    case reason::loaded: return "loads";
    case reason::load_failed: return "fails to load with " + code_text(e.result) + ": " + load_failure(dir_path + e.name);
    case reason::not_tried: return "not tried";
    case reason::candidate: break;
    }
    return "candidate";
}

bool is_candidate(reason r) { return r == reason::loaded || r == reason::load_failed || r == reason::not_tried; }

} // namespace

int cmd_pick(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kPickUsage)) return kExitOk;
    bool json = false;
    Args positional;
    const std::string bad = split_args(args, {{"--json", &json, nullptr}}, &positional);
    if (!bad.empty()) return usage_error(err, "pick", bad);
    if (positional.size() != 2) return usage_error(err, "pick", "give a directory DIR and a file name PREFIX");
    const std::string &dir = positional[0], &prefix = positional[1];
    const std::string base = dir.empty() || dir.back() == '/' ? dir : dir + "/";

    std::error_code ec, ec_library;
    taze::handle h(ec), library(ec_library);
    if (ec || ec_library) {
        err << "taze pick: " << (ec ? ec : ec_library).message() << "\n";
        return kExitFailed;
    }
    taze::load_report report;
    h.try_load_dir(dir, prefix, report);
    /* The library's own answer, for comparison. */
    const std::error_code dir_rc = library.try_load_dir(dir, prefix);
    std::string library_version;
    if (!dir_rc) library_version = library.pattern_version().value_or("?");
    const bool agrees = dir_rc.value() == report.result && (dir_rc || library_version == version_text(report.version));

    if (json) {
        tazc::Json doc{{"directory", dir}, {"prefix", prefix}, {"scan_result", report.scan_result}};
        tazc::Json entries = tazc::Json::array();
        for (const auto &e : report.entries) {
            tazc::Json j{{"name", e.name}, {"reason", taze::candidates::reason_name(e.reason)}};
            if (e.reason != reason::path_too_long && e.reason != reason::not_regular_file &&
                e.reason != reason::prefix_mismatch)
                j["number"] = e.number;
            if (e.reason == reason::version_mismatch || is_candidate(e.reason)) {
                j["version"] = e.version;
                j["version_text"] = version_text(e.version);
            }
            if (e.reason == reason::load_failed) {
                j["result"] = e.result;
                j["detail"] = load_failure(base + e.name);
            }
            entries.push_back(std::move(j));
        }
        doc["entries"] = std::move(entries);
        doc["result"] = report.result;
        doc["loaded"] = report.path.empty()
                            ? tazc::Json()
                            : tazc::Json{{"path", report.path},
                                         {"version", report.version},
                                         {"version_text", version_text(report.version)}};
        doc["library_agrees"] = agrees;
        out << doc.dump(2, ' ', false, tazc::Json::error_handler_t::replace) << "\n";
        return report.result == 0 ? kExitOk : kExitFailed;
    }

    const int scan = report.scan_result;
    if (scan != 0 && scan != taze::candidates::scan_none_found) {
        err << "taze pick: " << dir << ": " << scan_error(scan) << " (scan result " << scan << ")\n";
        return kExitFailed;
    }
    out << "scanning " << base << " for " << prefix << "<version>.ptn\n";
    for (const auto &e : report.entries) {
        const bool candidate = is_candidate(e.reason);
        out << "  " << std::left << std::setw(10) << (candidate ? "candidate" : "skipped") << std::setw(24) << e.name
            << " " << (candidate ? version_text(e.version) : verdict(e, prefix, base)) << "\n";
    }
    if (scan == taze::candidates::scan_none_found) {
        out << "no file qualifies: TAZE_LoadPatternDir returns " << code_text(report.result) << "\n";
        return kExitFailed;
    }
    /* The order in which they were tried: loaded or failed first (newest
     * first), then the older ones that were not tried. */
    std::vector<const taze::candidate_report *> tried;
    for (const auto &e : report.entries)
        if (is_candidate(e.reason)) tried.push_back(&e);
    std::reverse(tried.begin(), tried.end());
    std::stable_sort(tried.begin(), tried.end(), [](const auto *a, const auto *b) {
        return taze::candidates::sorts_before(b->version, a->version);
    });
    out << "candidates, tried from the highest version down:\n";
    for (const auto *e : tried)
        out << "  " << base << e->name << "  " << version_text(e->version) << "  " << verdict(*e, prefix, base)
            << "\n";
    if (!agrees)
        out << "note: TAZE_LoadPatternDir returns " << code_text(dir_rc.value())
            << (dir_rc ? "" : " and loaded pattern version " + library_version)
            << " (the directory changed during the scan?)\n";
    if (report.result != 0) {
        out << "no candidate loads: TAZE_LoadPatternDir returns " << code_text(report.result) << "\n";
        return kExitFailed;
    }
    out << "would load: " << report.path << " (pattern version " << version_text(report.version) << ")\n";
    return kExitOk;
}

} // namespace tazi
