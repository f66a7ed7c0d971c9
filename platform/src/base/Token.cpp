#define LOG_TAG "tvbinder"

#include "base/Token.h"

#include <errno.h>
#include <log/log.h>
#include <sys/random.h>

namespace android {
namespace tvbinder {

namespace {

void fillRandom(void* buffer, size_t size) {
    auto* bytes = static_cast<uint8_t*>(buffer);
    size_t filled = 0;
    while (filled < size) {
        ssize_t n = getrandom(bytes + filled, size - filled, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            LOG_ALWAYS_FATAL("getrandom failed: %d", errno);
        }
        filled += static_cast<size_t>(n);
    }
}

}  // namespace

Token Token::random() {
    Token token;
    do {
        fillRandom(&token, sizeof(token));
    } while (token.hi == 0);  // keeps clear of the null and the context token
    return token;
}

}  // namespace tvbinder
}  // namespace android
