#include "CommandLine.h"

#include <errno.h>
#include <stdlib.h>

#include <map>
#include <set>

namespace tavrin_cli {

const char kUsage[] =
    "usage: tavrin [--context NAME] COMMAND [ARGS] [OPTIONS]\n"
    "\n"
    "Shows the tavrin services of a binder context and watches their calls.\n"
    "\n"
    "Commands:\n"
    "  list [--json]                  every name registered in the context\n"
    "  status NAME [--json]           one service: its clients, sub-services, waiters\n"
    "  monitor [NAME...] [--json] [--count N] [--timeout S]\n"
    "                                 one line per call and notification, live\n"
    "  ping NAME [--count N]          reachability and round-trip times (3 pings)\n"
    "  wait NAME [--timeout S]        wait until NAME is registered\n"
    "  contexts [--json]              the user's contexts that have a service manager\n"
    "\n"
    "Options:\n"
    "  --context NAME   the binder context (default: $TAVRIN_BINDER_CONTEXT, else\n"
    "                   \"default\"); before or after the command\n"
    "  --json           machine-readable output (shapes in tavrin(1))\n"
    "  --help           this text;  --version  the version\n"
    "\n"
    "Exit status: 0 success, 1 what was asked for is not there (or the time-out\n"
    "passed), 2 usage error.\n";

namespace {

// Which options each command takes, and how many operands.
struct Syntax {
    std::set<std::string> options;
    size_t minOperands;
    size_t maxOperands;
};

const std::map<std::string, Syntax>& syntaxes() {
    static const auto* const kSyntaxes = new std::map<std::string, Syntax>{
        {"list", {{"--json"}, 0, 0}},
        {"status", {{"--json"}, 1, 1}},
        {"monitor", {{"--json", "--count", "--timeout"}, 0, 1024}},
        {"ping", {{"--count"}, 1, 1}},
        {"wait", {{"--timeout"}, 1, 1}},
        {"contexts", {{"--json"}, 0, 0}},
    };
    return *kSyntaxes;
}

bool parseCount(const std::string& text, long* count) {
    char* end = nullptr;
    errno = 0;
    *count = strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0 && *count > 0;
}

bool parseSeconds(const std::string& text, double* seconds) {
    char* end = nullptr;
    *seconds = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && *seconds >= 0 && *seconds < 1e9;
}

// Reads one option (and its value) at argv[*i]; false on a usage error.
bool takeOption(int argc, char** argv, int* i, CommandLine* line, std::set<std::string>* seen) {
    const std::string option = argv[*i];
    seen->insert(option);
    if (option == "--help" || option == "-h") return line->help = true;
    if (option == "--version") return line->version = true;
    if (option == "--json") return line->json = true;
    if (option != "--context" && option != "--count" && option != "--timeout") {
        line->error = "unknown option " + option;
        return false;
    }
    if (*i + 1 >= argc) {
        line->error = option + " needs a value";
        return false;
    }
    const std::string value = argv[++*i];
    bool valid = true;
    if (option == "--context") {
        valid = !value.empty() && value.find('/') == std::string::npos;
        line->context = value;
    } else if (option == "--count") {
        valid = parseCount(value, &line->count);
    } else {
        valid = parseSeconds(value, &line->timeout);
    }
    if (!valid) line->error = "invalid value for " + option + ": " + value;
    return valid;
}

void checkSyntax(const std::set<std::string>& seen, CommandLine* line) {
    auto syntax = syntaxes().find(line->command);
    if (syntax == syntaxes().end()) {
        line->error = "unknown command " + line->command;
        return;
    }
    for (const char* option : {"--json", "--count", "--timeout"}) {
        if (seen.count(option) != 0 && syntax->second.options.count(option) == 0) {
            line->error = "tavrin " + line->command + " takes no " + option;
            return;
        }
    }
    const size_t operands = line->operands.size();
    if (operands < syntax->second.minOperands || operands > syntax->second.maxOperands) {
        line->error = "wrong number of arguments for tavrin " + line->command;
    }
}

}  // namespace

CommandLine CommandLine::parse(int argc, char** argv) {
    CommandLine line;
    std::set<std::string> seen;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.size() > 1 && arg[0] == '-') {
            if (!takeOption(argc, argv, &i, &line, &seen)) return line;
        } else if (line.command.empty()) {
            line.command = arg;
        } else {
            line.operands.push_back(arg);
        }
    }
    if (line.help || line.version) return line;
    if (line.command.empty()) {
        line.error = "no command given";
        return line;
    }
    checkSyntax(seen, &line);
    return line;
}

}  // namespace tavrin_cli
