// Suites named *Sandboxed run inside the rig (tests/system/test_sandboxed_units.py
// sets MAILTEND_IN_SANDBOX=1); on the host they skip.
#pragma once
#include <gtest/gtest.h>

#include <cstdlib>

#define MAILTEND_REQUIRE_SANDBOX()                                          \
    do {                                                                    \
        if (std::getenv("MAILTEND_IN_SANDBOX") == nullptr)                  \
            GTEST_SKIP() << "runs inside the sandbox rig only";             \
    } while (0)
