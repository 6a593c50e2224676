/* taze: the pattern inspector. Usage: taze COMMAND [OPTIONS] ARGUMENTS
 * (taze --help lists the commands). */
#include <iostream>

#include "examine_commands.h"

int main(int argc, char **argv)
{
    return tazi::run_taze(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
