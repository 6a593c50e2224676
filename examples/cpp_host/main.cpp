// A C++17 host of the taze pattern engine: the answers of the C host through
// taze.hpp, then two reader threads querying while a third thread reloads.
// The keys asked about are those of examples/example.json.
//
// Usage: cpp_host PATTERN_FILE [OTHER_PATTERN_FILE]
// With a second file the reloading thread alternates between the two.
#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <taze/taze.hpp>

namespace {

const char *answer(std::optional<bool> a) { return !a ? "error" : *a ? "yes" : "no"; }

void print_answers(const taze::handle &h)
{
    std::printf("pattern version: %s\n", h.pattern_version().value_or("?").c_str());
    std::printf("compiler version: %s\n", h.compiler_version().value_or("?").c_str());
    const unsigned count = h.rule_count().value_or(0);
    std::printf("rules: %u\n", count);
    for (unsigned i = 0; i < count; ++i) {
        std::printf("rule %u: %s\n", h.rule_index_rule_id(i).value_or(0), h.rule_index_desc(i).value_or("?").c_str());
    }
    std::printf("exact list 0 holds malware.example.com: %s\n",
                answer(h.search(taze::list_kind::exact, 0, "MALWARE.example.com")));
    // A view that is not NUL-terminated: the wrapper copies it.
    const std::string url = "download.example.biz/setup";
    std::printf("suffix list 0 ends download.example.biz: %s\n",
                answer(h.search(taze::list_kind::suffix, 0, std::string_view(url).substr(0, 20))));
    std::printf("ip list 0 holds 10.1.2.3: %s\n", answer(h.in_ip_range(0, 0x0A010203u)));
    std::printf("port list 0 holds 137: %s\n", answer(h.in_port_range(0, 137)));
    if (auto e = h.map<taze::maps::str_int>(0).find("malware.example.com")) {
        std::printf("map 0 %.*s:", int(e->key.size()), e->key.data());
        for (std::uint32_t v : e->values) std::printf(" %u", v);
        std::printf("\n");
    }
    std::printf("threat type of rule 1001: %u\n", h.threat_type(1001).value_or(0));
    if (auto name = h.ulm_info()) std::printf("second pattern: %.*s\n", int(name->size()), name->data());
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s PATTERN_FILE [OTHER_PATTERN_FILE]\n", argv[0]);
        return 2;
    }
    const std::vector<std::string> files(argv + 1, argv + (argc > 2 ? 3 : 2));
    try {
        taze::handle h;
        h.load(files[0]);
        print_answers(h);

        // The versions a reader may see: those of the files.
        std::set<std::string> versions;
        for (const std::string &f : files) versions.insert(taze::peek_version(f));

        taze::reloading_handle holder;
        holder.load(files[0]);
        std::atomic<bool> done{false};
        std::atomic<unsigned long> queries{0}, wrong{0};
        auto read = [&] {
            taze::reloading_handle::reader reader(holder);
            do {
                const taze::snapshot &s = reader.current();
                const auto version = s->pattern_version();
                const auto list = s.string_list(0); // pinned: valid even if a reload follows
                if (!version || !versions.count(*version) || !list || (*list)->empty()) ++wrong;
                ++queries;
            } while (!done.load());
        };
        std::thread r1(read), r2(read);
        std::thread writer([&] {
            for (int i = 1; i <= 20; ++i) holder.load(files[std::size_t(i) % files.size()]);
            done = true;
        });
        writer.join();
        r1.join();
        r2.join();
        std::printf("reloads: 20, reader queries: %lu, wrong answers: %lu\n", queries.load(), wrong.load());
        return wrong.load() == 0 ? 0 : 1;
    } catch (const taze::error &e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
