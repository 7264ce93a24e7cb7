// The bundled examples built with each file operation failing in turn: every run ends
// with exit status 1 and a fatal message (or completes, when the failed operation was
// not needed), and every output left behind is a whole one, byte for byte what the
// build without a fault writes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "driver/build_run.h"
#include "platform/file_system.h"
#include "support/fault_file_system.h"
#include "support/test_files.h"

namespace fwforge {
namespace {

using testing::FaultFileSystem;
using testing::FileOp;

struct Example {
    std::string name;
    std::map<std::string, std::vector<std::uint8_t>> inputs;
};

Example LoadExample(const std::string& name) {
    Example example{name, {}};
    // A cross build makes no example inputs; FWFORGE_EXAMPLE_INPUTS names the build that
    // made them.
    const char* inputs = std::getenv("FWFORGE_EXAMPLE_INPUTS");
    const std::filesystem::path dir =
        std::filesystem::path(inputs ? inputs : FWFORGE_BINARY_DIR) / "examples" / name;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (!entry.is_regular_file()) continue;
        example.inputs[entry.path().filename().string()] =
            testing::ReadBytes(entry.path().string());
    }
    return example;
}

struct Outcome {
    BuildResult result;
    std::map<std::string, std::vector<std::uint8_t>> files;
    std::size_t counts[8] = {};
    bool injected = false;
};

Outcome Build(const Example& example, std::optional<std::pair<FileOp, std::size_t>> fault,
          lzh::EncoderLimits limits = {}) {
    platform::MemoryFileSystem memory;
    for (const auto& [name, bytes] : example.inputs) memory.Put(name, bytes);
    FaultFileSystem files(memory);
    if (fault) files.FailAt(fault->first, fault->second);
    BuildRequest request;
    request.script = example.name + ".scr";
    request.output_path = "out";
    request.encoder_limits = std::move(limits);
    Outcome run;
    run.result = RunBuild(files, request);
    for (const std::string& name : memory.Names()) run.files[name] = *memory.Find(name);
    for (std::size_t i = 0; i < testing::kFileOps.size(); ++i)
        run.counts[i] = files.Count(testing::kFileOps[i]);
    run.injected = files.Injected();
    return run;
}

TEST(BuildFaults, EveryFailedFileOperationEndsTheBuildWithoutAPartialOutput) {
    std::size_t injected = 0;
    for (const std::string name : {"firmware", "firmware2"}) {
        const Example example = LoadExample(name);
        ASSERT_FALSE(example.inputs.empty()) << name;
        const Outcome clean = Build(example, std::nullopt);
        ASSERT_EQ(clean.result.exit_status, 0) << clean.result.console;
        ASSERT_GT(clean.files.size(), example.inputs.size()) << name;
        for (std::size_t k = 0; k < testing::kFileOps.size(); ++k) {
            const FileOp op = testing::kFileOps[k];
            for (std::size_t index = 0; index < clean.counts[k]; ++index) {
                const Outcome run = Build(example, std::pair{op, index});
                const std::string where =
                    name + ": " + testing::FileOpName(op) + " #" + std::to_string(index);
                ASSERT_TRUE(run.injected) << where;
                ++injected;
                if (run.result.exit_status == 0) {
                    EXPECT_EQ(run.files, clean.files) << where;
                    continue;
                }
                EXPECT_EQ(run.result.exit_status, 1) << where;
                EXPECT_FALSE(run.result.fatal.empty()) << where << "\n" << run.result.console;
                EXPECT_NE(run.result.console.find("\nFATAL ERROR: " + run.result.fatal + "\n"),
                          std::string::npos)
                    << where;
                // Inputs stay as they were; an output is there whole or not at all.
                for (const auto& [file, bytes] : run.files) {
                    auto it = clean.files.find(file);
                    ASSERT_NE(it, clean.files.end()) << where << ": " << file;
                    EXPECT_EQ(bytes, it->second) << where << ": " << file << " is not whole";
                }
                EXPECT_FALSE(run.files.contains(clean.result.rom_file)) << where;
            }
        }
    }
    std::cout << "file faults injected: " << injected << "\n";
    EXPECT_GT(injected, 0u);
}

// Checks a build that the encoder's "Out of memory." stopped: exit status 1, the text
// alone (no fatal report, no run summary), no ROM file, and whatever else was written
// whole.
void ExpectOutOfMemoryStop(const Outcome& run, const Outcome& clean, const std::string& where) {
    EXPECT_EQ(run.result.exit_status, 1) << where;
    EXPECT_EQ(run.result.error_output, "Out of memory.") << where;
    EXPECT_TRUE(run.result.fatal.empty()) << where;
    EXPECT_EQ(run.result.console.find("There were"), std::string::npos) << where;
    EXPECT_FALSE(run.files.contains(clean.result.rom_file)) << where;
    for (const auto& [file, bytes] : run.files) {
        auto it = clean.files.find(file);
        ASSERT_NE(it, clean.files.end()) << where << ": " << file;
        EXPECT_EQ(bytes, it->second) << where << ": " << file;
    }
}

TEST(BuildFaults, EveryFailedEncoderAllocationShrinksTheTokenBufferOrStopsTheBuild) {
    std::size_t injected = 0;
    for (const std::string name : {"firmware", "firmware2"}) {
        const Example example = LoadExample(name);
        std::vector<lzh::EncoderAllocation> allocations;
        lzh::EncoderLimits counting;
        counting.allocate = [&](lzh::EncoderAllocation what, std::size_t) {
            allocations.push_back(what);
            return true;
        };
        const Outcome clean = Build(example, std::nullopt, counting);
        ASSERT_EQ(clean.result.exit_status, 0) << clean.result.console;
        // One build, one encoder: its working storage and its token buffer, once each.
        ASSERT_EQ(allocations, (std::vector{lzh::EncoderAllocation::WorkingStorage,
                                            lzh::EncoderAllocation::TokenBuffer}));

        lzh::EncoderLimits no_storage;
        no_storage.allocate = [](lzh::EncoderAllocation what, std::size_t) {
            return what != lzh::EncoderAllocation::WorkingStorage;
        };
        ExpectOutOfMemoryStop(Build(example, std::nullopt, no_storage), clean,
                              name + ": working storage");
        ++injected;

        // The token buffer failing 1, 2, ... times: the next smaller size is used, and the
        // image is the one a build that may have no larger buffer makes; when 4096 bytes
        // cannot be had either, the build stops.
        std::vector<std::size_t> sizes;
        for (std::size_t size = 16384; size >= 4096; size = size / 10 * 9) sizes.push_back(size);
        for (std::size_t failures = 1; failures <= sizes.size(); ++failures) {
            const std::string where = name + ": token buffer failing " + std::to_string(failures);
            std::vector<std::size_t> asked;
            lzh::EncoderLimits limits;
            limits.allocate = [&](lzh::EncoderAllocation what, std::size_t bytes) {
                if (what != lzh::EncoderAllocation::TokenBuffer) return true;
                asked.push_back(bytes);
                return asked.size() > failures;
            };
            const Outcome run = Build(example, std::nullopt, limits);
            injected += failures;
            if (failures == sizes.size()) {
                ExpectOutOfMemoryStop(run, clean, where);
                EXPECT_EQ(asked, sizes);
                continue;
            }
            ASSERT_EQ(run.result.exit_status, 0) << where << "\n" << run.result.console;
            EXPECT_EQ(asked.back(), sizes[failures]) << where;
            lzh::EncoderLimits limited;
            limited.token_buffer_limit = sizes[failures];
            const Outcome reference = Build(example, std::nullopt, limited);
            EXPECT_EQ(run.files, reference.files) << where;
            EXPECT_EQ(run.result.console, reference.result.console) << where;
        }
    }
    std::cout << "encoder allocation faults injected: " << injected << "\n";
}

}  // namespace
}  // namespace fwforge
