// `extract` on images built byte by byte: every module's bytes come back (split
// modules joined), the image information data and the boot block segment are written,
// and rebuild.scr names every setting and module the image tells.

#include <gtest/gtest.h>

#include <filesystem>

#include "inspect/extract.h"
#include "inspect/test_image.h"
#include "platform/text_format.h"
#include "support/test_files.h"

namespace fwforge::inspect {
namespace {

using testing::BuildTestImage;
using testing::Mod;
using testing::TestLayout;
using testing::TestModule;

const ExtractedFile* Find(const ExtractPlan& plan, const std::string& name) {
    for (const ExtractedFile& f : plan.files) {
        if (f.name == name) return &f;
    }
    return nullptr;
}

TEST(InspectExtract, EveryModuleComesBackWithItsStoredBytes) {
    TestLayout l;
    l.ebb_size = 0x400;
    l.ebb_modules = {Mod(0x30, 0x44, 9)};
    l.modules = {Mod(0x11, 0x300, 1), Mod(0x12, 0x800, 2, 3), Mod(0x13, 0x124, 3)};
    l.modules[2].attributes = 0x90;  // uncompressed, contiguous
    const auto img = BuildTestImage(l);
    const ImageModel model = ReadImage(img.bytes, {});
    const ExtractPlan plan = PlanExtract(img.bytes, model);
    EXPECT_TRUE(plan.problems.empty());

    const auto main = model.ModulesIn(ModuleArea::Main);
    const std::pair<const Module*, const TestModule*> expected[] = {
        {main[0], &l.modules[0]}, {main[1], &l.modules[1]},  // three pieces joined
        {main[2], &l.modules[2]}, {model.ModulesIn(ModuleArea::Ebb)[0], &l.ebb_modules[0]},
    };
    for (const auto& [m, source] : expected) {
        const ExtractedFile* f = Find(plan, ModuleFileName(model, *m, ".bin"));
        ASSERT_NE(f, nullptr) << ModuleFileName(model, *m, ".bin");
        EXPECT_EQ(f->bytes, source->data) << ModuleFileName(model, *m, ".bin");
    }
    EXPECT_EQ(ModuleFileName(model, *main[0], ".bin"),
              StrFormat("m00_id11_%x.bin", 0xC0000 + img.module_headers[0] + 20));

    const ExtractedFile* info = Find(plan, "imageinfo.inf");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->bytes, testing::ImageInfoData(l));
    const ExtractedFile* boot = Find(plan, "bootblock.bin");
    ASSERT_NE(boot, nullptr);
    ASSERT_EQ(boot->bytes.size(), 0x10000u);
    EXPECT_TRUE(std::equal(boot->bytes.end() - l.bbsize, boot->bytes.end(),
                           img.bytes.end() - l.bbsize));

    const ExtractedFile* rebuild = Find(plan, "rebuild.scr");
    ASSERT_NE(rebuild, nullptr);
    const std::string script(rebuild->bytes.begin(), rebuild->bytes.end());
    for (const char* line : {"[init]\r\nfile = bootblock.bin\r\n", "size = 00040000\r\n",
                             "bbsize = 00002000\r\n", "nvramsize = 00001000\r\n",
                             "maxebbsize = 00000400\r\n", "tag = testtag\r\n",
                             "[romimage]\r\nversion = 1\r\n",
                             "moduleid = 30\r\nfile = ebb00_id30_", "romregion = ebb\r\n",
                             "moduleid = 13\r\nfile = m02_id13_", "contiguous = yes\r\n"}) {
        EXPECT_NE(script.find(line), std::string::npos) << line << "\n" << script;
    }
    // The EBB's module comes first, the image information module not at all.
    EXPECT_LT(script.find("moduleid = 30"), script.find("moduleid = 11"));
    EXPECT_EQ(script.find("moduleid = 80"), std::string::npos);
}

TEST(InspectExtract, CommandWritesTheFilesAndSaysWhatIsLost) {
    TestLayout l;
    l.modules = {Mod(0x11, 0x100, 1)};
    l.ncbs = {{0x10000, 0x400, {Mod(0x41, 0x40, 4)}}};
    l.flags = 0x02;
    l.region_from_zero = true;
    fwforge::testing::TempDir dir;
    const std::string rom = dir.File("t.rom");
    fwforge::testing::WriteBytes(rom, BuildTestImage(l).bytes);
    const std::string out_dir = dir.File("out/sub");
    std::string out;
    EXPECT_EQ(testing::Inspect({"extract", rom.c_str(), out_dir.c_str()}, out), 0) << out;
    const auto script_bytes = fwforge::testing::ReadBytes(out_dir + "/rebuild.scr");
    const std::string script(script_bytes.begin(), script_bytes.end());
    EXPECT_NE(script.find("[noncriticalrom]\r\nname = ncb1\r\nstartaddress = 000d0000\r\n"
                          "size = 00000400\r\n"),
              std::string::npos)
        << script;
    EXPECT_NE(script.find("romregion = ncb1\r\n"), std::string::npos);
    for (const char* text : {"rebuild.scr", "the names of non-critical blocks",
                             "the order of the [module] sections", "extract: 6 files written"}) {
        EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
    }
    int module_files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(out_dir)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("m00_id11_") || name.starts_with("ncb1_02_id41_")) {
            ++module_files;
            EXPECT_EQ(entry.file_size(), name.starts_with("m") ? 0x100u : 0x40u) << name;
        }
    }
    EXPECT_EQ(module_files, 2);
}

}  // namespace
}  // namespace fwforge::inspect
