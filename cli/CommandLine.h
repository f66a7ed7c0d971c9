#pragma once

#include <string>
#include <vector>

namespace tavrin_cli {

// The `tavrin` command's arguments: a subcommand, its operands, and options
// that may stand anywhere (--context before or after the subcommand).
struct CommandLine {
    std::string command;  // empty with --help or --version alone
    std::vector<std::string> operands;
    std::string context;  // empty: the environment's
    bool help = false;
    bool version = false;
    bool json = false;
    long count = -1;      // -1: not given
    double timeout = -1;  // seconds; -1: not given
    std::string error;    // a usage error, empty when the line is valid

    static CommandLine parse(int argc, char** argv);
};

// The usage text that --help prints (docs/cli.md tells the same in full).
extern const char kUsage[];

}  // namespace tavrin_cli
