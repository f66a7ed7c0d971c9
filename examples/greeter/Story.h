#pragma once

// The lines a greeter program tells its story with: "<speaker>: <text>" on
// stdout, flushed at once because the runner reads the file while the
// program runs. Any thread; lines never interleave.
namespace story {

// Set once, in main, before the first line.
void setSpeaker(const char* speaker);
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace story
