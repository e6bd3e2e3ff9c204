#include "utils/ExSystemError.h"
#include "utils/NotSupportedError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <typeinfo>

using zarnet::ExSystemError;
using zarnet::SystemError;

TEST(SystemError, WhatJoinsMessageAndErrnoText)
{
    const SystemError with("pipe", EMFILE);
    EXPECT_EQ(std::string(with.what()), std::string("pipe: ") + std::strerror(EMFILE));
    EXPECT_EQ(with.code(), EMFILE);

    const SystemError without("", EACCES);
    EXPECT_EQ(std::string(without.what()), std::strerror(EACCES));

    // Built once: later calls hand out the same text.
    EXPECT_EQ(with.what(), with.what());
}

TEST(SystemError, CopyKeepsTheText)
{
    const SystemError original("execv", ENOENT);
    const char *first = original.what();
    const SystemError copy(original);
    EXPECT_STREQ(copy.what(), first);
}

TEST(ThrowSystemError, PicksTheClassOfTheCode)
{
    const struct {
        int code;
        const std::type_info &want;
    } cases[] = {
        {EPERM, typeid(ExSystemError<EPERM>)},   {ENOENT, typeid(ExSystemError<ENOENT>)},
        {EINTR, typeid(ExSystemError<EINTR>)},   {ECHILD, typeid(ExSystemError<ECHILD>)},
        {EAGAIN, typeid(ExSystemError<EAGAIN>)}, {EACCES, typeid(SystemError)},
        {EEXIST, typeid(SystemError)},
    };
    for (const auto &c : cases) {
        try {
            zarnet::throwSystemError("step", c.code);
            FAIL() << "nothing thrown for " << c.code;
        } catch (const SystemError &e) {
            EXPECT_EQ(typeid(e), c.want) << "code " << c.code;
            EXPECT_EQ(e.code(), c.code);
        }
    }
}

TEST(ThrowSystemError, CodeZeroTakesCurrentErrnoAndStaysPlain)
{
    errno = EACCES;
    try {
        zarnet::throwSystemError("open", 0);
    } catch (const SystemError &e) {
        EXPECT_EQ(typeid(e), typeid(SystemError));
        EXPECT_EQ(e.code(), EACCES);
        return;
    }
    FAIL() << "nothing thrown";
}

TEST(ThrowSystemError, CodeZeroWithErrnoTwoIsStillPlain)
{
    // Catching by errno type must mean the caller named the code.
    errno = ENOENT;
    try {
        zarnet::throwSystemError("stat", 0);
    } catch (const ExSystemError<ENOENT> &) {
        FAIL() << "typed class thrown for code 0";
    } catch (const SystemError &e) {
        EXPECT_EQ(e.code(), ENOENT);
    }
}

TEST(NotSupportedError, AppendsTheSuffix)
{
    const zarnet::NotSupportedError e("short account-format is not supported for Postfix");
    EXPECT_STREQ(e.what(),
                 "short account-format is not supported for Postfix isn't supported");
}
