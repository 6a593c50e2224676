/* The command line of taze: dispatch to the commands, help and usage
 * errors shared by all of them. */
#include <cctype>
#include <ostream>

#include "examine_commands.h"

namespace tazi {

namespace {

constexpr const char *kUsage =
    "usage: taze COMMAND [OPTIONS] ARGUMENTS\n"
    "       taze --version\n"
    "\n"
    "Inspects pattern files the way the taze library reads them.\n"
    "\n"
    "Commands:\n"
    "  info FILE                        container and sub-pattern headers, versions,\n"
    "                                   and the lists, entries and bytes of every family\n"
    "  dump FILE                        the pattern back as the JSON source tazc compiles\n"
    "  verify FILE                      check every order and index the lookups rely on\n"
    "  query FILE KIND [LIST] VALUE...  ask the library a question through its API\n"
    "  pick DIR PREFIX                  which file the directory loader would load, and why\n"
    "                                   every other file is passed over\n"
    "\n"
    "Run 'taze COMMAND --help' for the options of one command; info and pick\n"
    "take --json for one JSON document on standard output.\n"
    "Exit codes: 0 success, 1 failure (verify: errors found), 2 usage error.\n";

struct Command {
    const char *name;
    int (*run)(const Args &, std::ostream &, std::ostream &);
};

constexpr Command kCommands[] = {
    {"info", cmd_info}, {"dump", cmd_dump}, {"verify", cmd_verify}, {"query", cmd_query}, {"pick", cmd_pick}};

} // namespace

bool wants_help(const Args &args)
{
    for (const std::string &a : args) {
        if (a == "--") return false;
        if (a == "-h" || a == "--help") return true;
    }
    return false;
}

bool show_help(const Args &args, std::ostream &out, const char *usage)
{
    if (!wants_help(args)) return false;
    out << usage;
    return true;
}

std::string split_args(const Args &args, std::initializer_list<Option> options, Args *positional)
{
    bool more_options = true;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (!more_options || a.size() < 2 || a[0] != '-' || std::isdigit(static_cast<unsigned char>(a[1]))) {
            positional->push_back(a);
            continue;
        }
        if (a == "--") {
            more_options = false;
            continue;
        }
        const std::size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        const Option *o = nullptr;
        for (const Option &x : options)
            if (name == x.name) o = &x;
        if (!o) return "unknown option " + a;
        if (o->flag) {
            if (eq != std::string::npos) return name + " takes no value";
            *o->flag = true;
        } else if (eq != std::string::npos) {
            *o->value = a.substr(eq + 1);
        } else if (i + 1 < args.size()) {
            *o->value = args[++i];
        } else {
            return name + " needs a value";
        }
    }
    return "";
}

std::string one_file(const Args &args, std::initializer_list<Option> options, std::string *file)
{
    Args positional;
    const std::string bad = split_args(args, options, &positional);
    if (!bad.empty()) return bad;
    if (positional.size() != 1) return "give exactly one pattern FILE";
    *file = positional[0];
    return "";
}

int usage_error(std::ostream &err, const std::string &command, const std::string &message)
{
    const std::string name = command.empty() ? "taze" : "taze " + command;
    err << name << ": " << message << "\n(" << name << " --help shows the usage)\n";
    return kExitUsage;
}

bool load_for_command(const std::string &path, LoadedFile &file, std::ostream &err, bool need_loadable)
{
    std::string error;
    if (!file.load(path, &error)) {
        err << "taze: " << error << "\n";
        return false;
    }
    const std::string refusal = file.refusal();
    if (need_loadable && !refusal.empty()) {
        err << "taze: " << path << " does not load: " << refusal << "\n";
        return false;
    }
    return true;
}

int run_taze(const std::vector<std::string> &args, std::ostream &out, std::ostream &err)
{
    if (args.empty()) return usage_error(err, "", "no command given");
    const std::string &first = args[0];
    if (first == "--version" && args.size() == 1) {
        out << "taze " << TAZE_PROJECT_VERSION << "\n";
        return kExitOk;
    }
    if (first == "-h" || first == "--help" || first == "help") {
        if (args.size() > 1)
            for (const Command &c : kCommands)
                if (args[1] == c.name) return c.run({"--help"}, out, err);
        out << kUsage;
        return kExitOk;
    }
    for (const Command &c : kCommands)
        if (first == c.name) return c.run(Args(args.begin() + 1, args.end()), out, err);
    return usage_error(err, "", "unknown command " + tazc::quote_text(first));
}

} // namespace tazi
