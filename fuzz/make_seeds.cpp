/* Writes the seed corpora of the fuzz targets, built with the writer:
 *   make_seeds OUTDIR  ->  OUTDIR/<target>/<name>
 * for the targets container, wrapped, payload, ulm, dir and fast_paths. */
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "samples.h"

namespace {

bool put(const std::string &root, const std::string &target, const std::string &name, const tazw::Bytes &data)
{
    const std::string dir = root + "/" + target;
    mkdir(root.c_str(), 0755);
    mkdir(dir.c_str(), 0755);
    if (tazw::write_file(dir + "/" + name, data)) return true;
    std::fprintf(stderr, "make_seeds: cannot write %s/%s\n", dir.c_str(), name.c_str());
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds OUTDIR\n");
        return 2;
    }
    const std::string root = argv[1];
    bool ok = true;
    const tazw::Bytes main_full = tazf::full_payload(false);
    const tazw::Bytes second_full = tazf::full_payload(true);
    const tazw::Bytes raw = {'r', 'a', 'w', 0, 1, 2, 3};

    /* Main-kind payloads also seed the differential target of the search
     * indexes (fast_paths). */
    for (const char *target : {"payload", "fast_paths"}) {
        ok &= put(root, target, "full", main_full);
        for (const auto &named : tazf::single_section_payloads(false)) ok &= put(root, target, named.first, named.second);
    }
    ok &= put(root, "ulm", "full", second_full);
    for (const auto &named : tazf::single_section_payloads(true)) ok &= put(root, "ulm", named.first, named.second);

    ok &= put(root, "container", "encrypted-all-kinds", tazf::container_of(main_full, &second_full, &raw, true));
    ok &= put(root, "container", "plain-all-kinds", tazf::container_of(main_full, &second_full, &raw, false));
    ok &= put(root, "container", "plain-gap", tazf::container_of(tazf::rule_section(), nullptr, &raw, false, 64));
    ok &= put(root, "container", "encrypted-main", tazf::container_of(tazf::clean_section(), nullptr, nullptr, true));

    using namespace tazf;
    ok &= put(root, "wrapped", "main", wrap_input(main_full, 0, 1));
    ok &= put(root, "wrapped", "second", wrap_input(second_full, kWrapAsSecond, 2));
    ok &= put(root, "wrapped", "all-kinds-plain", wrap_input(main_full, kWrapSecond | kWrapRaw | kWrapPlain, 3));
    ok &= put(root, "wrapped", "gap", wrap_input(severity_info_section(), kWrapGap | kWrapRaw, 4));
    int n = 0;
    for (const auto &named : single_section_payloads(false))
        if (n++ % 6 == 0) ok &= put(root, "wrapped", named.first, wrap_input(named.second, std::uint8_t(n), std::uint32_t(n)));

    ok &= put(root, "dir", "versions", dir_input("P a\nF c 4d a77.ptn\nF c 1000004d a0077.ptn\nF c 4e a77.ptn.bak\n"
                                                 "F c 4d a78.ptn\nF b TAZP a79.ptn\nD a80.ptn\nF c 50 b80.ptn\n"));
    ok &= put(root, "dir", "slash-empty-prefix", dir_input("S\nP \nF c 12345 12345.ptn\nF e 0 0.ptn\nF c 1 1.pt\n"));
    ok &= put(root, "dir", "builds", dir_input("P p\nF c 1230004d p77.ptn\nF c 1210004d p0077.ptn\nF c 2000004d p00077.ptn\n"));
    return ok ? 0 : 1;
}
