#include "utils/Traceback.h"

#include "test_common.h"

#include <sstream>

TEST(Traceback, PrintsFramesAndCopiesPrintIndependently)
{
    const auto printed = [](const zarnet::Traceback &tb) {
        std::ostringstream os;
        return (os << tb, os.str());
    };
    const zarnet::Traceback a;
    const std::string first = printed(a);
    EXPECT_EQ(first.rfind("Traceback:\n\t", 0), 0u) << first;
    EXPECT_EQ(printed(zarnet::Traceback(1000)), "Traceback:\n") << "skipping more than captured";
    // Exceptions are copied when thrown: a copy sharing the original's
    // resolved symbols would free them twice (the sanitizer reports it).
    zarnet::Traceback b(a), c(5);
    c = a;
    EXPECT_EQ(printed(b), first);
    EXPECT_EQ(printed(c), first);
}
