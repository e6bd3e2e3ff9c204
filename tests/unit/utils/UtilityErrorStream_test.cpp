#include "utils/UtilityErrorStream.h"

#include "test_common.h"

TEST(UtilityErrorStream, ErrorAtOnceOutputOncePerLineAndAtExit)
{
    const auto r = testsupport::runInChild([] {
        // Straight to the descriptor: marks what reached standard output so far.
        const auto mark = [](const char *text) { return write(1, text, strlen(text)); };
        zarnet::uerr << "abc";
        mark("[before flush]");
        zarnet::uerr << std::endl << "two" << std::endl;
        zarnet::uerr.flush(); // nothing pending: must not repeat "two"
        mark("[after flush]");
        zarnet::uerr << "partial";
        return 3;
    });
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "abc\ntwo\npartial");
    EXPECT_EQ(r.out, "[before flush]abc\ntwo\n[after flush]partial");
}
