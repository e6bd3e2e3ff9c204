#include "utils/ExSystemError.h"

#include "test_common.h"
#include "utils/NotSupportedError.h"

using zarnet::ExSystemError;
using zarnet::SystemError;

TEST(SystemError, WhatJoinsMessageAndErrnoTextAndThrowPicksTheClassOfTheCode)
{
    const SystemError with("pipe", EMFILE), without("", EACCES);
    EXPECT_EQ(std::string(with.what()) + "|" + without.what(), std::string("pipe: ") + std::strerror(EMFILE) + "|" + std::strerror(EACCES));
    EXPECT_STREQ(SystemError(with).what(), with.what());
    EXPECT_STREQ(zarnet::NotSupportedError("short account-format").what(), "short account-format isn't supported");
    // current: errno at the call
    const struct { int code, current; const std::type_info &want; } cases[] = {
        {EPERM, 0, typeid(ExSystemError<EPERM>)}, {ENOENT, 0, typeid(ExSystemError<ENOENT>)},
        {EAGAIN, 0, typeid(ExSystemError<EAGAIN>)}, {EACCES, 0, typeid(SystemError)},
        // Catching by errno type must mean the caller named the code.
        {0, ENOENT, typeid(SystemError)},
    };
    for (const auto &c : cases) {
        errno = c.current;
        try {
            zarnet::throwSystemError("step", c.code);
            ADD_FAILURE() << "nothing thrown for " << c.code;
        } catch (const SystemError &e) {
            EXPECT_EQ(typeid(e).name(), std::string(c.want.name())) << "code " << c.code << ", errno " << c.current;
            EXPECT_EQ(e.code(), c.code ? c.code : c.current);
        }
    }
}
