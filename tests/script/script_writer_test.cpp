// The script writer is the reader's inverse: every random script of every kind, read,
// written out and read again, gives an equal build description, and the written script
// builds the same image.

#include "script/script_writer.h"

#include <gtest/gtest.h>

#include <sstream>

#include "driver/build_run.h"
#include "platform/text_format.h"
#include "script/script_reader.h"
#include "support/random_script.h"
#include "support/sanitizer.h"

namespace fwforge {
namespace {

using namespace fwforge::testing;

// A sanitizer build takes every third seed.
constexpr std::uint32_t kSeedStep = kSanitized ? 3 : 1;

bool Parse(platform::FileSystem& files, const std::string& script, BuildDescription& out) {
    std::ostringstream console;
    Diagnostics diag(console);
    try {
        ParseBuildScript(diag, files, out, script, false);
        return true;
    } catch (const FatalError&) {
        return false;
    }
}

TEST(ScriptWriter, ReadingWhatItWritesGivesTheSameDescriptionAndImage) {
    int compared = 0;
    for (std::uint32_t seed = 3000; seed < 3150; seed += kSeedStep) {
        SCOPED_TRACE(StrFormat("seed %u", seed));
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        platform::MemoryFileSystem files;
        PutFolder(files, dir);
        BuildDescription first, second;
        if (!Parse(files, script.path, first)) continue;
        const std::string written = WriteBuildScript(first, {"written back"});
        files.Put("written.scr", written);
        ASSERT_TRUE(Parse(files, "written.scr", second)) << written;
        EXPECT_TRUE(first == second) << script.text << "\n----\n" << written;

        BuildRequest request;
        request.output_path = dir.path().string();
        request.compatibility = script.options.size() == 1 && script.options[0] == "-c";
        request.script = script.path;
        const BuildResult original = RunBuild(files, request);
        const std::vector<std::uint8_t> rom = *files.Find(original.rom_file);
        request.script = "written.scr";
        const BuildResult again = RunBuild(files, request);
        EXPECT_EQ(again.exit_status, original.exit_status);
        EXPECT_EQ(again.fatal, original.fatal);
        if (again.Completed()) {
            EXPECT_TRUE(*files.Find(again.rom_file) == rom);
        }
        ++compared;
    }
    EXPECT_GE(compared, 140 / static_cast<int>(kSeedStep));
}

}  // namespace
}  // namespace fwforge
