#pragma once

#include <chrono>
#include <functional>

namespace tavrin_cli {

// Runs `work` on a thread of its own and waits for it up to `timeout`: a
// process that does not answer must not hang the command. `work` owns what it
// uses (it may outlive the caller's frame). False when it did not finish in
// time; it then runs on, detached, and the command must end with
// endProcess().
bool runBounded(std::function<void()> work, std::chrono::milliseconds timeout);

// Ends the command with `status`: normally, or, while some work still runs
// (blocked in another process), without running destructors under its feet.
[[noreturn]] void endProcess(int status);

}  // namespace tavrin_cli
