#include "driver/compression_plan.h"

#include <algorithm>
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
                                         unsigned uses, bool again = false) {
    auto load = [&files, name = std::move(name)]() -> std::optional<std::vector<std::uint8_t>> {
        platform::WholeFile file = platform::ReadWholeFile(files, name);
        if (file.failure != platform::WholeFile::Failure::None) return std::nullopt;
        return std::move(file.bytes);
    };
    return {std::move(load), uses, again};
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

void AnnouncePlacementCompressions(BuildContext& ctx) {
    if (ctx.options.CompressionThreads < 2) return;
    const BuildDescription& desc = ctx.description;
    std::vector<std::uint32_t> fixed, whole, blocks;
    for (std::uint32_t m = 0; m < desc.ModuleCount && m < desc.ModuleTable.size(); ++m) {
        const ModuleEntry& entry = desc.ModuleTable[m];
        // Sizing has marked what it stores as it is.
        if (IsLinkedAddonRom(entry) ||
            !IsCompressedByBuild(entry.Header.attributes, entry.CompressionFlags)) {
            continue;
        }
        if (!entry.RomRegion.empty()) {
            blocks.push_back(m);
        } else if (entry.RomHoleIndex != kNoIndex) {
            fixed.push_back(m);
        } else {
            whole.push_back(m);
        }
    }
    // As the placement selects them: those that must not be split first, the largest
    // first, the lower index among equals.
    std::stable_sort(whole.begin(), whole.end(), [&desc](std::uint32_t a, std::uint32_t b) {
        const ModuleEntry& x = desc.ModuleTable[a];
        const ModuleEntry& y = desc.ModuleTable[b];
        if (x.Contiguous != y.Contiguous) return x.Contiguous > y.Contiguous;
        return x.PlacedSize > y.PlacedSize;
    });
    std::vector<lzh::BuildCompressor::Expected> runs;
    for (const std::vector<std::uint32_t>* group : {&fixed, &whole, &blocks}) {
        for (const std::uint32_t m : *group) {
            runs.push_back(ModuleFile(ctx.files, desc.ModuleTable[m].FileName, 1, true));
        }
    }
    ctx.Compressor().Expect(std::move(runs));
}

}  // namespace fwforge
