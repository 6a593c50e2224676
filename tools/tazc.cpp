/* tazc: compiles a JSON pattern source into a pattern file.
 * Usage: tazc [--no-encrypt] (-o FILE | --out-dir DIR --prefix PREFIX) SOURCE.json */
#include <iostream>

#include "source_model.h"

int main(int argc, char **argv)
{
    return tazc::run_tazc(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
