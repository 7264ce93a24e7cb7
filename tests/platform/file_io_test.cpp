#include "platform/file_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <span>
#include <string_view>

#include "script/script_fixture.h"

namespace fwforge::platform {
namespace {

using script_test::ScratchDir;

std::string ReadAll(const std::string& name) {
    auto file = InputFile::Open(name);
    if (!file) return "<cannot open>";
    const auto size = file->Size();
    if (!size) return "<no size>";
    std::vector<std::uint8_t> bytes(*size);
    if (!file->ReadExactly(bytes)) return "<cannot read>";
    return std::string(bytes.begin(), bytes.end());
}

// Creates `name` and writes `bytes` to it.
bool WriteAll(const std::string& name, std::string_view bytes) {
    auto file = OutputFile::Create(name);
    return file && file->Write(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                         bytes.size()));
}

TEST(FileLayer, ComposedNamesAndHostSeparators) {
    struct Case {
        std::string output_path, rest, expected;
    } cases[] = {
        {"out", "BIOS1.int", "out/BIOS1.int"},
        {"out/", "BIOS1.int", "out/BIOS1.int"},
        {"out\\", "BIOS1.inf", "out\\BIOS1.inf"},
        {"/a/b", "T.inf", "/a/b/T.inf"},
        {".", "T.int", "./T.int"},
        {"", "T.int", "T.int"},
        {std::string(400, 'd'), "T.int", std::string(400, 'd') + "/T.int"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ComposeOutputName(c.output_path, c.rest), c.expected) << c.output_path;
    }
    EXPECT_EQ(ToHostSeparators("a\\b\\c.bin"), "a/b/c.bin");
    EXPECT_EQ(ToHostSeparators("\\\\x"), "//x");
    EXPECT_EQ(ToHostSeparators("plain"), "plain");
}

TEST(FileLayer, InputNamesAreFoundWhateverTheirCase) {
    ScratchDir dir;
    std::filesystem::create_directories(dir.path() / "Modules" / "CPU");
    dir.WriteBytes("Modules/CPU/Micro.BIN", "micro");
    dir.WriteBytes("exact.bin", "exact");
    dir.WriteBytes("twin.bin", "lower");
    dir.WriteBytes("TWIN.BIN", "upper");
    // A named pipe without a writer would block a reader forever.
    ASSERT_EQ(::mkfifo(dir.Path("pipe").c_str(), 0600), 0);
    const std::string root = dir.Path("");
    struct Case {
        std::string name, content;
    } cases[] = {
        {root + "modules/cpu/micro.bin", "micro"},
        {root + "modules\\cpu\\micro.bin", "micro"},
        {root + "MODULES\\Cpu\\MICRO.bin", "micro"},
        {root + "modules/./cpu/../cpu/micro.bin", "micro"},
        {root + "exact.bin", "exact"},
        {root + "EXACT.BIN", "exact"},
        // An exact name wins; otherwise two candidates are no match at all.
        {root + "twin.bin", "lower"},
        {root + "TWIN.BIN", "upper"},
        {root + "Twin.bin", "<cannot open>"},
        {root + "missing.bin", "<cannot open>"},
        {root + "modules/missing/micro.bin", "<cannot open>"},
        {root + "modules", "<cannot open>"},
        {root + "pipe", "<cannot open>"},
        {"", "<cannot open>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ReadAll(c.name), c.content) << c.name;
    }
}

// Output files keep their composed name, replace what was there, and have no path
// limit; reading refuses to come up short.
TEST(FileLayer, OutputFilesAndExactReads) {
    ScratchDir dir;
    std::filesystem::create_directories(dir.path() / "Out");
    dir.WriteBytes("Out/OLD.BIN", "old contents");
    EXPECT_TRUE(WriteAll(dir.Path("out") + "\\BIOS1.int", "\x01\x02\x03"));
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "Out" / "BIOS1.int"));
    EXPECT_EQ(ReadAll(dir.Path("Out/BIOS1.int")), "\x01\x02\x03");
    EXPECT_TRUE(WriteAll(dir.Path("Out/OLD.BIN"), "new"));
    EXPECT_EQ(ReadAll(dir.Path("Out/OLD.BIN")), "new");
    EXPECT_FALSE(OutputFile::Create(dir.Path("nowhere/x.bin")));
    EXPECT_FALSE(OutputFile::Create(""));

    std::filesystem::path deep = dir.path();
    for (int i = 0; i < 6; ++i) deep /= std::string(60, static_cast<char>('a' + i));
    std::filesystem::create_directories(deep);
    const std::string name = (deep / "Long.Bin").string();
    ASSERT_GT(name.size(), 360u);
    EXPECT_TRUE(WriteAll(name, "Z"));
    std::string lower = name;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(ReadAll(lower), "Z");

    auto file = InputFile::Open(dir.WriteBytes("four.bin", "1234"));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->Size(), 4u);
    std::vector<std::uint8_t> five(5);
    EXPECT_FALSE(file->ReadExactly(five));
    std::vector<std::uint8_t> none;
    EXPECT_TRUE(file->ReadExactly(none));
}

}  // namespace
}  // namespace fwforge::platform
