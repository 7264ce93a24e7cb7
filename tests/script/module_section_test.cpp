// The [module] section: value forms, end-of-section checks, link moves, reservations,
// the Extended Boot Block hand-off and the table limits.

#include <string>

#include "platform/byte_order.h"
#include "script/script_fixture.h"

// Case tables leave the fields that keep their default value out.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace fwforge::script_test {
namespace {

const std::string kTwoDigit = "Expected two digit hex number (i.e. 00 - FF).  ";
const std::string kFourDigit = "Expected four digit hex number (i.e. 0000 - FFFF).  ";
const std::string kSegOff = "Expected segment:offset (i.e. xxxx:yyyy).  ";
const std::string kYesNo = "Expected 'yes' or 'no'.  ";
const std::string kAddOnKeys =
    "Expected one of the following keywords: File, ModuleId, VendorId, or DeviceId. ";
const std::string kLinkKeys =
    "Expected one of the following keywords: ModuleId, VendorId, "
    "DeviceId, LinkVenId, or LinkDevId. ";

// kBios (lines 1-6), then a [module] header (line 7) and `keys` from line 8.
std::vector<std::string> Module(const std::vector<std::string>& keys) {
    return Join({kBios, {"[module]"}, keys});
}
// A plain module with one more key (line 11).
std::vector<std::string> PlainWith(const std::string& key) {
    return Module({"file = post.bin", "moduleid = 08", "destn = f000:8000", key});
}
std::vector<std::string> AddOn(const std::string& vendor, const std::string& device,
                               const std::string& file = "rom.bin") {
    return {"[module]", "file = " + file, "moduleid = 20", "vendorid = " + vendor,
            "deviceid = " + device};
}
std::vector<std::string> Link(const std::string& vendor, const std::string& device,
                              const std::string& file = "") {
    std::vector<std::string> lines = {
        "[module]",        "moduleid = 20",         "vendorid = 9999",
        "deviceid = 0001", "linkvenid = " + vendor, "linkdevid = " + device,
        "link = yes"};
    if (!file.empty()) lines.push_back("file = " + file);
    return lines;
}
std::vector<std::string> Plain(const std::string& file) {
    return {"[module]", "file = " + file, "moduleid = 08", "destn = f000:0000"};
}
using ModuleSectionTest = ScriptTest;

TEST_F(ModuleSectionTest, KeyValueErrors) {
    const FatalCase cases[] = {
        {"moduleid 100", Module({"moduleid = 100"}), kTwoDigit, 8},
        {"moduleid -1", Module({"moduleid = -1"}), kTwoDigit, 8},
        {"moduleid zz", Module({"file = a", "moduleid = zz"}), kTwoDigit, 9},
        {"destn without colon", Module({"destn = f000-8000"}), kSegOff, 8},
        {"destn run together", Module({"destn = f0008000"}), kSegOff, 8},
        {"destn too short", Module({"destn = f000:800"}), kSegOff, 8},
        {"destn too long", Module({"destn = f000:80000"}), kSegOff, 8},
        {"destn colon misplaced", Module({"destn = f00:08000"}), kSegOff, 8},
        {"destn bad segment", Module({"destn = zzzz:8000"}), kSegOff, 8},
        {"destn bad offset", Module({"destn = f000:0x"}), kSegOff, 8},
        {"compressed", PlainWith("compressed = maybe"), "Expected 'yes', 'no' or 'minsize'.  ", 11},
        {"vendorid 123", PlainWith("vendorid = 123"), kFourDigit, 11},
        {"vendorid 01234", PlainWith("vendorid = 01234"), kFourDigit, 11},
        {"deviceid zzzz", PlainWith("deviceid = zzzz"), kFourDigit, 11},
        {"linkvenid 0x", PlainWith("linkvenid = 0xg1"), kFourDigit, 11},
        {"linkdevid", PlainWith("linkdevid = 1"), kFourDigit, 11},
        {"link", PlainWith("link = 1"), kYesNo, 11},
        {"second link is checked too", PlainWith("link = no link = maybe"), kYesNo, 11},
        {"maxmodulesize", PlainWith("maxmodulesize = size"), kEightDigit, 11},
        {"contiguous", PlainWith("contiguous = y"), kYesNo, 11},
        {"alignment 100", PlainWith("alignment = 100"), kTwoDigit, 11},
        {"nowcompressed", PlainWith("nowcompressed = yes!"), kYesNo, 11},
        {"romregion of 64 characters", PlainWith("romregion = " + std::string(64, 'n')),
         "Name must be at most 63 characters.  ", 11},
        {"startaddress zz", PlainWith("startaddress = zz"), kAddress, 11},
        {"startaddress not dword aligned", PlainWith("startaddress = 000e0002"),
         "Module StartAddress must be DWORD aligned.  ", 11},
    };
    ExpectFatalCases(cases);
}

TEST_F(ModuleSectionTest, EndOfSectionErrors) {
    const std::vector<std::string> fixed = {"file = post.bin", "moduleid = 08", "destn = f000:8000",
                                            "startaddress = 000f0000"};
    const FatalCase cases[] = {
        {"alignment with startaddress", Module(Join({fixed, {"alignment = 10"}})),
         "Alignment tag and StartAddress tag not mutually supported. ", 13},
        {"alignment 4 still conflicts", Module(Join({fixed, {"alignment = 4", "", "//"}})),
         "Alignment tag and StartAddress tag not mutually supported. ", 14},
        {"romregion with startaddress", Module(Join({fixed, {"romregion = ebb"}})),
         "StartAddress tag not supported for NCB module.  ", 13},
        {"link with startaddress", Module(Join({fixed, {"link = no"}})),
         "StartAddress tag not supported for Option Rom Link.  ", 13},
        {"alignment with romregion", PlainWith("alignment = 2 romregion = setup"),
         "Alignment tag not supported for Non-Critical Block modules. ", 12},
        {"plain module without destn", Module({"file = a", "moduleid = 08"}), kModuleKeys, 10},
        {"plain module without moduleid", Module({"file = a", "destn = f000:0000"}), kModuleKeys,
         10},
        {"plain module without file", Module({"moduleid = 08", "destn = f000:0000"}), kModuleKeys,
         10},
        {"empty module section", Join({kBios, {"[module]", "[module]"}}), kModuleKeys, 8},
        {"add-on ROM without file",
         Join({kBios, {"[module]", "moduleid = 20", "vendorid = 1000", "deviceid = 0001"}}),
         kAddOnKeys, 11},
        {"add-on ROM with destn instead of ids",
         Module({"file = a", "moduleid = 20", "destn = 1000:0001"}), kAddOnKeys, 11},
        {"link without linkdevid",
         Join({kBios,
               AddOn("1000", "0001"),
               {"[module]", "moduleid = 20", "vendorid = 0001", "deviceid = 0002",
                "linkvenid = 1000", "link = yes"}}),
         kLinkKeys, 18},
        {"link = no still needs the link keys",
         Join({kBios,
               AddOn("1000", "0001"),
               {"[module]", "file = x", "moduleid = 20", "vendorid = 0001", "deviceid = 0002",
                "link = no"}}),
         kLinkKeys, 18},
        {"link without parent", Join({kBios, Link("1000", "0001")}),
         "Cannot find parent of linked addon-rom. ", 14},
        {"link whose parent comes later",
         Join({kBios, Link("1000", "0001"), AddOn("1000", "0001")}),
         "Cannot find parent of linked addon-rom. ", 14},
        {"255th module", Join({kBios, Repeat(Plain("m.bin"), 255)}),
         "Maximum number of MODULEs exceeded.  ", 6 + 255 * 4 + 1},
        {"11th EBB module",
         Join({kBios, Repeat({"[module]", "file = e.bin", "moduleid = 08", "destn = f000:0000",
                              "romregion = ebb"},
                             11)}),
         "Maximum number of EBB modules exceeded.  ", 6 + 11 * 5 + 1},
        {"17th reservation",
         Join({kBios, Repeat({"[module]", "file = f.bin", "moduleid = 08", "destn = f000:0000",
                              "startaddress = 000f0000"},
                             17)}),
         "Maximum number of ROMHOLEs, NCBs or MODULEs with StartAddress exceeded", 0},
        {"17th reservation in one section",
         Module(Join({{"file = f.bin", "moduleid = 08", "destn = f000:0000"},
                      Repeat({"startaddress = 000f0000"}, 17)})),
         "Maximum number of ROMHOLEs, NCBs or MODULEs with StartAddress exceeded", 0},
    };
    ExpectFatalCases(cases);
}

// The header image is byte for byte what goes into the image. Expected values default
// to those of the plain module the keys are added to.
TEST_F(ModuleSectionTest, KeyEffects) {
    struct Case {
        std::string name;
        std::vector<std::string> keys;
        std::uint8_t id = 8, attributes = 0, contiguous = 0, alignment = 0, compression = 0,
                     constrained = 0;
        std::uint16_t dest_segment = 0xF000, dest_offset = 0x8000;
        std::uint32_t max_size = 0;
        std::string region;
    } cases[] = {
        {.name = "no more keys", .keys = {}},
        {.name = "moduleid 1", .keys = {"moduleid = 1"}, .id = 1},
        {.name = "moduleid 0001", .keys = {"moduleid = 0001"}, .id = 1},
        {.name = "moduleid ff", .keys = {"moduleid = 0xff"}, .id = 0xFF},
        {.name = "compressed yes", .keys = {"compressed = yes"}},
        {.name = "compressed no", .keys = {"compressed = no"}, .attributes = 0x80, .contiguous = 1},
        {.name = "compressed minsize", .keys = {"compressed = MinSize"}, .compression = 2},
        {.name = "contiguous yes",
         .keys = {"contiguous = yes"},
         .attributes = 0x10,
         .contiguous = 1},
        {.name = "contiguous no beats compressed no",
         .keys = {"compressed = no", "contiguous = no"},
         .attributes = 0x80},
        {.name = "alignment 4 is none", .keys = {"alignment = 4"}},
        {.name = "alignment 10", .keys = {"alignment = 10"}, .alignment = 0x10, .constrained = 1},
        {.name = "alignment 5", .keys = {"alignment = 5"}, .alignment = 5, .constrained = 1},
        {.name = "two alignments both count",
         .keys = {"alignment = 10", "alignment = 20"},
         .alignment = 0x20,
         .constrained = 2},
        {.name = "nowcompressed yes", .keys = {"nowcompressed = yes"}, .compression = 1},
        {.name = "maxmodulesize", .keys = {"maxmodulesize = 000123456"}, .max_size = 0x12345},
        {.name = "destn overwritten by ids",
         .keys = {"vendorid = 8086", "deviceid = 1234"},
         .dest_segment = 0x1234,
         .dest_offset = 0x8086},
        {.name = "four-digit forms",
         .keys = {"vendorid = 0x12", "deviceid = -001"},
         .dest_segment = 0xFFFF,
         .dest_offset = 0x12},
        {.name = "romregion", .keys = {"romregion = Setup"}, .region = "SETUP"},
        {.name = "romregion ebb2", .keys = {"romregion = ebb2"}, .region = "EBB2"},
        {.name = "romregion of 63 characters",
         .keys = {"romregion = " + std::string(63, 'r')},
         .region = std::string(63, 'R')},
        {.name = "link = no", .keys = {"link = no"}},
        {.name = "link = yes on a plain module", .keys = {"link = yes"}, .attributes = 0x40},
        {.name = "only the first link counts", .keys = {"link = no", "link = yes"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ParseResult r = ParseLines(
            Module(Join({{"file = Post.bin", "moduleid = 08", "destn = f000:8000"}, c.keys})));
        ASSERT_FALSE(r.fatal) << r.console;
        ASSERT_EQ(r.description.ModuleCount, 1u);
        const ModuleEntry& m = r.description.ModuleTable[0];
        EXPECT_EQ(m.FileName, "post.bin");
        std::array<std::uint8_t, 20> header{};
        header[14] = c.id;
        header[15] = c.attributes;
        store_le16(&header[16], c.dest_offset);
        store_le16(&header[18], c.dest_segment);
        EXPECT_EQ(m.Header.bytes, header);
        EXPECT_EQ(m.Contiguous, c.contiguous);
        EXPECT_EQ(m.Alignment, c.alignment);
        EXPECT_EQ(m.CompressionFlags, c.compression);
        EXPECT_EQ(r.description.ConstrainedModuleCount, c.constrained);
        EXPECT_EQ(m.MaxModuleSize, c.max_size);
        EXPECT_EQ(m.RomRegion, c.region);
        EXPECT_EQ(m.LinkVendorId, 0xFFFF);
        EXPECT_EQ(m.LinkDeviceId, 0xFFFF);
        EXPECT_EQ(m.StartAddress, 0xFFFFFFFFu);
        EXPECT_EQ(m.RomHoleIndex, 0xFF);
        EXPECT_EQ(r.description.RomHoleCount, 0u);
    }
}

TEST_F(ModuleSectionTest, StartAddressMakesAReservation) {
    const ParseResult r = ParseLines(
        Join({kBios,
              Plain("a.bin"),
              {"[module]", "file = b.bin", "moduleid = 09", "destn = f000:0000",
               "startaddress = 000ff020", "startaddress = 0x000e0004", "contiguous = no"}}));
    ASSERT_FALSE(r.fatal) << r.console;
    const BuildDescription& d = r.description;
    ASSERT_EQ(d.ModuleCount, 2u);
    const ModuleEntry& m = d.ModuleTable[1];
    // Every key makes a reservation; the module keeps the last one.
    EXPECT_EQ(m.StartAddress, 0x000E0004u);
    EXPECT_EQ(m.HeaderAddress, 0x000DFFF0u);
    EXPECT_EQ(m.RomHoleIndex, 1);
    EXPECT_EQ(m.Contiguous, 0);  // the later key wins
    EXPECT_EQ(d.RomHoleCount, 2u);
    EXPECT_EQ(d.FixedModuleCount, 2u);
    EXPECT_EQ(d.ConstrainedModuleCount, 2);
    EXPECT_EQ(d.RomHoleTable[0].StartAddress, 0x000FF000u);
    EXPECT_EQ(d.RomHoleTable[1].StartAddress, 0x000DFFF0u);
    for (const RomHoleEntry& hole : {d.RomHoleTable[0], d.RomHoleTable[1]}) {
        EXPECT_EQ(hole.Size, 0u);
        EXPECT_EQ(hole.Filler, 0x00);
        EXPECT_EQ(hole.OwnerModule, 1);
        EXPECT_EQ(hole.FileName, "");
        EXPECT_EQ(hole.Name, "");
    }
    // Reservations alone are no ROM holes.
    EXPECT_EQ(d.RomImage.RomImageFlags, 0);

    const ParseResult single = ParseLines(Join({kBios,
                                                {"[module]", "file = b.bin", "moduleid = 09",
                                                 "destn = f000:0000", "startaddress = 000ff020"}}));
    ASSERT_FALSE(single.fatal) << single.console;
    const ModuleEntry& s = single.description.ModuleTable[0];
    EXPECT_EQ(s.StartAddress, 0x000FF020u);
    EXPECT_EQ(s.HeaderAddress, 0x000FF00Cu);
    EXPECT_EQ(s.Contiguous, 1);
    EXPECT_EQ(s.RomHoleIndex, 0);
    EXPECT_EQ(single.description.RomHoleTable[0].StartAddress, 0x000FF000u);
    EXPECT_EQ(single.description.RomHoleTable[0].OwnerModule, 0);

    // Below address 20 the header address wraps to the top of the 32-bit space.
    const ParseResult low = ParseLines(Join({kBios,
                                             {"[module]", "file = b.bin", "moduleid = 09",
                                              "destn = f000:0000", "startaddress = 00000010"}}));
    ASSERT_FALSE(low.fatal) << low.console;
    EXPECT_EQ(low.description.ModuleTable[0].HeaderAddress, 0xFFFFFFFCu);
    EXPECT_EQ(low.description.RomHoleTable[0].StartAddress, 0xFFFFFFF0u);

    // Sixteen reservations fill the table.
    const ParseResult sixteen =
        ParseLines(Join({kBios, Repeat({"[module]", "file = f.bin", "moduleid = 08",
                                        "destn = f000:0000", "startaddress = 00000014"},
                                       16)}));
    ASSERT_FALSE(sixteen.fatal) << sixteen.console;
    EXPECT_EQ(sixteen.description.RomHoleCount, 16u);
    EXPECT_EQ(sixteen.description.RomHoleTable[15].OwnerModule, 15);
    EXPECT_EQ(sixteen.description.RomHoleTable[15].StartAddress, 0u);
}

std::vector<std::string> Files(const BuildDescription& d) {
    std::vector<std::string> files;
    for (std::uint32_t i = 0; i < d.ModuleCount; ++i) files.push_back(d.ModuleTable[i].FileName);
    return files;
}

TEST_F(ModuleSectionTest, LinkedRomsFollowTheirParentNewestFirst) {
    struct Case {
        std::string name;
        std::vector<std::string> lines;
        std::vector<std::string> order;
    } cases[] = {
        {"P, X, L1, L2",
         Join({kBios, AddOn("1000", "0001", "p"), Plain("x"), Link("1000", "0001", "l1"),
               Link("1000", "0001", "l2")}),
         {"p", "l2", "l1", "x"}},
        {"parent last",
         Join({kBios, Plain("x"), AddOn("1000", "0001", "p"), Link("1000", "0001", "l1")}),
         {"x", "p", "l1"}},
        {"first matching parent wins, any module id",
         Join({kBios,
               Plain("a"),
               {"[module]", "file = q", "moduleid = 08", "destn = 0001:1000"},
               AddOn("1000", "0001", "p"),
               Link("1000", "0001", "l")}),
         {"a", "q", "l", "p"}},
        {"link needs no file",
         Join({kBios, AddOn("1000", "0001", "p"), Plain("x"), Link("1000", "0001")}),
         {"p", "", "x"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ParseResult r = ParseLines(c.lines);
        ASSERT_FALSE(r.fatal) << r.console;
        EXPECT_EQ(Files(r.description), c.order);
    }
}

TEST_F(ModuleSectionTest, EbbModulesLeaveTheModuleTable) {
    const ParseResult r = ParseLines(Join(
        {kBios,
         {"[module]", "file = e1.bin", "moduleid = 11", "destn = f000:1000", "romregion = EBB",
          "compressed = no", "maxmodulesize = 00001000", "nowcompressed = yes"},
         // This section reuses the slot and starts from the defaults.
         {"[module]", "file = x.bin", "moduleid = 08", "destn = f000:0000"},
         {"[module]", "file = e2.bin", "moduleid = 12", "destn = f000:2000", "romregion = ebb"},
         {"[module]", "file = y.bin", "moduleid = 09", "destn = f000:0000", "romregion = ebb2"},
         {"[module]", "file = e3.bin", "moduleid = 13", "destn = f000:3000", "romregion = ebb"}}));
    ASSERT_FALSE(r.fatal) << r.console;
    const BuildDescription& d = r.description;
    EXPECT_EQ(Files(d), (std::vector<std::string>{"x.bin", "y.bin"}));
    EXPECT_EQ(d.ModuleTable[0].Header.ModuleAttributes(), 0);
    EXPECT_EQ(d.ModuleTable[0].CompressionFlags, 0);
    EXPECT_EQ(d.ModuleTable[0].Contiguous, 0);
    EXPECT_EQ(d.ModuleTable[1].RomRegion, "EBB2");
    ASSERT_EQ(d.EbbModuleList.size(), 3u);
    const EbbModuleRecord& e1 = d.EbbModuleList[0];
    EXPECT_EQ(e1.FileName, "e1.bin");
    EXPECT_EQ(e1.Header.ModuleId(), 0x11);
    EXPECT_EQ(e1.Header.ModuleAttributes(), 0x80);
    EXPECT_EQ(e1.Header.DestSegment(), 0xF000);
    EXPECT_EQ(e1.Header.DestOffset(), 0x1000);
    EXPECT_EQ(e1.MaxModuleSize, 0x1000u);
    EXPECT_EQ(e1.CompressionFlags, 0x01);
    EXPECT_EQ(d.EbbModuleList[1].FileName, "e2.bin");
    EXPECT_EQ(d.EbbModuleList[2].FileName, "e3.bin");
    EXPECT_EQ(d.EbbModuleList[2].Header.DestOffset(), 0x3000);

    // Ten fit, and 254 modules of the script fill the table.
    const ParseResult ten = ParseLines(Join({kBios,
                                             Repeat({"[module]", "file = e.bin", "moduleid = 08",
                                                     "destn = f000:0000", "romregion = ebb"},
                                                    10),
                                             Plain("x")}));
    ASSERT_FALSE(ten.fatal) << ten.console;
    EXPECT_EQ(ten.description.EbbModuleList.size(), 10u);
    EXPECT_EQ(ten.description.ModuleCount, 1u);
    const ParseResult full = ParseLines(Join({kBios, Repeat(Plain("m.bin"), 254)}));
    ASSERT_FALSE(full.fatal) << full.console;
    EXPECT_EQ(full.description.ModuleCount, 254u);
}

}  // namespace
}  // namespace fwforge::script_test
