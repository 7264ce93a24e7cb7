// What no build reaches of the file layer: names given exactly as they are on disk (a
// script is lower-cased), two files that differ only in case, a named pipe, an empty
// name or output folder, a read that asks for more than the file holds, and the
// separator of composed names, and which step of reading a whole file failed.

#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <filesystem>
#include <vector>

#include "platform/file_io.h"
#include "platform/file_system.h"
#include "support/test_files.h"

namespace fwforge::platform {
namespace {

struct OpenCase {
    std::string name;
    std::size_t extra;  // bytes asked for beyond the file's size
    std::string read;
};

TEST(FileLayer, FindsInputNamesAndReadsExactly) {
    testing::TempDir dir;
    std::filesystem::create_directories(dir.path() / "Modules" / "CPU");
    testing::WriteText(dir.File("Modules/CPU/Micro.BIN"), "micro");
    const std::string root = dir.File("");
    std::vector<OpenCase> cases = {
        {root + "Modules/CPU/Micro.BIN", 0, "micro"},
        {root + "MODULES\\Cpu\\micro.bin", 0, "micro"},
        {root + "Modules/CPU/Micro.BIN", 1, "<short>"},
        {root + "modules", 0, "<none>"},
        {"", 0, "<none>"},
    };
#ifndef _WIN32
    // Windows has neither names that differ only in case nor named pipes in a folder.
    testing::WriteText(dir.File("twin.bin"), "lower");
    testing::WriteText(dir.File("TWIN.BIN"), "upper");
    // Without a writer, opening a pipe for reading would block the build.
    ASSERT_EQ(::mkfifo(dir.File("pipe").c_str(), 0600), 0);
    cases.insert(cases.end(), {{root + "TWIN.BIN", 0, "upper"},
                               {root + "twin.bin", 0, "lower"},
                               {root + "Twin.bin", 0, "<none>"},
                               {root + "pipe", 0, "<none>"}});
#endif
    for (const auto& c : cases) {
        auto file = InputFile::Open(c.name);
        std::string read = "<none>";
        if (file) {
            std::string bytes(*file->Size() + c.extra, '\0');
            const bool whole =
                file->ReadExactly({reinterpret_cast<std::uint8_t*>(bytes.data()), bytes.size()});
            read = whole ? bytes : "<short>";
        }
        EXPECT_EQ(read, c.read) << c.name << " + " << c.extra;
    }
    EXPECT_FALSE(OutputFile::Create(""));
}

TEST(FileLayer, ComposesOutputNamesWithTheHostSeparator) {
#ifdef _WIN32
    const std::string sep = "\\";
#else
    const std::string sep = "/";
#endif
    const struct {
        std::string path, composed;
    } cases[] = {
        {"", "T1.inf"},
        {"out", "out" + sep + "T1.inf"},
        {"out/", "out/T1.inf"},
        {"out\\", "out\\T1.inf"},
    };
    for (const auto& c : cases) EXPECT_EQ(ComposeOutputName(c.path, "T1.inf"), c.composed);
}

TEST(FileLayer, ReadsWholeFilesAndSaysWhichStepFailed) {
    testing::TempDir dir;
    testing::WriteText(dir.File("five.bin"), "12345");
    testing::WriteText(dir.File("empty.bin"), "");
    using F = WholeFile::Failure;
    const struct {
        std::string name;
        std::uint64_t limit;
        F failure;
        std::string bytes;
    } cases[] = {
        {"five.bin", 5, F::None, "12345"},   {"FIVE.BIN", 0xFFFFFFFF, F::None, "12345"},
        {"five.bin", 4, F::Size, ""},        {"empty.bin", 0, F::None, ""},
        {"missing.bin", 5, F::Open, ""},     {"", 5, F::Open, ""},
    };
    for (const auto& c : cases) {
        const WholeFile file = ReadWholeFile(c.name.empty() ? "" : dir.File(c.name), c.limit);
        EXPECT_EQ(file.failure, c.failure) << c.name;
        EXPECT_EQ(std::string(file.bytes.begin(), file.bytes.end()), c.bytes) << c.name;
    }
}

}  // namespace
}  // namespace fwforge::platform
