#pragma once

#include "CommandLine.h"
#include "ContextView.h"

namespace tavrin_cli {

// The subcommands. Each prints its answer on stdout (errors on stderr) and
// returns the exit status: 0, 1 when what was asked for is not there.
int listNames(ContextView& context, const CommandLine& line);
int showStatus(ContextView& context, const CommandLine& line);
int ping(ContextView& context, const CommandLine& line);
int waitFor(const CommandLine& line);
int listContexts(const CommandLine& line);
int monitor(ContextView& context, const CommandLine& line);

// The context the command works in.
std::string contextName();

}  // namespace tavrin_cli
