#include "driver/main_flow.h"

#include <gtest/gtest.h>

#include <sstream>

namespace fwforge {
namespace {

const char* const kBanner =
    "ZELBIOS FWFORGE Version 3.33 (STRATA 2)\n"
    "Copyright (C) The FWFORGE Project. All rights reserved.\n\n";

TEST(MainFlow, TooFewArgumentsPrintUsageAndFail) {
    for (int argc : {1, 2}) {
        const char* argv[] = {"fwforge", "out", nullptr};
        std::ostringstream out;
        EXPECT_EQ(RunMainFlow(argc, argv, out), 1);
        EXPECT_EQ(out.str(), std::string(kBanner) +
                                 "Usage - FWFORGE OutputPath ScriptFile [-v] [-c]\n"
                                 "    -v  be verbose\n"
                                 "    -c  produce compatability mode main BIOS header\n");
    }
}

}  // namespace
}  // namespace fwforge
