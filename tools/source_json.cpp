/* Strict JSON reading for pattern sources. */
#include "source_json.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <unordered_set>

namespace tazc {

void fail(const std::string &path, const std::string &message) { throw SourceError(path, message); }

namespace {
thread_local ParseContext *current_context = nullptr;
}

ParseContext *parse_context() { return current_context; }
ParseScope::ParseScope(ParseContext &c) : saved_(current_context) { current_context = &c; }
ParseScope::~ParseScope() { current_context = saved_; }

void report(const std::string &path, const std::string &message)
{
    if (!current_context) fail(path, message);
    current_context->errors.emplace_back(path, message);
}

namespace {

/* Digits of the whole numbers beyond 64 bits of the source being parsed. */
std::map<double, std::string> &big_numbers()
{
    thread_local std::map<double, std::string> numbers;
    return numbers;
}

bool is_word(std::string_view key)
{
    return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    });
}

const char *type_name(const Json &j)
{
    if (j.is_number_float()) return "a fractional number";
    if (j.is_number_integer() && !j.is_number_unsigned()) return "a negative number";
    return j.type_name();
}

const Json &expect_type(const Json &j, const std::string &path, bool ok, const char *expected)
{
    if (!ok) fail(path, std::string("expected ") + expected + ", got " + type_name(j));
    return j;
}

/* Builds the document like nlohmann's own DOM parser, but refuses a key
 * that occurs twice in one object, naming its path. */
class StrictSax {
public:
    Json root;

    bool null() { return put(Json(nullptr)); }
    bool boolean(bool v) { return put(Json(v)); }
    bool number_integer(Json::number_integer_t v) { return put(Json(v)); }
    bool number_unsigned(Json::number_unsigned_t v) { return put(Json(v)); }
    bool number_float(Json::number_float_t v, const Json::string_t &text)
    {
        /* A whole number too large for 64 bits: keep its digits for the message. */
        if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) big_numbers()[v] = text;
        return put(Json(v));
    }
    bool string(Json::string_t &v) { return put(Json(std::move(v))); }
    bool binary(Json::binary_t &v) { return put(Json(Json::binary_t(std::move(v)))); }
    bool start_object(std::size_t) { return open(Json::object()); }
    bool start_array(std::size_t) { return open(Json::array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(Json::string_t &k)
    {
        Frame &f = stack_.back();
        if (!f.keys.insert(k).second) fail(child_path(f.path, k), "duplicate key");
        f.pending_key = k;
        return true;
    }
    bool parse_error(std::size_t, const std::string &, const nlohmann::detail::exception &ex)
    {
        std::string msg = ex.what();
        std::size_t cut = msg.find("] ");
        fail("", cut == std::string::npos ? msg : msg.substr(cut + 2));
    }

private:
    struct Frame {
        Json *value;
        std::string path;
        std::unordered_set<std::string> keys;
        std::string pending_key;
    };
    std::vector<Frame> stack_;

    std::string next_path() const
    {
        if (stack_.empty()) return "";
        const Frame &f = stack_.back();
        return f.value->is_object() ? child_path(f.path, f.pending_key) : index_path(f.path, f.value->size());
    }
    Json *add(Json &&v)
    {
        if (stack_.empty()) {
            root = std::move(v);
            return &root;
        }
        Json &top = *stack_.back().value;
        if (top.is_object()) {
            /* The key is known to be new: append without ordered_map's
             * linear search for an existing one. */
            auto &obj = top.get_ref<Json::object_t &>();
            obj.emplace_back(stack_.back().pending_key, std::move(v));
            return &obj.back().second;
        }
        top.push_back(std::move(v));
        return &top.back();
    }
    bool put(Json &&v)
    {
        add(std::move(v));
        return true;
    }
    bool open(Json &&v)
    {
        std::string path = next_path();
        Json *p = add(std::move(v));
        stack_.push_back(Frame{p, std::move(path), {}, {}});
        return true;
    }
    bool close()
    {
        stack_.pop_back();
        return true;
    }
};

} // namespace

std::string child_path(const std::string &base, std::string_view key)
{
    if (!is_word(key)) return base + "[" + quote_text(key) + "]";
    return base.empty() ? std::string(key) : base + "." + std::string(key);
}

std::string index_path(const std::string &base, std::size_t index)
{
    return base + "[" + std::to_string(index) + "]";
}

std::string quote_text(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u == 0x7F) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", u);
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

Json parse_json(std::string_view text)
{
    big_numbers().clear();
    StrictSax sax;
    /* Comments (C and C++ style) are allowed: pattern sources are written by hand. */
    Json::sax_parse(text.begin(), text.end(), &sax, nlohmann::json::input_format_t::json, true, true);
    return std::move(sax.root);
}

Fields::Fields(const Json &j, std::string path, std::initializer_list<const char *> names)
    : j_(get_object(j, path)), path_(std::move(path)), names_(names.begin(), names.end())
{
}

const Json *Fields::opt(const char *name) const
{
    auto it = j_.find(name);
    return it == j_.end() ? nullptr : &*it;
}

const Json &Fields::req(const char *name) const
{
    const Json *v = opt(name);
    if (!v) fail(path_, std::string("missing field \"") + name + "\"");
    return *v;
}

void Fields::done() const
{
    for (const auto &item : j_.items()) {
        const std::string &k = item.key();
        if (k == "comment" || std::find(names_.begin(), names_.end(), k) != names_.end()) continue;
        std::string expected;
        for (std::string_view n : names_) expected += (expected.empty() ? "" : ", ") + std::string(n);
        fail(child_path(path_, k), "unknown field (expected one of: " + expected + ")");
    }
}

std::uint64_t get_uint(const Json &j, const std::string &path, std::uint64_t max)
{
    /* Whole numbers beyond 64 bits arrive as floating point. */
    if (j.is_number_float() && j.get<double>() > double(max) && j.get<double>() == std::floor(j.get<double>()))
    {
        const auto big = big_numbers().find(j.get<double>());
        fail(path, (big != big_numbers().end() ? big->second : j.dump()) + " is too large (at most " +
                       std::to_string(max) + ")");
    }
    if (!j.is_number_unsigned())
        fail(path, std::string("expected a whole number from 0 to ") + std::to_string(max) + ", got " +
                       type_name(j));
    auto v = j.get<std::uint64_t>();
    if (v > max) fail(path, std::to_string(v) + " is too large (at most " + std::to_string(max) + ")");
    return v;
}

std::string get_string(const Json &j, const std::string &path)
{
    const auto &s = expect_type(j, path, j.is_string(), "a string").get_ref<const std::string &>();
    if (s.find('\0') != std::string::npos) fail(path, "string " + quote_text(s) + " contains a NUL byte");
    return s;
}

std::uint32_t get_flag(const Json &j, const std::string &path)
{
    if (j.is_boolean()) return j.get<bool>() ? 1 : 0;
    return get_u32(expect_type(j, path, j.is_number_unsigned(), "true, false or a number"), path);
}

std::uint32_t parse_u32_text(std::string_view text, const std::string &path)
{
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    std::uint64_t v = 0;
    bool ok = !digits.empty() && digits.size() <= 10;
    for (char c : digits) {
        int d = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                : (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
                    ? std::tolower(static_cast<unsigned char>(c)) - 'a' + 10
                    : -1;
        if (d < 0) {
            ok = false;
            break;
        }
        v = v * std::uint64_t(base) + std::uint64_t(d);
    }
    if (!ok || v > 0xFFFFFFFFu)
        fail(path, quote_text(text) + " is not a number from 0 to 4294967295 (decimal, or hex with 0x)");
    return std::uint32_t(v);
}

const Json &get_object(const Json &j, const std::string &path) { return expect_type(j, path, j.is_object(), "an object"); }

const Json &get_array(const Json &j, const std::string &path) { return expect_type(j, path, j.is_array(), "an array"); }

} // namespace tazc
