/* Random pattern sources (as JSON) for the tool tests: every list and map
 * family, rules, clean and risk tables, protocols and a second kind. A
 * profile says how long the words and lists are and whether every family
 * appears; words of one token count are never prefixes, suffixes or
 * substrings of one another. */
#ifndef TAZE_SOURCE_GEN_H
#define TAZE_SOURCE_GEN_H

#include <arpa/inet.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "source_model.h"

namespace tazt {

struct Profile {
    unsigned word_min, word_max; /* tokens per word */
    unsigned list_min, list_max; /* entries per list or map */
    bool every_family;           /* lists 0 and 6 of every family, a second kind, ranges out of order */
};
/* Short words and lists: prefixes, suffixes and case twins are common. */
inline constexpr Profile kTangled{0, 6, 0, 5, false};
/* Long lists of equally long words, so that a wrong store order shows. */
inline constexpr Profile kLongLists{5, 5, 7, 41, true};

class SourceGen {
public:
    using Json = tazc::Json;
    explicit SourceGen(unsigned seed, Profile p = kTangled) : rng_(seed), p_(p) {}

    Json source()
    {
        Json j = Json::object();
        j["pattern_version"] = Json{{"product", num(0, 15)}, {"build", num(0, 255)}, {"version", num(0, 1048575)}};
        if (coin()) j["compiler_version"] = std::uint32_t(rng_());
        kind(j, false);
        if (p_.every_family || coin()) {
            Json u = Json::object();
            if (coin()) u["name"] = word(1);
            if (coin()) u["compiler_version"] = std::uint32_t(rng_());
            kind(u, true);
            j["ulm"] = u;
        }
        if (coin()) j["raw"] = coin() ? Json{{"text", word(1)}} : Json{{"hex", "00 ff 10"}};
        return j;
    }

private:
    std::mt19937 rng_;
    Profile p_;

    std::uint32_t num(std::uint32_t lo, std::uint32_t hi)
    {
        return std::uniform_int_distribution<std::uint32_t>(lo, hi)(rng_);
    }
    bool coin() { return num(0, 1) == 1; }
    unsigned count() { return num(p_.list_min, p_.list_max); }

    /* Few letters, '_' (between the cases in byte order) and a two-byte character. */
    std::string word(unsigned min_len = 0)
    {
        static const char *const kTokens[] = {"a", "A", "b", "_", "B", ".", "-", "/", "x", "1", "\xc3\xa9"};
        std::string s;
        const unsigned n = num(std::max(min_len, p_.word_min), p_.word_max);
        for (unsigned i = 0; i < n; ++i) s += kTokens[num(0, 10)];
        return s;
    }

    static std::string fold(std::string s, bool up = false)
    {
        for (char &c : s)
            if (c >= (up ? 'a' : 'A') && c <= (up ? 'z' : 'Z')) c = char(up ? c - 32 : c + 32);
        return s;
    }

    /* Distinct words, each with its upper-case twin when kept apart;
     * folded distinct when keys match case-insensitively. */
    std::vector<std::string> words(unsigned n, bool fold_unique)
    {
        std::vector<std::string> out;
        std::set<std::string> seen;
        for (unsigned i = 0; i < n; ++i) {
            const std::string w = word();
            for (const std::string &x : {w, fold(w, true)})
                if (out.size() < n && seen.insert(fold_unique ? fold(x) : x).second) out.push_back(x);
        }
        return out;
    }

    static std::string ipv4(std::uint32_t v)
    {
        return std::to_string(v >> 24) + "." + std::to_string((v >> 16) & 255) + "." + std::to_string((v >> 8) & 255) +
               "." + std::to_string(v & 255);
    }
    static std::string ipv6(std::uint32_t hi, std::uint32_t lo)
    {
        unsigned char b[16] = {};
        for (int i = 0; i < 4; ++i) {
            b[i] = static_cast<unsigned char>(hi >> (24 - 8 * i));
            b[12 + i] = static_cast<unsigned char>(lo >> (24 - 8 * i));
        }
        char text[INET6_ADDRSTRLEN];
        return inet_ntop(AF_INET6, b, text, sizeof text);
    }

    /* Disjoint ranges from sorted distinct points. */
    Json ranges(int kind)
    {
        std::set<std::uint32_t> points;
        const std::uint32_t max = kind == 2 ? 65535u : 0xFFFFFFFFu;
        const unsigned n = count();
        while (points.size() < 2 * n) points.insert(num(0, max));
        Json a = Json::array();
        for (auto it = points.begin(); it != points.end(); ++it) {
            const std::uint32_t lo = *it, hi = coin() ? *++it : (++it, lo);
            auto text = [&](std::uint32_t v) {
                return kind == 0 ? ipv4(v) : kind == 1 ? ipv6(v, v) : std::to_string(v);
            };
            if (kind == 2 && lo == hi)
                a.push_back(lo);
            else
                a.push_back(lo == hi ? text(lo) : text(lo) + "-" + text(hi));
        }
        if (p_.every_family) std::shuffle(a.begin(), a.end(), rng_);
        return a;
    }

    Json value(tazc::Shape shape)
    {
        switch (shape) {
        case tazc::Shape::StrIPv6: return ipv6(num(0, 9), num(0, 9));
        case tazc::Shape::IntStr:
        case tazc::Shape::StrStr: return word();
        default: return std::uint32_t(rng_());
        }
    }

    Json map(const tazc::Family &f)
    {
        Json o = Json::object();
        const unsigned n = count();
        const std::uint32_t base = num(0, 0x7FFFFFFF);
        std::vector<std::string> keys;
        if (f.shape == tazc::Shape::IntInt || f.shape == tazc::Shape::IntStr) {
            std::set<std::uint32_t> ints;
            while (ints.size() < n) ints.insert(base + num(0, 1000));
            for (std::uint32_t k : ints) keys.push_back(std::to_string(k));
        } else if (f.shape == tazc::Shape::IPv6Int) {
            std::set<std::uint32_t> ints;
            while (ints.size() < n) ints.insert(num(0, 50));
            for (std::uint32_t k : ints) keys.push_back(ipv6(k % 7, k));
        } else {
            keys = words(n, true);
        }
        const bool string_values = f.shape == tazc::Shape::IntStr || f.shape == tazc::Shape::StrStr;
        for (const std::string &k : keys) {
            Json v = Json::array();
            const unsigned nv = num(string_values ? 0 : 1, 3);
            for (unsigned i = 0; i < nv; ++i) v.push_back(value(f.shape));
            o[k] = nv == 1 && coin() ? v[0] : v;
        }
        return o;
    }

    Json list(const tazc::Family &f)
    {
        switch (f.shape) {
        case tazc::Shape::Strings: return words(count(), !f.case_sensitive);
        case tazc::Shape::IPv4Ranges: return ranges(0);
        case tazc::Shape::IPv6Ranges: return ranges(1);
        case tazc::Shape::PortRanges: return ranges(2);
        default: return map(f);
        }
    }

    Json direction()
    {
        static const char *const kDirs[] = {"any", "inbound", "outbound"};
        return coin() ? Json(kDirs[num(0, 2)]) : Json(num(0, 5));
    }

    Json protocol_range()
    {
        const std::uint32_t lo = num(1, 300), hi = lo + num(0, 3);
        return lo == hi && coin() ? Json(lo) : Json(std::to_string(lo) + "-" + std::to_string(hi));
    }

    Json clean_entry()
    {
        Json c{{"protocol", protocol_range()}, {"target", num(0, 9)}};
        if (coin()) c["direction"] = direction();
        if (coin()) c["priority"] = num(0, 99);
        if (coin()) c["src"] = word();
        if (coin()) c["dst"] = word();
        return c;
    }

    Json risk_entry()
    {
        Json r{{"severity", num(0, 9)}, {"policy", num(0, 999)}, {"protocols", ranges(2)}};
        if (coin()) r["direction"] = direction();
        return r;
    }

    Json defaults()
    {
        Json d = Json::object();
        if (coin()) d["inbound"] = Json{{"severity", num(0, 9)}, {"policy", num(0, 999)}};
        if (coin()) d["outbound"] = Json{{"severity", num(0, 9)}, {"policy", num(0, 999)}};
        return d;
    }

    void kind(Json &j, bool second)
    {
        Json lists = Json::object(), maps = Json::object();
        for (const tazc::Family &f : tazc::families()) {
            if ((second && f.main_kind_only) || (!p_.every_family && num(0, 4) != 0)) continue;
            Json fam = Json::object();
            std::set<std::uint32_t> numbers{0, 6};
            if (!p_.every_family) {
                numbers.clear();
                for (unsigned n = num(1, 3); numbers.size() < n;)
                    numbers.insert(num(0, 5) == 0 ? num(6, 300) : num(0, 5));
            }
            for (std::uint32_t number : numbers) fam[std::to_string(number)] = list(f);
            (std::string(f.group) == "lists" ? lists : maps)[f.name] = fam;
        }
        if (!lists.empty()) j["lists"] = lists;
        if (!maps.empty()) j["maps"] = maps;
        /* Rules in id order: the library indexes them so. */
        Json rules = Json::array();
        std::uint32_t id = num(0, 3);
        for (unsigned i = num(0, 4); i > 0; --i, id += num(1, 1000)) {
            Json r{{"id", id}};
            if (coin()) r["description"] = word();
            if (coin()) r["risk_type"] = word();
            if (coin()) r["risk_group"] = num(0, 9);
            if (coin()) r["confidence"] = num(0, 100);
            if (coin()) r["enabled"] = coin() ? Json(coin()) : Json(num(0, 5));
            if (coin()) r["clean"] = clean_entry();
            rules.push_back(r);
        }
        if (!rules.empty()) j["rules"] = rules;
        Json clean = Json::array();
        for (unsigned i = num(0, 3); i > 0; --i) clean.push_back(clean_entry());
        if (!clean.empty()) j["clean"] = clean;
        protocols(j);
        Json sev = Json::object();
        Json known = Json::array();
        for (unsigned i = num(0, 2); i > 0; --i) known.push_back(risk_entry());
        if (!known.empty()) sev["known"] = known;
        if (coin()) sev["known_default"] = defaults();
        Json potential = Json::array();
        for (unsigned i = num(0, 2); i > 0; --i) {
            Json risks = Json::array();
            for (unsigned k = num(1, 2); k > 0; --k) risks.push_back(risk_entry());
            potential.push_back(Json{{"rule", num(0, 5)}, {"risks", risks}});
        }
        if (!potential.empty()) sev["potential"] = potential;
        if (coin()) sev["potential_default"] = defaults();
        if (!sev.empty()) j["severity"] = sev;
        Json threats = Json::object();
        for (unsigned i = num(0, 3); i > 0; --i)
            threats[std::to_string(num(0, 20))] = coin() ? Json("exploit") : Json(num(0, 120));
        if (!threats.empty()) j["threat_types"] = threats;
    }

    void protocols(Json &j)
    {
        std::vector<std::uint32_t> pids, gids;
        for (unsigned i = num(0, 4); i > 0; --i) {
            const std::uint32_t id = num(0, 30);
            if (std::find(pids.begin(), pids.end(), id) == pids.end()) pids.push_back(id);
        }
        for (unsigned i = pids.empty() ? 0 : num(0, 3); i > 0; --i) {
            const std::uint32_t id = num(100, 130);
            if (std::find(gids.begin(), gids.end(), id) == gids.end()) gids.push_back(id);
        }
        Json prots = Json::array(), groups = Json::array();
        for (std::uint32_t id : pids) {
            Json p{{"id", id}, {"desc", word()}};
            if (!gids.empty() && coin()) p["group"] = gids[num(0, std::uint32_t(gids.size() - 1))];
            prots.push_back(p);
        }
        for (std::uint32_t id : gids) {
            Json m = Json::array();
            for (unsigned i = num(0, 3); i > 0; --i) m.push_back(pids[num(0, std::uint32_t(pids.size() - 1))]);
            groups.push_back(Json{{"id", id}, {"desc", word()}, {"protocols", m}});
        }
        if (!prots.empty()) j["protocols"] = prots;
        if (!groups.empty()) j["protocol_groups"] = groups;
    }
};

} // namespace tazt

#endif /* TAZE_SOURCE_GEN_H */
