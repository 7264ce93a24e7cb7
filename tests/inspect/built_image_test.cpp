// The inspector on images that fwforge itself builds: they verify clean, extracting
// gives back every module file, rebuild.scr rebuilds them byte for byte, flipped bytes
// are found and named, and diff names the one module that differs.

#include <gtest/gtest.h>

#include <filesystem>

#include "inspect/extract.h"
#include "inspect/test_image.h"
#include "platform/byte_order.h"
#include "support/random_script.h"

namespace fwforge::inspect {
namespace {

namespace fs = std::filesystem;
using fwforge::testing::ReadBytes;
using fwforge::testing::RunFwforge;
using fwforge::testing::TempDir;
using fwforge::testing::WriteBytes;
using fwforge::testing::WriteText;
using fwforge::testing::WithCrLf;
using testing::ExpectFlipFound;
using testing::Inspect;

// Module contents that compress somewhat, like code and tables do.
std::vector<std::uint8_t> Content(std::size_t size, std::uint32_t seed) {
    std::vector<std::uint8_t> v(size);
    const auto noise = fwforge::testing::RandomBytes(size, seed);
    for (std::size_t i = 0; i < size; ++i) {
        v[i] = (i / 7) % 5 == 0 ? noise[i] : static_cast<std::uint8_t>("mov ax, [bx+si]; "[i % 17]);
    }
    return v;
}

// A boot block segment table whose entry at 0F0000 points at the stamp.
std::vector<std::uint8_t> StampModule(std::uint32_t stamp) {
    std::vector<std::uint8_t> v = Content(0x10 + 0xF408 + 8, 77);
    v[0] = 0;  // one entry
    store_le16(&v[2], 0x10);
    store_le32(&v[4], 0x000F0000);
    store_le32(&v[8], 0);
    store_le32(&v[0x10 + 0xF408], stamp);
    return v;
}

struct Variant {
    const char* name;
    std::string bios;     // [bios] and [romimage] lines
    std::string modules;  // [module] sections
    std::vector<const char*> options;  // fwforge options after the script
};

// Writes the inputs every variant uses into `dir`.
void WriteInputs(const TempDir& dir) {
    WriteBytes(dir.File("bb.bin"), Content(0x10000, 1));
    WriteBytes(dir.File("a.bin"), Content(0x2345, 2));
    WriteBytes(dir.File("b.bin"), Content(0x1000, 3));
    WriteBytes(dir.File("c.bin"), Content(0x777, 4));
    WriteBytes(dir.File("rom.bin"), Content(0x1800, 5));
    WriteBytes(dir.File("noise.bin"), fwforge::testing::RandomBytes(0x900, 6));
    WriteBytes(dir.File("stamp.bin"), StampModule(0xCAFE1234));
    WriteBytes(dir.File("small.bin"), Content(0x90, 8));
}

const char* const kModules =
    "[module]\nmoduleid = 11\nfile = a.bin\ndestn = f000:1000\n\n"
    "[module]\nmoduleid = 12\nfile = b.bin\ndestn = e000:0000\ncompressed = no\n"
    "alignment = 40\n\n"
    "[module]\nmoduleid = 20\nfile = rom.bin\nvendorid = 10de\ndeviceid = 0001\n\n"
    "[module]\nmoduleid = 20\nvendorid = 10de\ndeviceid = 0002\nlinkvenid = 10de\n"
    "linkdevid = 0001\nlink = yes\n\n"
    "[module]\nmoduleid = 20\nvendorid = 10de\ndeviceid = 0003\nlinkvenid = 10de\n"
    "linkdevid = 0001\nlink = yes\n\n"
    // A link all the same: its header has no LinkedRom bit and covers its parent's bytes.
    "[module]\nmoduleid = 20\nvendorid = 10de\ndeviceid = 0004\nlinkvenid = 10de\n"
    "linkdevid = 0001\nlink = no\n\n"
    "[module]\nmoduleid = 18\nfile = a.bin\ndestn = 3000:0000\nalignment = 15\n\n"
    "[module]\nmoduleid = 13\nfile = c.bin\ndestn = d000:0000\nmaxmodulesize = 00000800\n"
    "contiguous = yes\n\n"
    "[module]\nmoduleid = 14\nfile = noise.bin\ndestn = c000:0000\ncompressed = minsize\n\n"
    "[module]\nmoduleid = 31\nfile = c.bin\ndestn = 2000:0000\nromregion = ebb\n";

std::vector<Variant> Variants() {
    const std::string head = "[init]\nfile = bb.bin\n\n";
    return {
        {"16-bit with EBB",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00008000\n"
                "nvramsize = 00002000\nmaxebbsize = 00001000\ntag = t16\n\n",
         kModules,
         {}},
        {"force32",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00004000\n"
                "nvramsize = 00001000\nmaxebbsize = 00001000\ntag = t32\n\n"
                "[romimage]\nversion = 2\nforce32 = yes\n\n",
         kModules,
         {}},
        {"compatibility form, 32-bit",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00004000\n"
                "nvramsize = 00000000\nmaxebbsize = 00001000\ntag = c32\n\n"
                "[romimage]\nversion = 3\nforce32 = yes\n\n",
         kModules,
         {"-c"}},
        {"compatibility form, 16-bit",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00008000\n"
                "nvramsize = 00002000\nmaxebbsize = 00001000\ntag = c16\n\n"
                "[romimage]\nversion = 4\n\n",
         kModules,
         {"-c"}},
        // Gap placement: the fixed module is placed first but listed after an aligned
        // one, and the image information keeps their script order; an uncompressed
        // module that may be split is placed whole after those that may not.
        {"gap placement",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00008000\n"
                "nvramsize = 00002000\nmaxebbsize = 00001000\ntag = gap\n\n"
                "[romhole]\nstartaddress = 000d0000\nsize = 1000\nfiller = 5a\n\n"
                "[noncriticalrom]\nname = blk\nstartaddress = 000c8000\nsize = 4000\n\n",
         std::string(kModules) +
             "\n[module]\nmoduleid = 15\nfile = c.bin\ndestn = 1000:0000\ncompressed = no\n"
             "startaddress = 000e0000\n\n"
             "[module]\nmoduleid = 16\nfile = a.bin\ndestn = 1000:0000\ncompressed = no\n"
             "contiguous = no\n\n"
             // In the block, the link header lies where the block's header points.
             "[module]\nmoduleid = 20\nfile = rom.bin\nvendorid = 10df\ndeviceid = 0001\n"
             "romregion = blk\n\n"
             "[module]\nmoduleid = 20\nvendorid = 10df\ndeviceid = 0002\nlinkvenid = 10df\n"
             "linkdevid = 0001\nlink = yes\n",
         {}},
        // The holes leave two small gaps: the image information module is split, and
        // its pending data sum goes into the seal of the block's first module.
        {"split image information",
         head + "[bios]\nfile = out.rom\nsize = 00040000\n"
                "bbsize = 00010000\nnvramsize = 00000000\ntag = sp\n\n"
                "[noncriticalrom]\nname = blk\nstartaddress = 000c0000\n"
                "size = 1000\n\n"
                "[romhole]\nstartaddress = 000c1000\nsize = 2ee00\n\n"
                "[romhole]\nstartaddress = 000efe40\nsize = c0\n\n",
         "[module]\nmoduleid = 17\nfile = small.bin\ndestn = f000:0000\ncompressed = no\n\n"
         "[module]\nmoduleid = 41\nfile = small.bin\ndestn = 4000:0000\ncompressed = no\n"
         "romregion = blk\n\n"
         "[module]\nmoduleid = 42\nfile = small.bin\ndestn = 4000:0000\ncompressed = no\n"
         "romregion = blk\n",
         {}},
        // The module aligned to 0x16 takes an odd number of bytes from the lowest gap,
        // so the pieces of the split one have odd lengths, and its last one's checksum
        // reaches past the module.
        {"gap placement, split pieces of odd lengths",
         head + "[bios]\nfile = out.rom\nsize = 00040000\nbbsize = 00010000\n"
                "nvramsize = 00000000\ntag = odd\n\n"
                "[romhole]\nstartaddress = 000c0800\nsize = 800\n\n"
                "[romhole]\nstartaddress = 000c2000\nsize = 2d000\n\n",
         "[module]\nmoduleid = 17\nfile = small.bin\ndestn = f000:0000\ncompressed = no\n"
         "alignment = 16\n\n"
         "[module]\nmoduleid = 16\nfile = a.bin\ndestn = 1000:0000\ncompressed = no\n"
         "contiguous = no\n",
         {}},
        {"2 MB",
         head + "[bios]\nfile = out.rom\nsize = 00200000\nbbsize = 00010000\n"
                "nvramsize = 00004000\nmaxebbsize = 00001000\ntag = big\n\n"
                "[romimage]\nversion = 1\n\n",
         kModules,
         {}},
        {"stamp module, no EBB",
         head + "[bios]\nfile = out.rom\nsize = 00020000\nbbsize = 00002000\n"
                "nvramsize = 00000800\ntag = stp\n\n",
         "[module]\nmoduleid = 1b\nfile = stamp.bin\ndestn = f000:0000\n\n"
         "[module]\nmoduleid = 11\nfile = a.bin\ndestn = f000:1000\n",
         {}},
    };
}

// The first `file.size()` bytes hold the file; what follows (rounding, alignment or a
// maximum size) is 0xFF.
void ExpectHoldsFile(const std::vector<std::uint8_t>& extracted,
                     const std::vector<std::uint8_t>& file, const std::string& what) {
    ASSERT_GE(extracted.size(), file.size()) << what;
    EXPECT_TRUE(std::equal(file.begin(), file.end(), extracted.begin())) << what;
    EXPECT_TRUE(std::all_of(extracted.begin() + file.size(), extracted.end(),
                            [](std::uint8_t b) { return b == 0xFF; }))
        << what;
}

TEST(InspectBuiltImages, VerifyExtractAndRebuildByteForByte) {
    for (const Variant& v : Variants()) {
        SCOPED_TRACE(v.name);
        TempDir dir;
        WriteInputs(dir);
        WriteText(dir.File("build.scr"), WithCrLf(v.bios + v.modules));
        fs::create_directories(dir.path() / "out");
        std::string console;
        std::vector<std::string> args = {"out", "build.scr"};
        args.insert(args.end(), v.options.begin(), v.options.end());
        ASSERT_EQ(RunFwforge(dir.path(), args, console), 0) << console;
        const std::string rom = dir.File("out.rom");

        ASSERT_EQ(Inspect({"verify", rom.c_str()}, console), 0) << console;
        EXPECT_NE(console.find("verify: OK"), std::string::npos);
        if (v.modules.find("link = no") != std::string::npos) {
            EXPECT_NE(console.find(" (id 20) at "), std::string::npos) << console;
            EXPECT_NE(console.find(": a linked add-on ROM header without the LinkedRom bit"),
                      std::string::npos);
            ASSERT_EQ(Inspect({"list", rom.c_str()}, console), 0) << console;
            EXPECT_NE(console.find(" 20  linked add-on ROM, no link bit "), std::string::npos);
        }

        const std::string x = dir.File("x");
        ASSERT_EQ(Inspect({"extract", rom.c_str(), x.c_str()}, console), 0) << console;
        // Every module file comes back from the module that holds it.
        const auto image = ReadBytes(rom);
        const ImageModel model = ReadImage(image, {});
        for (const Module& m : model.modules) {
            if (m.Linked() || m.header.id == kImageInfoModuleId) continue;
            const std::string name = ModuleFileName(model, m, ".bin");
            const auto extracted = ReadBytes(x + "/" + name);
            const char* source = m.header.id == 0x17 || m.header.id == 0x41 || m.header.id == 0x42
                                     ? "small.bin"
                                 : m.header.id == 0x11 || m.header.id == 0x16 ||
                                           m.header.id == 0x18
                                     ? "a.bin"
                                 : m.header.id == 0x12                        ? "b.bin"
                                 : m.header.id == 0x20                        ? "rom.bin"
                                 : m.header.id == 0x14                        ? "noise.bin"
                                 : m.header.id == 0x1B                        ? "stamp.bin"
                                                                              : "c.bin";
            const auto file = ReadBytes(dir.File(source));
            if (m.Compressed()) {
                EXPECT_EQ(extracted, file) << name;
            } else {
                ExpectHoldsFile(extracted, file, name);
            }
        }
        if (std::string(v.name) == "split image information") {
            EXPECT_TRUE(model.modules[model.info.module].Split());
        }
        if (std::string(v.name) == "gap placement, split pieces of odd lengths") {
            const Module& split = model.modules[1];
            ASSERT_EQ(split.pieces.size(), 3u);
            EXPECT_EQ(split.pieces[0].length, 0x72Bu);
            EXPECT_EQ(split.pieces[2].length, 0xC31u);
        }
        if (model.main->stamp) {
            EXPECT_EQ(model.main->stamp, 0xCAFE1234u);
        }

        // Rebuild from the extracted folder; -c when the output asks for it.
        fs::create_directories(fs::path(x) / "o");
        std::vector<std::string> rebuild = {"o", "rebuild.scr"};
        const bool compat = console.find("run fwforge with -c") != std::string::npos;
        EXPECT_EQ(compat, !v.options.empty()) << console;
        if (compat) rebuild.push_back("-c");
        std::string rebuild_console;
        ASSERT_EQ(RunFwforge(x, rebuild, rebuild_console), 0) << rebuild_console;
        const std::string rebuilt = x + "/rebuilt.rom";
        if (console.find("the stored data rounds away") == std::string::npos) {
            EXPECT_TRUE(ReadBytes(rebuilt) == image) << "rebuilt image differs\n" << console;
        }
        // Where a module had to be compressed anew, its bytes may differ, but no module
        // differs in content, header or place.
        EXPECT_EQ(Inspect({"diff", rom.c_str(), rebuilt.c_str()}, console), 0) << console;
    }
}

// A bundled example, built from the inputs its generator made in the build tree: it
// verifies clean, and its extracted folder rebuilds it byte for byte.
std::vector<std::uint8_t> BuildExample(const TempDir& dir, const char* example, const char* script,
                                       const char* rom) {
    const fs::path generated = fs::path(FWFORGE_BINARY_DIR) / "examples" / example;
    EXPECT_TRUE(fs::exists(generated / "bootblk.bin")) << "build the example inputs";
    for (const auto& entry : fs::directory_iterator(generated)) {
        const std::string ext = entry.path().extension().string();
        if (ext == ".bin" || ext == ".rom" || ext == ".scr") {
            fs::copy_file(entry.path(), dir.path() / entry.path().filename());
        }
    }
    fs::remove(dir.path() / rom);
    fs::create_directories(dir.path() / "out");
    std::string console;
    EXPECT_EQ(RunFwforge(dir.path(), {"out", script}, console), 0) << console;
    const auto image = ReadBytes(dir.File(rom));
    const VerifyReport report = Verify(image, ReadImage(image, {}));
    EXPECT_TRUE(report.Clean()) << VerifyText(report);
    const std::string x = dir.File("x"), path = dir.File(rom);
    EXPECT_EQ(Inspect({"extract", path.c_str(), x.c_str()}, console), 0) << console;
    fs::create_directories(fs::path(x) / "o");
    EXPECT_EQ(RunFwforge(x, {"o", "rebuild.scr"}, console), 0) << console;
    EXPECT_TRUE(ReadBytes(x + "/rebuilt.rom") == image) << example;
    return image;
}

TEST(InspectBuiltImages, BundledExample) {
    TempDir dir;
    const auto image = BuildExample(dir, "firmware", "firmware.scr", "firmware.rom");
    const ImageModel model = ReadImage(image, {});
    EXPECT_EQ(model.ModulesIn(ModuleArea::Main).size(), 11u);
    EXPECT_EQ(model.ModulesIn(ModuleArea::Ebb).size(), 2u);
    const std::string x = dir.File("x");
    // The image information module's raw data is the .inf file.
    EXPECT_EQ(ReadBytes(x + "/imageinfo.inf"), ReadBytes(dir.File("out/FWF01.inf")));

    // Flipped bytes: in a module, in a header, in the main BIOS region, in the EBB.
    const auto main = model.ModulesIn(ModuleArea::Main);
    const auto ebb = model.ModulesIn(ModuleArea::Ebb);
    const std::pair<std::uint32_t, const char*> flips[] = {
        {main[1]->pieces[0].offset + 40, "module #1 (id 02)"},
        {main[2]->header.offset + 17, "module #2 (id 03)"},
        {main[5]->header.offset + 12, "module #5 (id 20)"},
        {model.main->signature + 9, "main BIOS header"},
        {model.main->BlockStart() + 2, "main BIOS header"},
        {ebb[1]->pieces[0].offset + 5, "EBB module #1 (id 31)"},
        {model.ebb->offset + model.ebb->length - 8, "EBB at"},
        {model.size - 0x100, "boot block"},
    };
    for (const auto& [offset, named] : flips) ExpectFlipFound(image, offset, named);
}

// The second example: gap placement around ROM holes, a non-critical block, a fixed
// module and a split module.
TEST(InspectBuiltImages, BundledGapExample) {
    TempDir dir;
    const auto image = BuildExample(dir, "firmware2", "firmware2.scr", "firmware2.rom");
    const ImageModel model = ReadImage(image, {});
    const auto main = model.ModulesIn(ModuleArea::Main);
    const auto block = model.ModulesIn(ModuleArea::Ncb, 0);
    ASSERT_EQ(main.size(), 8u);
    ASSERT_EQ(block.size(), 2u);
    // The split firmware volume comes back joined.
    const Module* split = main[6];
    ASSERT_TRUE(split->Split());
    EXPECT_EQ(ReadBytes(dir.File("x") + "/" + ModuleFileName(model, *split, ".bin")),
              ReadBytes(dir.File("firmware_volume.bin")));
    const std::pair<std::uint32_t, const char*> flips[] = {
        {split->pieces[0].offset + 3, "module #6 (id 0A)"},
        {split->piece_headers[0].offset + 17, "module #6 (id 0A)"},
        {block[1]->pieces[0].offset + 9, "non-critical block 1 module #9 (id 41)"},
        {model.ncbs[0].offset + 13, "non-critical block 1"},
        {model.ncbs[0].offset + model.ncbs[0].length - 4, "non-critical block 1"},
    };
    for (const auto& [offset, named] : flips) ExpectFlipFound(image, offset, named);
}

TEST(InspectBuiltImages, DiffOfTwoBuildsNamesTheOneModule) {
    TempDir dir;
    WriteInputs(dir);
    const Variant v = Variants()[0];
    WriteText(dir.File("build.scr"), WithCrLf(v.bios + v.modules));
    fs::create_directories(dir.path() / "out");
    std::string console;
    ASSERT_EQ(RunFwforge(dir.path(), {"out", "build.scr"}, console), 0) << console;
    fs::rename(dir.path() / "out.rom", dir.path() / "first.rom");
    auto b = ReadBytes(dir.File("b.bin"));
    b[0x123] ^= 0xFF;  // module 12 is stored uncompressed: same size, one byte differs
    // (its data size is 1004: 1000 bytes and the alignment's 4)
    WriteBytes(dir.File("b.bin"), b);
    ASSERT_EQ(RunFwforge(dir.path(), {"out", "build.scr"}, console), 0) << console;
    const std::string first = dir.File("first.rom"), second = dir.File("out.rom");
    EXPECT_EQ(Inspect({"diff", first.c_str(), second.c_str()}, console), 1);
    EXPECT_EQ(console,
              "changed  module #1 (id 12) e000:0000: content (1004 -> 1004 bytes)\n"
              "diff: 1 module changed, added or removed; 1 difference in all\n");
}

}  // namespace
}  // namespace fwforge::inspect
