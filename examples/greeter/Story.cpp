#include "Story.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>

namespace story {
namespace {

const char* gSpeaker = "?";
std::mutex gLock;

}  // namespace

void setSpeaker(const char* speaker) {
    gSpeaker = speaker;
}

void say(const char* format, ...) {
    std::lock_guard<std::mutex> hold(gLock);
    printf("%s: ", gSpeaker);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

}  // namespace story
