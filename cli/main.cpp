// tavrin: shows the tavrin services of a binder context and watches their
// calls. Usage in CommandLine.cpp's kUsage; in full in docs/cli.md (tavrin(1)).
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include "BoundedCall.h"
#include "CommandLine.h"
#include "Commands.h"
#include "ContextView.h"
#include "Monitor.h"

using namespace tavrin_cli;

namespace {

// The commands that need the context's service manager, which they never start.
int runInContext(const CommandLine& line) {
    ContextView context;
    if (!context.connect()) {
        fprintf(stderr, "tavrin: no service manager serves context %s\n", contextName().c_str());
        return 1;
    }
    if (line.command == "list") return listNames(context, line);
    if (line.command == "status") return showStatus(context, line);
    if (line.command == "ping") return ping(context, line);
    return Monitor(context, line).run();
}

int run(const CommandLine& line) {
    if (!line.error.empty()) {
        fprintf(stderr, "tavrin: %s\n%s", line.error.c_str(), kUsage);
        return 2;
    }
    if (line.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (line.version) {
        printf("tavrin %s\n", TAVRIN_VERSION);
        return 0;
    }
    if (!line.context.empty()) setenv("TAVRIN_BINDER_CONTEXT", line.context.c_str(), 1);
    if (line.command == "contexts") return listContexts(line);
    if (line.command == "wait") return waitFor(line);
    return runInContext(line);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that went away (tavrin monitor | head) ends the command quietly.
    signal(SIGPIPE, SIG_DFL);
    endProcess(run(CommandLine::parse(argc, argv)));
}
