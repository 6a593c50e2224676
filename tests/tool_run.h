/* Runs the tools' command functions in the test process and keeps what they
 * print and return. */
#ifndef TAZE_TOOL_RUN_H
#define TAZE_TOOL_RUN_H

#include <sstream>

#include "examine_commands.h"
#include "test_support.h"

namespace tazt {

struct Outcome {
    int rc;
    std::string out, err;
};

template <typename Run>
Outcome run_tool(Run run, const std::vector<std::string> &args)
{
    std::ostringstream out, err;
    const int rc = run(args, out, err);
    return {rc, out.str(), err.str()};
}

inline Outcome taze_run(const std::vector<std::string> &args) { return run_tool(tazi::run_taze, args); }

} // namespace tazt

#endif /* TAZE_TOOL_RUN_H */
