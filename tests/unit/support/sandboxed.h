// Unit tests that need the rig's accounts and servers (the "popuser" account,
// the panel database on its socket, fixed system paths) run inside a sandbox:
// tests/system/test_sandboxed_units.py starts one and runs every suite whose
// name ends in "Sandboxed" there, with MAILTEND_IN_SANDBOX=1. On the host
// those tests skip.
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
