// What no build reaches of the file layer: names given exactly as they are on disk (a
// script is lower-cased), two files that differ only in case, a named pipe, an empty
// name or output folder, and a read that asks for more than the file holds.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/file_io.h"
#include "support/test_files.h"

namespace fwforge::platform {
namespace {

TEST(FileLayer, FindsInputNamesAndReadsExactly) {
    testing::TempDir dir;
    std::filesystem::create_directories(dir.path() / "Modules" / "CPU");
    testing::WriteText(dir.File("Modules/CPU/Micro.BIN"), "micro");
    testing::WriteText(dir.File("twin.bin"), "lower");
    testing::WriteText(dir.File("TWIN.BIN"), "upper");
    // Without a writer, opening a pipe for reading would block the build.
    ASSERT_EQ(::mkfifo(dir.File("pipe").c_str(), 0600), 0);
    const std::string root = dir.File("");
    const struct {
        std::string name;
        std::size_t extra;  // bytes asked for beyond the file's size
        std::string read;
    } cases[] = {
        {root + "Modules/CPU/Micro.BIN", 0, "micro"},
        {root + "MODULES\\Cpu\\micro.bin", 0, "micro"},
        {root + "Modules/CPU/Micro.BIN", 1, "<short>"},
        {root + "TWIN.BIN", 0, "upper"},
        {root + "twin.bin", 0, "lower"},
        {root + "Twin.bin", 0, "<none>"},
        {root + "pipe", 0, "<none>"},
        {root + "modules", 0, "<none>"},
        {"", 0, "<none>"},
    };
    for (const auto& c : cases) {
        auto file = InputFile::Open(c.name);
        std::string read = "<none>";
        if (file) {
            std::string bytes(*file->Size() + c.extra, '\0');
            const bool whole = file->ReadExactly(
                {reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()});
            read = whole ? bytes : "<short>";
        }
        EXPECT_EQ(read, c.read) << c.name << " + " << c.extra;
    }
    EXPECT_EQ(ComposeOutputName("", "T1.inf"), "T1.inf");
    EXPECT_FALSE(OutputFile::Create(""));
}

}  // namespace
}  // namespace fwforge::platform
