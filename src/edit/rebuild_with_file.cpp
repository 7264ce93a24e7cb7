#include "edit/rebuild_with_file.h"

#include "rebuild/rebuild.h"

namespace fwforge::edit {
namespace {

constexpr const char* kNewFile = "replacement.bin";

}  // namespace

Rebuild RebuildWithFile(const inspect::ImageModel& model, const inspect::ExtractPlan& plan,
                        const inspect::Module& module, std::span<const std::uint8_t> file,
                        bool compress) {
    const std::size_t k = static_cast<std::size_t>(&module - model.modules.data());
    Rebuild out;
    // The module's record takes the new file: compressed by the build, or stored as it
    // is (nowcompressed) when the module is compressed and the file holds its stored data.
    BuildDescription description = plan.description;
    const inspect::ModuleEntryRef ref = plan.module_entries[k];
    std::string* name = nullptr;
    std::uint8_t* flags = nullptr;
    if (ref.index != inspect::ModuleEntryRef::kNoEntry && ref.ebb) {
        name = &description.EbbModuleList[ref.index].FileName;
        flags = &description.EbbModuleList[ref.index].CompressionFlags;
    } else if (ref.index != inspect::ModuleEntryRef::kNoEntry) {
        name = &description.ModuleTable[ref.index].FileName;
        flags = &description.ModuleTable[ref.index].CompressionFlags;
    }
    if (!name || name->empty()) {
        out.error =
            "the rebuild script names no file for " + inspect::DescribeModule(model, module);
        return out;
    }
    *name = kNewFile;
    *flags &= static_cast<std::uint8_t>(~compression_flag::AlreadyCompressed);
    if (module.Compressed() && !compress) *flags |= compression_flag::AlreadyCompressed;

    const rebuild::Built built = rebuild::BuildInMemory(
        plan, description, {{kNewFile, std::vector<std::uint8_t>(file.begin(), file.end())}});
    out.image = built.image;
    out.error = built.error;
    return out;
}

}  // namespace fwforge::edit
