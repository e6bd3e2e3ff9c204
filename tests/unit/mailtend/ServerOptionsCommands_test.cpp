#include "mailtend/commands.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace zarnet::mail::postfix::mailtend_commands;
using testsupport::runInChild;

TEST(PrintFeature, OnlyExactBooleansBareArraysInPairOrder)
{
    const auto r = runInChild([] {
        print_feature("A", "true");
        print_feature("B", "false");
        print_feature("D", "True");
        print_feature("E", "");
        const char *pairs[] = {"k1", "v1", "k2", "v2"};
        print_feature_array("auth", 2, pairs);
        print_feature_array("none", 0, nullptr);
        return 0;
    });
    EXPECT_EQ(r.out, "$features['A'] = true;\n"
                     "$features['B'] = false;\n"
                     "$features['D'] = \"True\";\n"
                     "$features['E'] = \"\";\n"
                     "$features['auth'] = array('k1'=>'v1','k2'=>'v2',);\n"
                     "$features['none'] = array();\n");
    EXPECT_EQ(r.err, "");
}

TEST(PrintFeatures, UndeliveredReportIsAFailure)
{
    const auto r = runInChild([] {
        if (std::freopen("/dev/full", "w", stdout) == nullptr)
            return 9;
        return printFeatures(ProgramOptionsHelper("", ""));
    });
    EXPECT_EQ(r.status, 1);
}
