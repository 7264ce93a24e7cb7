#include "driver/compression_plan.h"

#include <new>
#include <optional>
#include <string>
#include <vector>

#include "layout/module_chain.h"
#include "layout/module_data.h"
#include "platform/file_system.h"

namespace fwforge {
namespace {

// Reads a whole module file; nothing when it cannot be read, which the build reports
// in its own words when it gets there.
lzh::BuildCompressor::Expected ModuleFile(platform::FileSystem& files, std::string name,
                                         unsigned uses) {
    auto load = [&files, name = std::move(name)]() -> std::optional<std::vector<std::uint8_t>> {
        platform::WholeFile file = platform::ReadWholeFile(files, name);
        if (file.failure != platform::WholeFile::Failure::None) return std::nullopt;
        return std::move(file.bytes);
    };
    return {std::move(load), uses};
}

}  // namespace

void AnnounceModuleCompressions(BuildContext& ctx) {
    if (ctx.options.CompressionThreads < 2) return;
    const BuildDescription& desc = ctx.description;
    std::vector<lzh::BuildCompressor::Expected> runs;
    if (desc.Bios.MaxEbbSize != 0) {
        for (const EbbModuleRecord& record : desc.EbbModuleList) {
            if (IsCompressedByBuild(record.Header.attributes, record.CompressionFlags)) {
                runs.push_back(ModuleFile(ctx.files, record.FileName, 1));
            }
        }
    }
    for (std::uint32_t m = 0; m < desc.ModuleCount && m < desc.ModuleTable.size(); ++m) {
        const ModuleEntry& entry = desc.ModuleTable[m];
        if (!IsLinkedAddonRom(entry) &&
            IsCompressedByBuild(entry.Header.attributes, entry.CompressionFlags)) {
            runs.push_back(ModuleFile(ctx.files, entry.FileName, 2));
        }
    }
    ctx.Compressor().Expect(std::move(runs));
}

}  // namespace fwforge
