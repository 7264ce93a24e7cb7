// The [romhole] and [noncriticalrom] sections.

#include <string>

#include "script/script_fixture.h"

// Case tables leave the fields that keep their default value out.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace fwforge::script_test {
namespace {

const std::string kMissing = "Expected one of the following keywords: StartAddres or Size. ";

// kBios and kModule (lines 1-10), then the section header (line 11) and `keys`.
std::vector<std::string> Hole(const std::vector<std::string>& keys,
                              const std::string& header = "[romhole]") {
    return Join({kBios, kModule, {header}, keys});
}
using RomHoleSectionTest = ScriptTest;

TEST_F(RomHoleSectionTest, Errors) {
    const std::vector<std::string> reserved = {"[module]", "file = f.bin", "moduleid = 08",
                                               "destn = f000:0000", "startaddress = 000f0000"};
    const std::vector<std::string> hole = {"[romhole]", "startaddress = 000e0000",
                                           "size = 00001000"};
    const FatalCase cases[] = {
        {"filler 100", Hole({"filler = 100"}), "Expected 2 digit hex number (i.e. 00 - FF).  ", 12},
        {"filler -1", Hole({"filler = -1"}), "Expected 2 digit hex number (i.e. 00 - FF).  ", 12},
        {"filler x", Hole({"filler = x"}), "Expected 2 digit hex number (i.e. 00 - FF).  ", 12},
        {"startaddress zz", Hole({"startaddress = zz"}), kAddress, 12},
        {"startaddress fffe0008", Hole({"startaddress = fffe0008"}),
         "StartAddress must me paragraph aligned.  ", 12},
        {"size 0x", Hole({"startaddress = 000e0000", "size = 0x"}), kAddress, 13},
        {"size 0", Hole({"size = 0"}), "ROMHOLE.Size must be greater than zero.  ", 12},
        {"name of 64 characters", Hole({"name = " + std::string(64, 'n')}),
         "Name must be at most 63 characters.  ", 12},
        {"file in a non-critical block",
         Hole({"name = setup", "file = x.bin", "startaddress = 000e0000", "size = 10"},
              "[noncriticalrom]"),
         "Files not allowed in Non-Critical Blocks. Use a ROMHOLE. ", 16},
        {"file and name beat missing keys", Hole({"file = x.bin", "name = setup"}),
         "Files not allowed in Non-Critical Blocks. Use a ROMHOLE. ", 14},
        {"startaddress without size, last section", Hole({"startaddress = 000e0000"}), kMissing,
         13},
        {"size without startaddress, section ends at a header",
         Join({Hole({"size = 10"}), kModule}), kMissing, 13},
        {"empty [noncriticalrom]", Hole({}, "[noncriticalrom]"), kMissing, 12},
        {"17th record after 16 sections", Join({kBios, kModule, Repeat(hole, 17)}),
         "Maximum number of ROMHOLES exceeded", 0},
        {"17th record after 16 reservations", Join({kBios, Repeat(reserved, 16), hole}),
         "Maximum number of ROMHOLES exceeded", 0},
        {"own checks come before the limit",
         Join({kBios, Repeat(reserved, 16), {"[romhole]", "size = 10"}}), kMissing, 89},
    };
    ExpectFatalCases(cases);
}

TEST_F(RomHoleSectionTest, Records) {
    struct Case {
        std::string name;
        std::string header;
        std::vector<std::string> keys;
        std::uint32_t start, size;
        std::uint8_t filler = 0xFF;
        std::string file, block_name;
    } cases[] = {
        {"size 1", "[romhole]", {"startaddress = fffe0000", "size = 1"}, 0xFFFE0000, 0x10},
        {"size 10", "[romhole]", {"startaddress = 0", "size = 10"}, 0, 0x10},
        {"size 11", "[romhole]", {"startaddress = 0", "size = 11"}, 0, 0x20},
        {"size fffffff0", "[romhole]", {"startaddress = 0", "size = fffffff0"}, 0, 0xFFFFFFF0},
        {"range up to 4 GB", "[romhole]", {"startaddress = fffff000", "size = 1000"}, 0xFFFFF000,
         0x1000},
        // The zero test is on the value as written; the rounding wraps to 0.
        {"size fffffff1", "[romhole]", {"startaddress = 0", "size = fffffff1"}, 0, 0},
        {"size -1", "[romhole]", {"startaddress = 0", "size = -1"}, 0, 0},
        {"range past 4 GB", "[romhole]", {"startaddress = fffff000", "size = 1001"}, 0xFFFFF000,
         0x1010},
        {"filler 0 and a file", "[romhole]",
         {"file = Hole.bin", "filler = 0", "startaddress = 0x000E0000", "size = 00000800"}, 0xE0000,
         0x800, 0x00, "hole.bin"},
        {"filler 5a, keys repeated", "[romhole]",
         {"filler = 11", "filler = 5a", "startaddress = 10", "startaddress = 20", "size = 30"},
         0x20, 0x30, 0x5A},
        {"non-critical block", "[noncriticalrom]",
         {"name = setup", "startaddress = 000d0000", "size = 00010000"}, 0xD0000, 0x10000, 0xFF,
         "", "SETUP"},
        {"[noncriticalrom] without name is a ROM hole", "[noncriticalrom]",
         {"startaddress = 000d0000", "size = 100"}, 0xD0000, 0x100},
        {"[romhole] with name is a block", "[romhole]",
         {"name = Net", "filler = 0", "startaddress = 000d0000", "size = 100"}, 0xD0000, 0x100,
         0x00, "", "NET"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ParseResult r = ParseLines(Hole(c.keys, c.header));
        ASSERT_FALSE(r.fatal) << r.console;
        const BuildDescription& d = r.description;
        ASSERT_EQ(d.RomHoleCount, 1u);
        const RomHoleEntry& h = d.RomHoleTable[0];
        EXPECT_EQ(h.StartAddress, c.start);
        EXPECT_EQ(h.Size, c.size);
        EXPECT_EQ(h.Filler, c.filler);
        EXPECT_EQ(h.FileName, c.file);
        EXPECT_EQ(h.Name, c.block_name);
        EXPECT_EQ(h.OwnerModule, 0xFF);
        EXPECT_EQ(d.RomImage.RomImageFlags, rom_image_flag::HasRomHoles);
    }
}

TEST_F(RomHoleSectionTest, SixteenRecordsAndFlags) {
    const std::vector<std::string> hole = {"[romhole]", "startaddress = 000e0000",
                                           "size = 00001000"};
    const ParseResult r = ParseLines(Join({{"[romimage]", "force32 = yes"},
                                           kBios,
                                           kModule,
                                           Repeat(hole, 15),
                                           {"[module]", "file = f.bin", "moduleid = 08",
                                            "destn = f000:0000", "startaddress = 000f0000"}}));
    ASSERT_FALSE(r.fatal) << r.console;
    EXPECT_EQ(r.description.RomHoleCount, 16u);
    EXPECT_EQ(r.description.FixedModuleCount, 1u);
    EXPECT_EQ(r.description.RomHoleTable[15].OwnerModule, 1);
    EXPECT_EQ(r.description.RomImage.RomImageFlags, 0x03);
}

}  // namespace
}  // namespace fwforge::script_test
