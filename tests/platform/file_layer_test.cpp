// What no build reaches of the file layer: names given exactly as they are on disk (a
// script is lower-cased), two files that differ only in case, a named pipe, an empty
// name or output folder, a read that asks for more than the file holds, and the
// separator of composed names, and which step of reading a whole file failed.

#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <algorithm>
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

namespace fwforge::platform {
namespace {

std::vector<std::string> FolderEntries(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(FileLayer, AnOutputTakesTheTargetsPlaceOnlyWhenCommitted) {
    testing::TempDir dir;
    const std::string target = dir.File("image.rom");
    testing::WriteText(target, "old image");
    const std::vector<std::uint8_t> bytes = {'n', 'e', 'w'};
    {
        auto file = OutputFile::Create(target);
        ASSERT_TRUE(file);
        ASSERT_TRUE(file->Write(bytes));
        // Written but not committed: the old file is still there, whole.
        EXPECT_EQ(testing::ReadBytes(target).size(), 9u);
        EXPECT_EQ(FolderEntries(dir.path()).size(), 2u);
    }
    // Dropped without a commit: the old file stays and nothing else is left.
    EXPECT_EQ(FolderEntries(dir.path()), std::vector<std::string>{"image.rom"});
    EXPECT_EQ(testing::ReadBytes(target).size(), 9u);

    auto file = OutputFile::Create(target);
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->Write(bytes));
    ASSERT_TRUE(file->Commit());
    EXPECT_EQ(testing::ReadBytes(target), bytes);
    EXPECT_EQ(FolderEntries(dir.path()), std::vector<std::string>{"image.rom"});
    EXPECT_FALSE(file->Write(bytes));
    EXPECT_FALSE(file->Commit());

    // The seam's whole-file write commits; a memory file appears only when committed.
    MemoryFileSystem memory;
    memory.Put("a.bin", "old");
    auto out = memory.Create("a.bin");
    ASSERT_TRUE(out && out->Write(bytes));
    EXPECT_EQ(memory.Find("a.bin")->size(), 3u);
    EXPECT_EQ(*memory.Find("a.bin"), std::vector<std::uint8_t>({'o', 'l', 'd'}));
    out.reset();
    EXPECT_EQ(*memory.Find("a.bin"), std::vector<std::uint8_t>({'o', 'l', 'd'}));
    EXPECT_TRUE(WriteWholeFile(memory, "b.bin", bytes));
    EXPECT_EQ(*memory.Find("b.bin"), bytes);
}

#ifndef _WIN32
TEST(FileLayer, ACommittedOutputReplacesTheFileALinkNamesAndWritesDevicesInPlace) {
    testing::TempDir dir;
    std::filesystem::create_directories(dir.path() / "real");
    testing::WriteText(dir.File("real/image.rom"), "old");
    std::filesystem::create_symlink(dir.path() / "real" / "image.rom", dir.path() / "link.rom");
    const std::vector<std::uint8_t> bytes = {1, 2, 3, 4};
    EXPECT_TRUE(WriteWholeFile(Disk(), dir.File("link.rom"), bytes));
    EXPECT_TRUE(std::filesystem::is_symlink(dir.path() / "link.rom"));
    EXPECT_EQ(testing::ReadBytes(dir.File("real/image.rom")), bytes);
    EXPECT_EQ(FolderEntries(dir.path() / "real"), std::vector<std::string>{"image.rom"});

    EXPECT_TRUE(WriteWholeFile(Disk(), "/dev/null", bytes));
    EXPECT_FALSE(WriteWholeFile(Disk(), "/dev/full", bytes));
    // A folder cannot be replaced by a file, and nothing is left beside it.
    std::filesystem::create_directories(dir.path() / "folder.rom");
    EXPECT_FALSE(WriteWholeFile(Disk(), dir.File("folder.rom"), bytes));
    EXPECT_EQ(FolderEntries(dir.path()), (std::vector<std::string>{"folder.rom", "link.rom", "real"}));
}
#endif

}  // namespace
}  // namespace fwforge::platform
