#include "utils/Traceback.h"

#include <gtest/gtest.h>

#include <sstream>

TEST(Traceback, PrintsHeaderAndOneLinePerFrame)
{
    const zarnet::Traceback tb;
    std::ostringstream os;
    os << tb;
    const std::string text = os.str();
    ASSERT_EQ(text.rfind("Traceback:\n", 0), 0u) << text;
    EXPECT_NE(text.find("\n\t"), std::string::npos) << text;
}

TEST(Traceback, SkippingMoreThanCapturedPrintsNoFrames)
{
    const zarnet::Traceback tb(1000);
    std::ostringstream os;
    os << tb;
    EXPECT_EQ(os.str(), "Traceback:\n");
}

TEST(Traceback, CopiesPrintIndependently)
{
    // Exceptions are copied when thrown: a copy must not share the
    // resolved symbols of the original (double free under the sanitizer).
    zarnet::Traceback a;
    std::ostringstream first;
    first << a;
    zarnet::Traceback b(a);
    zarnet::Traceback c(5);
    c = a;
    std::ostringstream second, third;
    second << b;
    third << c;
    EXPECT_EQ(first.str(), second.str());
    EXPECT_EQ(first.str(), third.str());
}
