#pragma once

#include "CommandLine.h"
#include "ContextInspector.h"

namespace tavrin_cli {

// The subcommands. Each prints its answer on stdout (errors on stderr) and
// returns the exit status: 0, 1 when what was asked for is not there.
int listNames(ContextInspector& context, const CommandLine& line);
int showStatus(ContextInspector& context, const CommandLine& line);
int ping(ContextInspector& context, const CommandLine& line);
int waitFor(const CommandLine& line);
int listContexts(const CommandLine& line);
int monitor(ContextInspector& context, const CommandLine& line);

// The context the command works in.
std::string contextName();

}  // namespace tavrin_cli
