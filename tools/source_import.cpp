/* Plain-text and CSV imports of lists and map keys. */
#include "source_import.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>

namespace tazc {

namespace {

std::string trimmed(const std::string &s)
{
    const std::size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

/* Which columns a CSV import picks and which rows it keeps. */
struct Csv {
    char separator = ',';
    std::vector<std::size_t> columns;
    bool filtered = false;
    std::size_t where_column = 0;
    std::string equals;
};

std::size_t column_number(const Json &j, const std::string &path)
{
    return std::size_t(get_uint(j, path, 1000));
}

Csv read_csv(const Json &j, const std::string &path)
{
    Fields f(j, path, {"columns", "where", "separator"});
    Csv c;
    const Json &cols = get_array(f.req("columns"), f.at("columns"));
    if (cols.empty() || cols.size() > 2) fail(f.at("columns"), "give one column, or two for the bounds of a range");
    for (std::size_t i = 0; i < cols.size(); ++i) c.columns.push_back(column_number(cols[i], index_path(f.at("columns"), i)));
    if (const Json *w = f.opt("where")) {
        Fields wf(*w, f.at("where"), {"column", "equals"});
        c.filtered = true;
        c.where_column = column_number(wf.req("column"), wf.at("column"));
        c.equals = get_string(wf.req("equals"), wf.at("equals"));
        wf.done();
    }
    if (const Json *s = f.opt("separator")) {
        const std::string sep = get_string(*s, f.at("separator"));
        if (sep.size() != 1) fail(f.at("separator"), "the separator is one character");
        c.separator = sep[0];
    }
    f.done();
    return c;
}

std::vector<std::string> split(const std::string &line, char sep)
{
    std::vector<std::string> out;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = line.find(sep, start);
        out.push_back(trimmed(line.substr(start, end == std::string::npos ? std::string::npos : end - start)));
        if (end == std::string::npos) return out;
        start = end + 1;
    }
}

/* The lines of the file (blank lines and # comments skipped, white space
 * trimmed), or the picked columns of the kept CSV rows. */
std::vector<SourceItem> read_import(const Fields &f, const std::string &file_path, const Csv *csv)
{
    std::string comments = "#";
    if (const Json *c = f.opt("comments")) comments = get_string(*c, f.at("comments"));
    if (comments.empty()) fail(f.at("comments"), "the comment mark must not be empty");
    std::string name = get_string(f.req("file"), f.at("file"));
    const ParseContext *ctx = parse_context();
    if (!name.empty() && name[0] != '/' && ctx && !ctx->base_dir.empty() && ctx->base_dir != ".")
        name = ctx->base_dir + "/" + name;
    std::ifstream in(name, std::ios::binary);
    if (!in) fail(file_path, "cannot open " + quote_text(name) + ": " + std::strerror(errno));
    std::vector<SourceItem> out;
    std::string line;
    for (std::size_t n = 1; std::getline(in, line); ++n) {
        const std::string text = trimmed(line);
        if (text.empty() || text.compare(0, comments.size(), comments) == 0) continue;
        const std::string where = name + ":" + std::to_string(n);
        if (!csv) {
            out.push_back({Json(text), where});
            continue;
        }
        const std::vector<std::string> cells = split(text, csv->separator);
        auto cell = [&](std::size_t c) -> const std::string & {
            if (c >= cells.size())
                fail(where, "no column " + std::to_string(c) + " (the line has " + std::to_string(cells.size()) +
                                " columns, counted from 0)");
            return cells[c];
        };
        attempt([&] {
            if (csv->filtered && cell(csv->where_column) != csv->equals) return;
            std::string v = cell(csv->columns[0]);
            if (csv->columns.size() == 2) v += "-" + cell(csv->columns[1]);
            out.push_back({Json(v), where});
        });
    }
    if (in.bad()) fail(file_path, "cannot read " + quote_text(name) + ": " + std::strerror(errno));
    return out;
}

} // namespace

bool is_import(const Json &j)
{
    return j.is_object() && j.contains("file") && j.at("file").is_string();
}

std::vector<SourceItem> list_items(const Json &j, const std::string &path)
{
    std::vector<SourceItem> out;
    if (j.is_object()) {
        Fields f(j, path, {"file", "csv", "comments"});
        std::optional<Csv> csv;
        if (const Json *c = f.opt("csv")) csv = read_csv(*c, f.at("csv"));
        f.done();
        return read_import(f, f.at("file"), csv ? &*csv : nullptr);
    }
    get_array(j, path);
    for (std::size_t i = 0; i < j.size(); ++i) out.push_back({j[i], index_path(path, i)});
    return out;
}

std::vector<SourceItem> import_keys(const Json &j, const std::string &path, const Json **values,
                                    std::string *values_path)
{
    Fields f(j, path, {"file", "csv", "comments", "values"});
    std::optional<Csv> csv;
    if (const Json *c = f.opt("csv")) csv = read_csv(*c, f.at("csv"));
    if (csv && csv->columns.size() != 1) fail(f.at("csv") + ".columns", "map keys come from one column");
    *values = &f.req("values");
    *values_path = f.at("values");
    f.done();
    return read_import(f, f.at("file"), csv ? &*csv : nullptr);
}

} // namespace tazc
