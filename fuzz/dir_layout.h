/* The directory that a fuzz input of the directory target describes (see
 * tazf::dir_input): building it, and emptying it again. Shared by the fuzz
 * target and the regression tests. */
#ifndef TAZE_FUZZ_DIR_LAYOUT_H
#define TAZE_FUZZ_DIR_LAYOUT_H

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "samples.h"

namespace tazf {

/* Empties a directory (with its subdirectories). */
inline void clear_dir(const std::string &dir)
{
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    while (struct dirent *e = readdir(d)) {
        if (!std::strcmp(e->d_name, ".") || !std::strcmp(e->d_name, "..")) continue;
        const std::string p = dir + "/" + e->d_name;
        if (unlink(p.c_str()) != 0) {
            clear_dir(p);
            rmdir(p.c_str());
        }
    }
    closedir(d);
}

inline std::string clean_name(std::string n)
{
    for (char &c : n)
        if (c == '/' || c == '\0') c = '_';
    if (n.size() > 200) n.resize(200);
    return n;
}

/* The fields of one line: the first `fields` words, then the rest. */
inline std::vector<std::string> split_fields(const std::string &line, std::size_t fields)
{
    std::vector<std::string> out;
    std::size_t at = 0;
    while (out.size() < fields) {
        const std::size_t sp = line.find(' ', at);
        if (sp == std::string::npos) break;
        out.push_back(line.substr(at, sp - at));
        at = sp + 1;
    }
    out.push_back(at <= line.size() ? line.substr(at) : std::string());
    return out;
}

inline const Bytes &small_payload()
{
    static const Bytes p = tazw::section(MAGIC_TAZE_PATTERN_STR, 0, Bytes(4, 0));
    return p;
}

/* Creates in dir what the text describes; returns the prefix to scan for
 * ("a" unless a line sets it) and whether the path ends in '/'. */
inline void build_dir(const std::string &dir, const std::string &text, std::string &prefix, bool &slash)
{
    prefix = "a";
    slash = false;
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        const std::string line = text.substr(at, nl - at);
        at = nl + 1;
        if (line.empty()) continue;
        if (line[0] == 'S') slash = true;
        if (line.size() < 2) continue;
        const std::string rest = line.substr(2);
        if (line[0] == 'P') {
            prefix = rest.substr(0, rest.find('\0'));
        } else if (line[0] == 'D') {
            const std::string name = clean_name(rest);
            if (name != "." && name != ".." && !name.empty()) mkdir((dir + "/" + name).c_str(), 0700);
        } else if (line[0] == 'F') {
            const auto f = split_fields(rest, 2);
            if (f.size() < 3) continue;
            const std::string name = clean_name(f[2]);
            if (name == "." || name == ".." || name.empty()) continue;
            Bytes content;
            if (f[0] == "c")
                content = container_of(small_payload(), nullptr, nullptr, false, 0,
                                       std::uint32_t(std::strtoul(f[1].c_str(), nullptr, 16)));
            else if (f[0] == "b")
                content.assign(f[1].begin(), f[1].end());
            tazw::write_file(dir + "/" + name, content);
        }
    }
}

} // namespace tazf

#endif /* TAZE_FUZZ_DIR_LAYOUT_H */
