// [init], [bios], [romimage], the end-of-script check and the boot block stamp.

#include <string>

#include "platform/byte_order.h"
#include "script/script_fixture.h"

namespace fwforge::script_test {
namespace {

// kBios with line `index` (0 = header) replaced.
std::vector<std::string> BiosWith(std::size_t index, const std::string& line) {
    std::vector<std::string> bios = kBios;
    bios[index] = line;
    return bios;
}

std::vector<std::string> BiosSizes(const std::string& size, const std::string& bbsize,
                                   const std::string& nvramsize, const std::string& maxebb = "") {
    std::vector<std::string> bios = {"[bios]",
                                     "file = rom.bin",
                                     "size = " + size,
                                     "bbsize = " + bbsize,
                                     "nvramsize = " + nvramsize,
                                     "tag = bios1"};
    if (!maxebb.empty()) bios.push_back("maxebbsize = " + maxebb);
    return bios;
}

using SettingsTest = ScriptTest;

TEST_F(SettingsTest, ChecksAndMessages) {
    std::vector<std::string> twenty_lines = Join({{"[init]", "file = bb.bin"}, kBios});
    while (twenty_lines.size() < 20) twenty_lines.push_back("// padding");
    const FatalCase cases[] = {
        {"checksumoffset", {"[init]", "file = bb.bin", "checksumoffset = zz"}, kEightDigit, 3},
        {"biostagoffset", {"[init]", "biostagoffset = 0x", "file = bb.bin"}, kEightDigit, 2},
        {"nvramsize", BiosWith(4, "nvramsize = -"), kEightDigit, 5},
        {"bbsize", BiosWith(3, "bbsize = g0"), kEightDigit, 4},
        {"maxebbsize", Join({kBios, {"maxebbsize = 0xg"}}), kEightDigit, 7},
        {"size", BiosWith(2, "size = ="), kEightDigit, 3},
        {"version", Join({{"[romimage]", "version = zz"}}), "Expected 0 or 1 value.  ", 2},
        {"version 0x", Join({{"[romimage]", "", "version = 0x"}}), "Expected 0 or 1 value.  ", 3},
        {"force32", Join({{"[romimage]", "force32 = on"}}), "Expected 'yes' or 'no'.  ", 2},
        {"force32 prefix", Join({{"[romimage]", "force32 = yess"}}), "Expected 'yes' or 'no'.  ",
         2},
        {"tag of 12 characters", BiosWith(5, "tag = abcdefghijkl"),
         "BIOS tag must be at most 11 characters.  ", 6},
        {"[init] without file", Join({{"[init]", "checksumoffset = 0"}, kBios}),
         "Expected one of the following keywords: File. ", 3},
        {"[init] without file at the end",
         Join({kBios, kModule, {"[init]", "checksumoffset = 0", ""}}),
         "Expected one of the following keywords: File. ", 14},
        {"[init] file from an earlier section does not count",
         Join({{"[init]", "file = bb.bin", "[init]"}, kBios}),
         "Expected one of the following keywords: File. ", 4},
        {"[bios] without tag, last section", Join({kModule, BiosWith(5, "")}), kBiosKeys, 11},
        {"[bios] cut short by the end of the script", Join({kModule, {"[bios]", "file = rom.bin"}}),
         kBiosKeys, 7},
        {"[bios] without size", Join({BiosWith(2, ""), kModule}), kBiosKeys, 7},
        {"[bios] without file", Join({BiosWith(1, "// x"), kModule}), kBiosKeys, 2},
        {"[bios] without bbsize", Join({BiosWith(3, ""), kModule}), kBiosKeys, 7},
        {"[bios] without nvramsize", Join({BiosWith(4, ""), kModule}), kBiosKeys, 7},
        {"tag from an earlier [bios] does not count",
         Join({kBios, {"[bios]", "file = rom.bin", "size = 00080000"}, kModule}), kBiosKeys, 10},
        {"only [init] and [bios], 20 lines", twenty_lines, kTopLevel, 20},
        {"no [module]", kBios, kTopLevel, 6},
        {"no [bios]", kModule, kTopLevel, 4},
        {"no [bios], trailing empty lines", Join({kModule, {"", ""}}), kTopLevel, 6},
        {"sizes add up to the limit",
         Join({BiosSizes("00080000", "00070000", "00010000"), kModule}),
         "Sum of Nvram and Boot Block must be smaller than total BIOS size", 0},
        {"sizes add up to 0x7FFD8", Join({BiosSizes("00080000", "00070000", "0000ffd8"), kModule}),
         "Sum of Nvram and Boot Block must be smaller than total BIOS size", 0},
        {"EBB counts in the sum",
         Join({BiosSizes("00080000", "00010000", "00004000", "0006bfd8"), kModule}),
         "Sum of Nvram and Boot Block must be smaller than total BIOS size", 0},
        {"size 10 wraps the bound to ffffffe8, which a larger sum still reaches",
         Join({BiosSizes("00000010", "fffffff0", "00000008"), kModule}),
         "Sum of Nvram and Boot Block must be smaller than total BIOS size", 0},
        {"2 MB without [romimage]", Join({BiosSizes("00200000", "00010000", "00004000"), kModule}),
         "[ROMIMAGE] keyword tag VERSION required for BIOS greater than 1MB", 0},
        {"2 MB, last [romimage] without version",
         Join({{"[romimage]", "version = 1", "[romimage]", "force32 = no"},
               BiosSizes("00200000", "00010000", "00004000"),
               kModule}),
         "[ROMIMAGE] keyword tag VERSION required for BIOS greater than 1MB", 0},
    };
    ExpectFatalCases(cases);
}

// The defaults that the value table below does not show.
TEST_F(SettingsTest, Defaults) {
    const ParseResult r = ParseLines(Join({kBios, kModule}));
    ASSERT_FALSE(r.fatal) << r.console;
    const BuildDescription& d = r.description;
    EXPECT_EQ(d.Init.BootBlockFile, "");
    EXPECT_EQ(d.Init.BiosTagOffset, 0x0000FFE0u);
    EXPECT_EQ(d.Bios.BootBlockSize, 0x10000u);
    EXPECT_EQ(d.ModuleHeaderExtension, 8);
    EXPECT_EQ(d.MainHeaderExtension, 10);
    EXPECT_EQ(d.BootBlockStamp, 0u);
}

TEST_F(SettingsTest, ValuesAndConsoleLines) {
    struct Case {
        std::string name;
        std::vector<std::string> lines;
        std::string console;  // after the "Parsing" line
        std::uint32_t BiosSize, NvramSize, MaxEbbSize, ChecksumOffset;
        std::uint8_t version, flags;
        std::string tag;
    } cases[] = {
        {"eight-digit forms",
         Join({{"[init]", "file = bb.bin", "checksumoffset = 0000c000"},
               BiosSizes("000800001", "00010000", "10", "0x1000")}),
         "", 0x80000, 0x10, 0x1000, 0xC000, 0, 0, "BIOS1"},
        {"11-character tag", Join({BiosWith(5, "tag = AbcDefGhiJk")}), "", 0x80000, 0x4000, 0,
         0xE000, 0, 0, "ABCDEFGHIJK"},
        {"sum just below the limit", BiosSizes("00080000", "00070000", "0000ffd7"), "", 0x80000,
         0xFFD7, 0, 0xE000, 0, 0, "BIOS1"},
        // The image build decides these (its NVRAM phase sums without overflow).
        {"sum that wraps past 4 GB", BiosSizes("00080000", "ffffffff", "00000002"), "", 0x80000,
         2, 0, 0xE000, 0, 0, "BIOS1"},
        {"size below 40, so that the bound wraps", BiosSizes("00000027", "00000000", "00000000"),
         "", 0x27, 0, 0, 0xE000, 0, 0, "BIOS1"},
        {"version 101 keeps its low byte", Join({{"[romimage]", "version = 101"}, kBios}),
         "ROM Image Version: 1\n", 0x80000, 0x4000, 0, 0xE000, 1, 0, "BIOS1"},
        {"version 1f", Join({{"[romimage]", "version = 0x1f"}, kBios}), "ROM Image Version: 1f\n",
         0x80000, 0x4000, 0, 0xE000, 0x1F, 0, "BIOS1"},
        {"force32 YES", Join({{"[romimage]", "force32 = YES"}, kBios}),
         "\nFORCING 32BIT OPERATION\n", 0x80000, 0x4000, 0, 0xE000, 0, 1, "BIOS1"},
        {"force32 no", Join({{"[romimage]", "force32 = no"}, kBios}), "", 0x80000, 0x4000, 0,
         0xE000, 0, 0, "BIOS1"},
        {"2 MB with version 1",
         Join({{"[romimage]", "version = 1"}, BiosSizes("00200000", "00010000", "00004000")}),
         "ROM Image Version: 1\n\nUsing 32-bit 1MB+ mode\n", 0x200000, 0x4000, 0, 0xE000, 1, 1,
         "BIOS1"},
        {"exactly 1 MB stays ordinary", BiosSizes("00100000", "00010000", "00004000"), "", 0x100000,
         0x4000, 0, 0xE000, 0, 0, "BIOS1"},
        {"bbsize and nvramsize of an earlier [bios] count",
         Join({kBios, {"[bios]", "file = rom.bin", "size = 00090000", "tag = b2"}}), "", 0x90000,
         0x4000, 0, 0xE000, 0, 0, "B2"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ParseResult r = ParseLines(Join({c.lines, kModule}));
        ASSERT_FALSE(r.fatal) << r.console;
        EXPECT_EQ(r.console, "Parsing " + script_path_ + "...\n" + c.console);
        const BuildDescription& d = r.description;
        EXPECT_EQ(d.Bios.BiosSize, c.BiosSize);
        EXPECT_EQ(d.Bios.NvramSize, c.NvramSize);
        EXPECT_EQ(d.Bios.MaxEbbSize, c.MaxEbbSize);
        EXPECT_EQ(d.Init.ChecksumOffset, c.ChecksumOffset);
        EXPECT_EQ(d.RomImage.RomImageVersion, c.version);
        EXPECT_EQ(d.RomImage.RomImageFlags, c.flags);
        EXPECT_EQ(d.RomImage.Use32BitMode, c.flags != 0);
        EXPECT_EQ(d.Bios.BiosTag, c.tag);
    }
}

// A boot block file whose segment table has the given (address, length word) entries.
std::string BootBlockFile(std::uint16_t data_offset,
                          const std::vector<std::pair<std::uint32_t, std::uint32_t>>& entries,
                          std::size_t size) {
    std::string bytes(size, '\0');
    auto* p = reinterpret_cast<std::uint8_t*>(bytes.data());
    p[0] = static_cast<std::uint8_t>(entries.size() - 1);
    store_le16(p + 2, data_offset);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (4 + 8 * i + 8 > size) break;
        store_le32(p + 4 + 8 * i, entries[i].first);
        store_le32(p + 8 + 8 * i, entries[i].second);
    }
    return bytes;
}

std::vector<std::string> StampModule(const std::string& file) {
    return {"[module]", "moduleid = 1b", "file = " + file, "destn = f000:0000"};
}

// The stamp is read after the section, and after the comment and section that follow.
TEST_F(SettingsTest, BootBlockStampFromModule1B) {
    // The worked example: entry 0 carries 0x10000 bytes of stored data, so the stamp
    // segment's data starts at 0x20 + 0x10000 and the stamp lies 0xF408 into it.
    std::string example = BootBlockFile(0x20, {{0xE0000, 0x80010000}, {0xF0000, 0x1234}}, 0x1F42C);
    store_le32(reinterpret_cast<std::uint8_t*>(&example[0x1F428]), 0xCAFEF00D);
    // Bit 31 clear: the segment's data is not in the file and takes no room.
    std::string unstored = BootBlockFile(0x10, {{0xE0000, 0x00010000}, {0xF0000, 0}}, 0xF41C);
    store_le32(reinterpret_cast<std::uint8_t*>(&unstored[0xF418]), 0x11223344);
    const std::string kCannotRead = "Cannot read from boot block file";
    struct Case {
        std::string name, bytes;
        std::uint32_t stamp;
        std::string message;  // empty: no fatal report
    } cases[] = {
        {"worked example", example, 0xCAFEF00D, ""},
        {"data not stored", unstored, 0x11223344, ""},
        {"no stamp segment", BootBlockFile(0x20, {{0xE0000, 0x80000010}}, 0x40), 0, ""},
        {"empty file", "", 0, kCannotRead},
        {"header cut short", std::string(3, '\0'), 0, kCannotRead},
        {"table longer than the file", BootBlockFile(0x20, {{1, 0}, {2, 0}, {3, 0}}, 20), 0,
         kCannotRead},
        {"stamp beyond the end", BootBlockFile(0x20, {{0xF0000, 0}}, 0xF42B), 0, kCannotRead},
        {"stored lengths push the stamp far out",
         BootBlockFile(0xFFFF, {{0xE0000, 0xFFFFFFFF}, {0xE0000, 0xFFFFFFFF}, {0xF0000, 0}}, 64), 0,
         kCannotRead},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string file = dir_.WriteBytes("bb.bin", c.bytes);
        const ParseResult r = ParseLines(Join({kBios, StampModule(file), {"// x"}, kModule}));
        if (!c.message.empty()) {
            ExpectFatal(r, c.message);
            continue;
        }
        ASSERT_FALSE(r.fatal) << r.console;
        EXPECT_EQ(r.description.BootBlockStamp, c.stamp);
    }
    ExpectFatal(ParseLines(Join({kBios, StampModule(dir_.Path("missing.bin"))})),
                "Cannot open boot block file");
}

}  // namespace
}  // namespace fwforge::script_test
