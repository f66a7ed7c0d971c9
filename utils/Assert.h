#pragma once

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

namespace tavrin {

// Stops the process when a caller broke a precondition, whatever NDEBUG says.
// The report, in the C library's assertion format, names `expressionText`,
// `fileText`, `line` and `function`; the texts are given rather than derived
// from the source so that reports stay the same however the code is
// formatted. Meant for programming errors only: data received from another
// process must be validated before it can reach such a check.
inline void assertOrAbort(bool holds, const char* expressionText, const char* fileText,
                          unsigned line, const char* function) {
    if (holds) return;
    fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
            fileText, line, function, expressionText);
    fflush(stderr);
    abort();
}

}  // namespace tavrin
