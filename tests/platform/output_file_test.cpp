// Outputs are written whole or not at all: a file takes its target's place only when it
// is committed, and one dropped before that leaves the old file and nothing else; a
// link keeps naming the file it named, and a device is written in place.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/file_io.h"
#include "platform/file_system.h"
#include "support/test_files.h"

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
