// Suites named *Sandboxed need the rig's accounts, panel database and system
// paths: tests/system/test_sandboxed_units.py runs them inside a sandbox with
// MAILTEND_IN_SANDBOX=1; on the host they skip.
#ifndef MAILTEND_TESTS_SUPPORT_SANDBOXED_H
#define MAILTEND_TESTS_SUPPORT_SANDBOXED_H

#include <gtest/gtest.h>

#include <cstdlib>

#define MAILTEND_REQUIRE_SANDBOX()                                          \
    do {                                                                    \
        if (std::getenv("MAILTEND_IN_SANDBOX") == nullptr)                  \
            GTEST_SKIP() << "runs inside the sandbox rig only";             \
    } while (0)

#endif
