// However a build compresses (one run after another, or each module once, or ahead on
// worker threads), and whether it runs on the disk or on files held in memory, it writes
// the same ROM, .int and .inf files and the same console text: random scripts of every
// kind, built every way.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "driver/build_run.h"
#include "platform/file_system.h"
#include "platform/text_format.h"
#include "support/random_script.h"

namespace fwforge {
namespace {

namespace fs = std::filesystem;
using namespace fwforge::testing;

#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint32_t kSeedStep = 4;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr std::uint32_t kSeedStep = 4;
#else
constexpr std::uint32_t kSeedStep = 1;
#endif
#else
constexpr std::uint32_t kSeedStep = 1;
#endif

struct Outcome {
    int status = 0;
    std::string console;
    std::map<std::string, std::vector<std::uint8_t>> files;  // what the build wrote
};

Outcome Build(const TempDir& dir, const RandomScript& script, unsigned threads, bool reuse) {
    std::map<std::string, bool> before;
    for (const auto& entry : fs::directory_iterator(dir.path())) before[entry.path().string()];
    std::vector<std::string> args = {dir.path().string(), script.path};
    args.insert(args.end(), script.options.begin(), script.options.end());
    Outcome outcome;
    outcome.status = RunFwforge(dir.path(), args, outcome.console, threads, reuse);
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        const std::string name = entry.path().string();
        if (before.contains(name)) continue;
        outcome.files[entry.path().filename().string()] = ReadBytes(name);
        fs::remove(entry.path());
    }
    return outcome;
}

// The same build with the script and every input file in memory.
Outcome BuildInMemory(const TempDir& dir, const RandomScript& script) {
    platform::MemoryFileSystem files;
    PutFolder(files, dir);
    const std::vector<std::string> inputs = files.Names();
    BuildRequest request;
    request.script = script.path;
    request.output_path = dir.path().string();
    for (const std::string& option : script.options) {
        request.verbose |= option == "-v";
        request.compatibility |= option == "-c";
    }
    request.compression_threads = 2;
    const BuildResult result = RunBuild(files, request);
    Outcome outcome{result.exit_status, result.console, {}};
    EXPECT_EQ(result.fatal.empty(), result.Completed());
    for (const std::string& name : files.Names()) {
        if (std::find(inputs.begin(), inputs.end(), name) != inputs.end()) continue;
        outcome.files[fs::path(name).filename().string()] = *files.Find(name);
    }
    return outcome;
}

TEST(CompressionEquivalence, RandomBuildsWriteTheSameWithAndWithoutReuseAndThreadsOnDiskOrInMemory) {
    int compared = 0;
    for (std::uint32_t seed = 1000; seed < 1210; seed += kSeedStep) {
        SCOPED_TRACE(StrFormat("seed %u", seed));
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        const Outcome plain = Build(dir, script, 1, false);
        const Outcome fast = Build(dir, script, 3, true);
        const Outcome reused = Build(dir, script, 1, true);
        const Outcome in_memory = BuildInMemory(dir, script);
        for (const Outcome* other : {&fast, &reused, &in_memory}) {
            EXPECT_EQ(other->status, plain.status);
            EXPECT_EQ(other->console, plain.console);
            ASSERT_EQ(other->files.size(), plain.files.size());
            for (const auto& [name, bytes] : plain.files) {
                EXPECT_TRUE(other->files.at(name) == bytes) << name;
            }
        }
        compared += plain.status == 0 && plain.files.size() >= 3;
    }
    EXPECT_GE(compared, 150 / static_cast<int>(kSeedStep));
}

}  // namespace
}  // namespace fwforge
