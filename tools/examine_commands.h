/* The commands of the pattern inspector taze and the pieces the tests use:
 * the lint of a loaded image, the image turned back into a pattern source,
 * and the command line itself. */
#ifndef TAZE_INSPECT_COMMANDS_H
#define TAZE_INSPECT_COMMANDS_H

#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

#include "examine.h"

namespace tazi {

/* ---- verify --------------------------------------------------------------------- */

/* One problem found in a pattern file. Errors break an invariant the
 * lookups rely on (or make the loader drop data); notes are worth knowing
 * but change no answer the file was written to give. */
struct Finding {
    bool error = true;
    std::string kind;  /* "file", "main" or "ulm" */
    std::string where; /* source path ("lists.suffix.3[2]") or payload place */
    std::string what;
    bool warning = false; /* not an error, but the file may not answer as its author meant */
};

/* Every order, disjointness, terminator and index invariant of one image. */
std::vector<Finding> verify_image(const taz_pattern_st &image, bool second_kind);
/* The whole file: the reader's verdict, the container, and both kinds. */
std::vector<Finding> verify_file(const LoadedFile &file);
std::size_t error_count(const std::vector<Finding> &findings);

/* ---- info ---------------------------------------------------------------------- */

/* "checksum mismatch in sub-pattern N ..." when the digest of a used,
 * encrypted sub-pattern does not match its body (the library's own
 * decryption says so), else "". */
std::string checksum_problem(const LoadedFile &file);

/* ---- dump ----------------------------------------------------------------------- */

/* One image as the compiler's model of a kind (the inverse of
 * tazc::kind_payload for files that tazc wrote). */
tazc::Kind kind_of_image(const taz_pattern_st &image, bool second_kind);
/* The whole file as a source; the file must have loaded. */
tazc::Source source_of(const LoadedFile &file);
/* The source in the JSON format tazc reads, keys in a fixed order. What
 * cannot be written so that tazc reads it back unchanged is reported in
 * *warnings (the JSON still holds the nearest text). */
tazc::Json source_json(const tazc::Source &src, std::vector<std::string> *warnings);
std::string source_text(const tazc::Source &src, std::vector<std::string> *warnings);

/* ---- the command line ------------------------------------------------------------- */

/* Exit codes: 0 success (verify: clean), 1 failure (verify: violations),
 * 2 usage error. */
enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

int run_taze(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

using Args = std::vector<std::string>;
int cmd_info(const Args &args, std::ostream &out, std::ostream &err);
int cmd_dump(const Args &args, std::ostream &out, std::ostream &err);
int cmd_verify(const Args &args, std::ostream &out, std::ostream &err);
int cmd_query(const Args &args, std::ostream &out, std::ostream &err);
int cmd_pick(const Args &args, std::ostream &out, std::ostream &err);

/* Shared by the commands: "--help" or "-h" before any "--"; then the usage
 * is printed and true returned. */
bool wants_help(const Args &args);
bool show_help(const Args &args, std::ostream &out, const char *usage);
/* One option: a flag (sets *flag) or one with a value (stored in *value;
 * given as "NAME VALUE" or "NAME=VALUE"). */
struct Option {
    const char *name;
    bool *flag;
    std::string *value;
};
/* Splits args into the options and the positional arguments ("--" ends
 * the options; "-5" is a positional number). "" or a usage error text. */
std::string split_args(const Args &args, std::initializer_list<Option> options, Args *positional);
/* The single FILE argument of a command, after its options: "" and *file,
 * or a usage error text. */
std::string one_file(const Args &args, std::initializer_list<Option> options, std::string *file);
/* A usage error: the message and a hint on stderr, exit code 2. */
int usage_error(std::ostream &err, const std::string &command, const std::string &message);
/* Loads FILE for a command; prints the reason and returns false when the
 * file cannot be read or the library would refuse it. */
bool load_for_command(const std::string &path, LoadedFile &file, std::ostream &err, bool need_loadable);

} // namespace tazi

#endif /* TAZE_INSPECT_COMMANDS_H */
