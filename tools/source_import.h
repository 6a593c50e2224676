/* Plain-text imports of a pattern source: a list, or the keys of a map,
 * read from a file with one entry per line, or picked from the columns of
 * a CSV file. See "Imports" in docs/pattern-source.md. */
#ifndef TAZC_SOURCE_IMPORT_H
#define TAZC_SOURCE_IMPORT_H

#include <string>
#include <vector>

#include "source_json.h"

namespace tazc {

/* One entry of a list (or one key of a map) and where it was written: a
 * JSON path, or "FILE:LINE" for an imported line. */
struct SourceItem {
    Json value;
    std::string path;
};

/* {"file": PATH} or {"file": PATH, "csv": {...}} (maps: with "values"). */
bool is_import(const Json &j);

/* The entries of a list written as an array, or imported. Entries of an
 * import are strings; a CSV row with two picked columns reads "A-B". */
std::vector<SourceItem> list_items(const Json &j, const std::string &path);

/* The keys of an imported map and the JSON of the values each one gets. */
std::vector<SourceItem> import_keys(const Json &j, const std::string &path, const Json **values,
                                    std::string *values_path);

} // namespace tazc

#endif /* TAZC_SOURCE_IMPORT_H */
