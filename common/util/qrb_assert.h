// The assertions the system's contracts name (a null path handed to a utility, a reference
// count gone negative, a shared-memory blob shorter than its length word): they stop the
// process in every build type. The standard assert() is compiled out under NDEBUG, which is
// how release builds are made, and would let such a call run on into undefined behaviour.
#ifndef QRB_COMMON_ASSERT_H
#define QRB_COMMON_ASSERT_H

#include <cstdio>
#include <cstdlib>

// Says what failed, as assert() does, and aborts.
[[noreturn]] inline void QRBAssertFail(const char* expression, const char* file, int line,
                                       const char* function) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

#define QRB_ASSERT(expression)                            \
    (static_cast<bool>(expression) ? static_cast<void>(0) \
                                   : QRBAssertFail(#expression, __FILE__, __LINE__, __func__))

#endif
