#include "mailtend/ServerOptionsCommands.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cstdio>

using testsupport::runInChild;

TEST(PrintFeature, BooleansBareOtherValuesQuoted)
{
    const auto r = runInChild([] {
        print_feature("A", "true");
        print_feature("B", "false");
        print_feature("C", "Postfix");
        print_feature("D", "True"); // only the exact words are PHP booleans
        print_feature("E", "");
        return 0;
    });
    EXPECT_EQ(r.out, "$features['A'] = true;\n"
                     "$features['B'] = false;\n"
                     "$features['C'] = \"Postfix\";\n"
                     "$features['D'] = \"True\";\n"
                     "$features['E'] = \"\";\n");
    EXPECT_EQ(r.err, "");
}

TEST(PrintFeatureArray, PairsInOrder)
{
    const auto r = runInChild([] {
        const char *pairs[] = {"k1", "v1", "k2", "v2"};
        print_feature_array("auth", 2, pairs);
        print_feature_array("none", 0, nullptr);
        return 0;
    });
    EXPECT_EQ(r.out, "$features['auth'] = array('k1'=>'v1','k2'=>'v2',);\n"
                     "$features['none'] = array();\n");
}

TEST(PrintFeatures, UndeliveredReportIsAFailure)
{
    const auto r = runInChild([] {
        if (std::freopen("/dev/full", "w", stdout) == nullptr)
            return 9;
        return zarnet::mail::postfix::mailtend_commands::printFeatures(0, nullptr);
    });
    EXPECT_EQ(r.status, 1);
}
