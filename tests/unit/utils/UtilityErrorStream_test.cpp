#include "utils/UtilityErrorStream.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <unistd.h>

using testsupport::runInChild;

namespace {

void rawOut(const char *text)
{
    // Straight to the descriptor: shows what reached standard output so far.
    ssize_t n = write(1, text, strlen(text));
    (void)n;
}

} // namespace

TEST(UtilityErrorStream, ErrorAtOnceOutputAtFlush)
{
    const auto r = runInChild([] {
        zarnet::uerr << "abc";
        rawOut("[before flush]");
        zarnet::uerr << std::endl;
        rawOut("[after flush]");
        return 0;
    });
    EXPECT_EQ(r.err, "abc\n") << r;
    EXPECT_EQ(r.out, "[before flush]abc\n[after flush]") << r;
}

TEST(UtilityErrorStream, UnfinishedLineReachesOutputAtExit)
{
    const auto r = runInChild([] {
        zarnet::uerr << "partial";
        rawOut("[end]");
        return 3;
    });
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "partial");
    EXPECT_EQ(r.out, "[end]partial") << r;
}

TEST(UtilityErrorStream, EachLineCopiedOnce)
{
    const auto r = runInChild([] {
        zarnet::uerr << "one" << std::endl << "two" << std::endl;
        zarnet::uerr.flush(); // nothing pending: must not repeat "two"
        return 0;
    });
    EXPECT_EQ(r.out, "one\ntwo\n") << r;
    EXPECT_EQ(r.err, "one\ntwo\n") << r;
}
