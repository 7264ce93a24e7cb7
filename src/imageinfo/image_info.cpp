#include "imageinfo/image_info.h"

#include <algorithm>
#include <string_view>

#include "platform/byte_order.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge {

namespace {

namespace rec = image_info_record;

bool IsConstrained(const ModuleEntry& module) {
    return module.Alignment != 0 || module.RomHoleIndex != kNoIndex;
}

std::size_t ModuleLimit(const BuildDescription& d) {
    return std::min<std::size_t>(d.ModuleCount, d.ModuleTable.size());
}
std::size_t RomHoleLimit(const BuildDescription& d) {
    return std::min<std::size_t>(d.RomHoleCount, d.RomHoleTable.size());
}

std::size_t CountConstrainedModules(const BuildDescription& d) {
    return std::count_if(d.ModuleTable.begin(), d.ModuleTable.begin() + ModuleLimit(d),
                         IsConstrained);
}
std::size_t CountScriptRomHoles(const BuildDescription& d) {
    return std::count_if(d.RomHoleTable.begin(), d.RomHoleTable.begin() + RomHoleLimit(d),
                         [](const RomHoleEntry& hole) { return hole.OwnerModule == kNoIndex; });
}

// Appends records, chaining each new one from the one before it.
class RecordWriter {
  public:
    // Returns the offset of the new record's first item.
    std::size_t Append(std::uint8_t type, std::size_t item_size, std::uint8_t item_count) {
        const std::size_t at = data_.size();
        if (last_ != kNone) store_le16(&data_[last_ + rec::NextOffset.offset], std::uint16_t(at));
        data_.resize(at + rec::kHeadSize + item_size * item_count, 0);
        store_le16(&data_[at + rec::NextOffset.offset], rec::kLastRecord);
        data_[at + rec::Type.offset] = type;
        data_[at + rec::ItemSize.offset] = std::uint8_t(item_size);
        data_[at + rec::ItemCount.offset] = item_count;
        last_ = at;
        return at + rec::kHeadSize;
    }
    std::uint8_t* at(std::size_t offset) { return data_.data() + offset; }
    std::vector<std::uint8_t> Take() { return std::move(data_); }

  private:
    static constexpr std::size_t kNone = ~std::size_t(0);
    std::vector<std::uint8_t> data_;
    std::size_t last_ = kNone;
};

}  // namespace

std::vector<std::uint8_t> ImageInformationData(const BuildDescription& d) {
    RecordWriter out;

    const std::string_view version = kToolVersion;
    std::size_t item = out.Append(rec::kToolVersionType, rec::kToolVersionItemSize, 1);
    std::copy_n(version.begin(), std::min(version.size(), rec::ToolVersion.width),
                out.at(item + rec::ToolVersion.offset));

    item = out.Append(rec::kRomImageType, rec::kRomImageItemSize, 1);
    *out.at(item + rec::RomImageVersion.offset) = d.RomImage.RomImageVersion;
    *out.at(item + rec::RomImageFlags.offset) = d.RomImage.RomImageFlags;

    item = out.Append(rec::kBootBlockOffsetsType, rec::kBootBlockOffsetsItemSize, 1);
    store_le32(out.at(item + rec::BiosTagOffset.offset), d.Init.BiosTagOffset);
    store_le32(out.at(item + rec::ChecksumOffset.offset), d.Init.ChecksumOffset);

    item = out.Append(rec::kBootAreaSizesType, rec::kBootAreaSizesItemSize, 1);
    store_le32(out.at(item + rec::BootAreaSize.offset), d.Bios.BootBlockSize + d.Bios.MaxEbbSize);
    store_le32(out.at(item + rec::NvramSize.offset), d.Bios.NvramSize);

    // The slots follow the script's count of alignment and startaddress keys, which
    // can exceed the number of modules (a key given twice counts twice).
    if (const std::uint8_t slots = d.ConstrainedModuleCount; slots != 0) {
        item = out.Append(rec::kConstrainedModulesType, rec::kModuleItemSize, slots);
        std::size_t written = 0;
        for (std::size_t i = 0; i < ModuleLimit(d) && written < slots; ++i) {
            const ModuleEntry& module = d.ModuleTable[i];
            if (!IsConstrained(module)) continue;
            std::uint8_t* p = out.at(item + written++ * rec::kModuleItemSize);
            p[rec::ModuleInsertionIndex.offset] = module.InsertionIndex;
            p[rec::ModuleAlignment.offset] = module.Alignment;
            store_le32(p + rec::ModuleStartAddress.offset, module.StartAddress);
        }
    }

    if (d.RomHoleCount != d.FixedModuleCount) {
        const std::uint8_t slots = std::uint8_t(d.RomHoleCount - d.FixedModuleCount);
        item = out.Append(rec::kRomHolesType, rec::kRomHoleItemSize, slots);
        std::size_t written = 0;
        for (std::size_t i = 0; i < RomHoleLimit(d) && written < slots; ++i) {
            const RomHoleEntry& hole = d.RomHoleTable[i];
            if (hole.OwnerModule != kNoIndex) continue;
            std::uint8_t* p = out.at(item + written++ * rec::kRomHoleItemSize);
            p[rec::RomHoleKind.offset] = !hole.Name.empty()       ? rec::kNonCriticalBlock
                                         : !hole.FileName.empty() ? rec::kFileHole
                                                                  : rec::kFillerHole;
            p[rec::RomHoleFiller.offset] = hole.Filler;
            store_le32(p + rec::RomHoleStart.offset, hole.StartAddress);
            store_le32(p + rec::RomHoleSize.offset, hole.Size);
        }
    }
    return out.Take();
}

void BuildImageInfoModule(BuildContext& ctx) {
    BuildDescription& d = ctx.description;
    ctx.diag.Print("\nGenerating Image Information Module ...\n");

    // The script reader keeps these consistent; a description that breaks them would
    // describe items the data has no room for, or leave the module no record.
    if (d.ModuleCount >= d.ModuleTable.size()) {
        ctx.diag.Fatal(
            StrFormat("No module record left for the image information module: ModuleCount %u, "
                      "module table of %zu records",
                      d.ModuleCount, d.ModuleTable.size()));
    }
    // A count of 0 (also one that 256 keys have wrapped to 0) writes no 0x40 record, so
    // only a non-zero count can be too small for the items.
    if (const std::size_t n = CountConstrainedModules(d);
        d.ConstrainedModuleCount != 0 && n > d.ConstrainedModuleCount) {
        ctx.diag.Fatal(
            StrFormat("Image information: %zu modules with an alignment or start address, but only "
                      "%u counted",
                      n, unsigned(d.ConstrainedModuleCount)));
    }
    if (d.RomHoleCount > d.RomHoleTable.size() || d.FixedModuleCount > d.RomHoleCount ||
        CountScriptRomHoles(d) > d.RomHoleCount - d.FixedModuleCount) {
        ctx.diag.Fatal(
            StrFormat("Image information: %zu ROMHOLE/NCB records do not match RomHoleCount %u and "
                      "FixedModuleCount %u",
                      CountScriptRomHoles(d), d.RomHoleCount, d.FixedModuleCount));
    }

    const std::vector<std::uint8_t> data = ImageInformationData(d);
    const std::string name =
        platform::ComposeOutputName(ctx.options.OutputPath, d.Bios.BiosTag + ".inf");
    auto file = ctx.files.Create(name);
    if (!file) ctx.diag.Fatal("Cannot create image information file");
    if (!file->Write(data) || !file->Commit()) {
        ctx.diag.Fatal("Cannot write to image information file");
    }

    // The record may still hold a [module] section that went to the Extended Boot
    // Block; the image information module starts from a fresh record instead.
    ModuleEntry& module = d.ModuleTable[d.ModuleCount];
    module = ModuleEntry{};
    module.Header.id = kImageInfoModuleId;
    // Sizing keeps the smaller of compressed and stored, and reads the file back.
    module.CompressionFlags |= compression_flag::MinSize;
    module.RomHoleIndex = kNoIndex;
    module.FileName = name;
}

}  // namespace fwforge
