#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android {
namespace tvbinder {

// The 128-bit name that a process gives one of its objects when it first
// sends it away. Random, so that a process reaches only objects it was handed.
struct Token {
    uint64_t hi = 0;
    uint64_t lo = 0;

    bool operator==(const Token& other) const { return hi == other.hi && lo == other.lo; }
    bool operator!=(const Token& other) const { return !(*this == other); }
    bool isNull() const { return hi == 0 && lo == 0; }

    // A fresh unguessable token; never null and never the context token.
    static Token random();
};

// The context manager's object answers to this fixed token: it is the one
// object every process may reach without having been handed it.
constexpr Token kContextToken{0, 1};

struct TokenHash {
    size_t operator()(const Token& token) const {
        return static_cast<size_t>(token.hi ^ (token.lo * 0x9e3779b97f4a7c15ULL));
    }
};

}  // namespace tvbinder
}  // namespace android
