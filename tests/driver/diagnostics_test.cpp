#include "diagnostics/diagnostics.h"

#include <gtest/gtest.h>

#include <sstream>

namespace fwforge {
namespace {

TEST(Diagnostics, FatalReportPrintsAfterAnEmptyLineAndThrows) {
    for (const char* message : {"Out of memory", "Cannot open script file", ""}) {
        std::ostringstream out;
        Diagnostics diag(out);
        diag.Print("progress");
        try {
            diag.Report(message, Severity::Fatal);
            ADD_FAILURE() << "a fatal report returned";
        } catch (const FatalError& e) {
            EXPECT_STREQ(e.what(), message);
        }
        EXPECT_EQ(out.str(), std::string("progress\nFATAL ERROR: ") + message + "\n");
        EXPECT_EQ(diag.ErrorCount, 0);
        EXPECT_EQ(diag.WarningCount, 0);
    }
    std::ostringstream out;
    Diagnostics diag(out);
    EXPECT_THROW(diag.Fatal("Out of memory"), FatalError);
    EXPECT_EQ(out.str(), "\nFATAL ERROR: Out of memory\n");
}

TEST(Diagnostics, ErrorsAndWarningsCountAndReturn) {
    std::ostringstream out;
    Diagnostics diag(out);
    diag.PrintRunSummary();
    EXPECT_EQ(out.str(), "\nThere were 0 errors and 0 warnings\n");
    out.str("");
    diag.Report("first", Severity::Warning);
    diag.Report("second", Severity::Error);
    diag.Report("third", Severity::Warning);
    diag.PrintRunSummary();
    EXPECT_EQ(out.str(),
              "\nWARNING: first\n"
              "\nERROR: second\n"
              "\nWARNING: third\n"
              "\nThere were 1 errors and 2 warnings\n");
    // The counters are 16 bits wide and wrap.
    for (int i = 0; i < 65535; ++i) diag.Report("e", Severity::Error);
    out.str("");
    diag.PrintRunSummary();
    EXPECT_EQ(out.str(), "\nThere were 0 errors and 2 warnings\n");
}

TEST(Diagnostics, PrintfFormatsWithoutAFixedBuffer) {
    std::ostringstream out;
    Diagnostics diag(out);
    const std::string long_path(2000, 'p');
    diag.Printf("Parsing %s...\n", long_path.c_str());
    diag.Printf(" Inserting %s as module id %02X", "a.bin", 0x1B);
    EXPECT_EQ(out.str(), "Parsing " + long_path + "...\n Inserting a.bin as module id 1B");
}

}  // namespace
}  // namespace fwforge
