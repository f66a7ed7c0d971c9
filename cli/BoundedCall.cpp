#include "BoundedCall.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace tavrin_cli {
namespace {

std::atomic<int> gRunning{0};

struct Completion {
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
};

}  // namespace

bool runBounded(std::function<void()> work, std::chrono::milliseconds timeout) {
    auto completion = std::make_shared<Completion>();
    gRunning.fetch_add(1);
    std::thread([completion, work = std::move(work)]() mutable {
        work();
        work = nullptr;  // what it held goes before it counts as done
        gRunning.fetch_sub(1);
        std::lock_guard<std::mutex> hold(completion->lock);
        completion->done = true;
        completion->finished.notify_all();
    }).detach();
    std::unique_lock<std::mutex> hold(completion->lock);
    return completion->finished.wait_for(hold, timeout, [&] { return completion->done; });
}

void endProcess(int status) {
    fflush(stdout);
    fflush(stderr);
    if (gRunning.load() > 0) _exit(status);
    exit(status);
}

}  // namespace tavrin_cli
