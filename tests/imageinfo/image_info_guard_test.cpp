// The script reader keeps the counters of the build description consistent with its
// tables; the image information refuses a description that is not, rather than write
// items it has no slot for. No build script can produce one, so no golden case reaches it.

#include <gtest/gtest.h>

#include <sstream>

#include "imageinfo/image_info.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

TEST(ImageInformation, RefusesCountersThatDoNotMatchTheTables) {
    struct Case {
        std::uint32_t script_holes, reservations, hole_count, fixed_count;
        const char* fatal;  // "" when the module is built
    } cases[] = {
        {2, 1, 3, 1, ""},
        {2, 0, 2, 1,
         "Image information: 2 ROMHOLE/NCB records do not match RomHoleCount 2 and "
         "FixedModuleCount 1"},
        {0, 1, 1, 2,
         "Image information: 0 ROMHOLE/NCB records do not match RomHoleCount 1 and "
         "FixedModuleCount 2"},
    };
    for (const Case& c : cases) {
        testing::TempDir dir;
        std::ostringstream console;
        BuildContext ctx(console);
        ctx.options.OutputPath = dir.path().string();
        ctx.description.Bios.BiosTag = "G";
        BuildDescription& d = ctx.description;
        for (std::uint32_t i = 0; i < c.script_holes + c.reservations; ++i) {
            d.RomHoleTable[i].OwnerModule = i < c.script_holes ? kNoIndex : 0;
        }
        d.RomHoleCount = c.hole_count;
        d.FixedModuleCount = c.fixed_count;
        std::string fatal;
        try {
            BuildImageInfoModule(ctx);
        } catch (const FatalError& e) {
            fatal = e.what();
        }
        EXPECT_EQ(fatal, c.fatal);
    }
}

}  // namespace
}  // namespace fwforge
