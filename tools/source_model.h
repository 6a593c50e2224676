/* The pattern source model: what a JSON pattern source describes, checked
 * and sorted so that every searched array is stored in the order its lookup
 * bisects, and its compilation to a pattern container.
 *
 * The format of the source is documented in docs/pattern-source.md. */
#ifndef TAZC_SOURCE_MODEL_H
#define TAZC_SOURCE_MODEL_H

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "source_json.h"
#include "tazewriter.h"
#include "tazewriter_info.h"

namespace tazc {

/* ---- list and map families ------------------------------------------------ */

enum class Shape : std::uint8_t {
    Strings, IPv4Ranges, IPv6Ranges, PortRanges,
    StrInt, StrIPv6, IntInt, IPv6Int, IntStr, StrStr
};

/* String matching rules: 0 exact, 1 prefix, 2 suffix, 3 substring. */
constexpr unsigned kNoRule = 0xFF;

struct Family {
    const char *group;      /* "lists" or "maps" */
    std::string name;       /* source name, e.g. "suffix", "prefix_to_int" */
    std::uint32_t magic;    /* section magic */
    Shape shape;
    unsigned key_rule;      /* rule of list strings and string keys, else kNoRule */
    unsigned value_rule;    /* rule of string values, else kNoRule */
    bool case_sensitive;    /* the "case" string lists */
    bool main_kind_only;    /* the second kind has no such section */
};

/* All 41 families: 11 lists, then the 30 maps. */
const std::vector<Family> &families();
const Family *find_family(std::string_view group, std::string_view name);

using IPv4Range = std::pair<std::uint32_t, std::uint32_t>;
using IPv6Range = std::pair<tazw::IPv6, tazw::IPv6>;
using PortRange = std::pair<std::uint16_t, std::uint16_t>;

/* One numbered list, checked and in stored order. */
using ListData = std::variant<std::vector<std::string>, std::vector<IPv4Range>, std::vector<IPv6Range>,
                              std::vector<PortRange>, std::vector<tazw::StrIntEntry>,
                              std::vector<tazw::StrIPv6Entry>, std::vector<tazw::IntIntEntry>,
                              std::vector<tazw::IPv6IntEntry>, std::vector<tazw::IntStrEntry>,
                              std::vector<tazw::StrStrEntry>>;

struct NumberedList {
    std::uint32_t number;
    ListData data;
};

struct FamilyLists {
    const Family *family;
    std::vector<NumberedList> lists; /* ascending by number */
};

/* Highest list number a source may use: the loader allocates one record for
 * every number up to the highest one of a family. */
constexpr std::uint32_t kMaxListNumber = 65535;

/* ---- one kind and the whole source -------------------------------------------- */

/* One rule pattern kind: the main kind, or the second kind with its name. */
struct Kind {
    std::optional<std::uint32_t> compiler_version;
    std::vector<FamilyLists> lists; /* in family table order, present families only */
    std::vector<tazw::RuleInfo> rules;
    std::vector<tazw::CleanInfo> clean; /* source order: the first fitting entry wins */
    std::vector<tazw::Protocol> protocols;
    std::vector<tazw::ProtocolGroup> groups;
    tazw::Severity severity;
    std::vector<tazw::ThreatType> threat_types;
    std::optional<std::string> name; /* second kind only */
};

struct Source {
    std::uint32_t pattern_version = 0;
    Kind main;
    std::optional<Kind> ulm;
    std::optional<tazw::Bytes> raw; /* kind 9 blob */
};

/* Version words: product 4 bits, build 8 bits, version 20 bits. */
constexpr std::uint32_t make_version(std::uint32_t product, std::uint32_t build, std::uint32_t version)
{
    return ((product & 0xFu) << 28) | ((build & 0xFFu) << 20) | (version & 0xFFFFFu);
}

/* The compiler version stored when the source names none. */
constexpr std::uint32_t kToolVersion = make_version(1, 0, 1);

/* ---- parsing and compiling ------------------------------------------------- */

/* Reads a whole source as written: covered entries of prefix and suffix
 * lists are kept and covered map keys accepted (tazc's defaults, given to
 * the overloads below, drop and refuse them). base_dir resolves relative
 * file names (the raw blob, imports).
 * Throws SourceErrors naming the JSON path of every problem. */
Source parse_source(std::string_view json_text, const std::string &base_dir);
Source load_source_file(const std::string &path);
/* The same with tazc's options; every problem is gathered and thrown at the
 * end as SourceErrors, and *notes receives the notes and warnings. */
Source parse_source(std::string_view json_text, const std::string &base_dir, const ParseOptions &options,
                    std::vector<std::string> *notes);
Source load_source_file(const std::string &path, const ParseOptions &options, std::vector<std::string> *notes);

/* The section stream of one kind. */
tazw::Bytes kind_payload(const Kind &kind, bool second_kind);
/* The whole container: main kind (7), second kind (8), raw blob (9). */
tazw::Container make_container(const Source &src, bool encrypt);

/* The command line tool; returns the exit code: 0 ok, 1 source errors,
 * 2 usage errors. Messages go to out/err. */
int run_tazc(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

} // namespace tazc

#endif /* TAZC_SOURCE_MODEL_H */
