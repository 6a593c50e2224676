/* Strict JSON reading for pattern sources: a parser that refuses duplicate
 * object keys (nlohmann-json would silently keep the last one), and readers
 * that refuse unknown fields and wrong types. Every refusal names the JSON
 * path of the offending value, e.g. "lists.ip.2[3]". */
#ifndef TAZC_SOURCE_JSON_H
#define TAZC_SOURCE_JSON_H

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tazc {

/* Objects keep their source order: substring lists and substring-keyed maps
 * are searched in stored order, so the order the author wrote matters. */
using Json = nlohmann::ordered_json;

/* A refused source: the JSON path and what is wrong there. */
class SourceError : public std::runtime_error {
public:
    SourceError(std::string path, const std::string &message)
        : std::runtime_error(path.empty() ? message : path + ": " + message), path_(std::move(path))
    {
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

[[noreturn]] void fail(const std::string &path, const std::string &message);

/* ---- all errors of a source at once --------------------------------------------- */

/* What tazc may do instead of refusing. */
struct ParseOptions {
    bool dedupe = false;             /* drop exact duplicates of lists (with a note) */
    bool keep_covered = false;       /* keep covered entries of prefix and suffix lists (with a warning) */
    bool allow_covered_keys = false; /* accept covered keys of prefix- and suffix-keyed maps (with a warning) */
};

/* A source refused for one or more problems; what() is the first. */
class SourceErrors : public SourceError {
public:
    explicit SourceErrors(std::vector<SourceError> all) : SourceError(all.front()), all_(std::move(all)) {}
    const std::vector<SourceError> &all() const { return all_; }

private:
    std::vector<SourceError> all_;
};

/* The state of one parse: its options, the directory that relative file
 * names start from, and what it gathered. Parsing code reaches the current
 * one through parse_context(); without one, the first error throws. */
struct ParseContext {
    ParseOptions options;
    std::string base_dir;
    std::vector<SourceError> errors;
    std::vector<std::string> notes; /* "note: ..." and "warning: ..." lines */
};
ParseContext *parse_context();
class ParseScope {
public:
    explicit ParseScope(ParseContext &c);
    ~ParseScope();
    ParseScope(const ParseScope &) = delete;
    ParseScope &operator=(const ParseScope &) = delete;

private:
    ParseContext *saved_;
};

/* Records a problem and carries on; throws when no parse gathers errors. */
void report(const std::string &path, const std::string &message);
/* Runs fn; a refusal inside it is recorded and parsing goes on after it.
 * Returns false when fn was refused. */
template <typename Fn>
bool attempt(Fn &&fn)
{
    try {
        fn();
        return true;
    } catch (const SourceError &e) {
        if (!parse_context()) throw;
        parse_context()->errors.push_back(e);
        return false;
    }
}

/* Paths: "a.b" for names and numbers, "a[3]" for array elements, and
 * a["example.com"] for keys that are not plain words. */
std::string child_path(const std::string &base, std::string_view key);
std::string index_path(const std::string &base, std::size_t index);
/* A text quoted for messages, with control bytes escaped. */
std::string quote_text(std::string_view text);

/* Parses JSON text with C and C++ style comments; refuses syntax errors and
 * duplicate keys. */
Json parse_json(std::string_view text);

/* Reads the fields of one JSON object. Fields named "comment" are allowed
 * everywhere and ignored. done() refuses any field that was not named. */
class Fields {
public:
    Fields(const Json &j, std::string path, std::initializer_list<const char *> names);
    const Json *opt(const char *name) const;
    const Json &req(const char *name) const;
    std::string at(const char *name) const { return child_path(path_, name); }
    const std::string &path() const { return path_; }
    void done() const;

private:
    const Json &j_;
    std::string path_;
    std::vector<std::string_view> names_;
};

/* Typed values. Integers must be whole, non-negative JSON numbers. */
std::uint64_t get_uint(const Json &j, const std::string &path, std::uint64_t max);
inline std::uint32_t get_u32(const Json &j, const std::string &path)
{
    return std::uint32_t(get_uint(j, path, 0xFFFFFFFFu));
}
/* A string that goes into the pattern: no NUL bytes (the library reads
 * stored strings up to their first NUL). */
std::string get_string(const Json &j, const std::string &path);
/* true/false, or a number stored as it is. */
std::uint32_t get_flag(const Json &j, const std::string &path);
/* An object key or text that holds a number: decimal, or hex with "0x". */
std::uint32_t parse_u32_text(std::string_view text, const std::string &path);
/* A JSON object; refuses anything else. */
const Json &get_object(const Json &j, const std::string &path);
const Json &get_array(const Json &j, const std::string &path);
/* Value or array of values: the array's elements, or the single value. */
template <typename Fn>
void for_each_value(const Json &j, const std::string &path, Fn &&fn)
{
    if (!j.is_array()) {
        fn(j, path);
        return;
    }
    for (std::size_t i = 0; i < j.size(); ++i) fn(j[i], index_path(path, i));
}

} // namespace tazc

#endif /* TAZC_SOURCE_JSON_H */
