#include "edit/replace_in_place.h"

#include <algorithm>

#include "check/verify.h"
#include "format/block_header.h"
#include "format/checksum.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "image/extents.h"
#include "layout/module_insertion.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

using inspect::ImageModel;
using inspect::Module;
using inspect::ModuleArea;

constexpr std::uint32_t kHeader = module_header::kSize;

// The first byte at or above `from` that belongs to another item of the module's area:
// the next module of its block or the block's end, or the next item of the main BIOS.
std::uint32_t NextItem(const ImageModel& model, const Module& module, std::uint32_t from) {
    std::uint32_t limit = model.size;
    if (module.area == ModuleArea::Main) {
        for (const inspect::Extent& e : inspect::TopLevelExtents(model)) {
            if (e.end > from && e.begin < limit && e.begin != module.header.offset) {
                limit = std::max(from, e.begin);
            }
        }
        return limit;
    }
    const inspect::Block& block =
        module.area == ModuleArea::Ebb ? *model.ebb : model.ncbs[module.block];
    limit = block.offset + block.length;
    for (const Module* other : model.ModulesIn(module.area, module.block)) {
        if (other != &module && other->header.offset >= from) {
            limit = std::min(limit, other->header.offset);
        }
    }
    return limit;
}

// Seals a module header: its checksum makes the header and the `covered` bytes after
// it sum to zero.
void SealHeader(std::vector<std::uint8_t>& image, std::uint32_t header, std::uint32_t covered) {
    store_le32(&image[header + module_header::Checksum.offset], 0);
    store_le32(&image[header + module_header::Checksum.offset],
               DwordChecksum(image, header, kHeader + std::size_t(covered)));
}

void SetDataSize(std::vector<std::uint8_t>& image, std::uint32_t header, std::uint32_t size) {
    store_le32(&image[header + module_header::DataSize.offset], size);
    store_le16(&image[header + module_header::DataSize16.offset], DataSize16For(size));
}

// The doublewords of the main BIOS header's region that the bytes [lo, hi) fall into.
std::uint32_t RegionSum(std::span<const std::uint8_t> image, const inspect::MainHeader& main,
                        std::uint32_t lo, std::uint32_t hi) {
    const std::uint32_t end = main.End();
    const std::uint32_t begin = end - main_header::RegionLength(main.length);
    lo = std::max(lo, begin);
    hi = std::min(hi, end);
    if (lo >= hi) return 0;
    lo = begin + ((lo - begin) & ~3u);
    hi = begin + ((hi - begin + 3) & ~3u);
    return DwordSum(image, lo, hi - lo);
}

}  // namespace

std::string ReplaceInPlace(std::vector<std::uint8_t>& image, const ImageModel& model,
                           const Module& module, std::vector<std::uint8_t> data,
                           std::optional<std::uint32_t> stamp) {
    const std::uint32_t header = module.header.offset;
    const std::uint32_t at = header + kHeader;
    const std::uint32_t old_size = module.header.data_size;
    const std::uint32_t old_end = at + old_size;
    const std::uint64_t new_size = (std::uint64_t(data.size()) + 3) & ~std::uint64_t(3);

    std::uint32_t free = 0;
    const std::uint32_t limit = NextItem(model, module, old_end);
    while (old_end + free < limit && image[old_end + free] == 0xFF) ++free;
    if (new_size > std::uint64_t(old_size) + free) {
        return StrFormat(
            "%s: the new data takes %llx bytes, but the module has room for %x bytes only "
            "(its %x stored bytes and the %x free bytes directly after them)",
            inspect::DescribeModule(model, module).c_str(),
            static_cast<unsigned long long>(new_size), old_size + free, old_size, free);
    }
    const auto size = static_cast<std::uint32_t>(new_size);

    // A module of descriptors with an alignment carries its own address and size; the
    // build patches them into whatever data it stores, so the new data is patched too
    // (data that is already the stored data keeps its patches).
    const std::vector<std::uint8_t> old_data(image.begin() + at, image.begin() + old_end);
    if (module.area == ModuleArea::Main && module.header.id == kDescriptorModuleId &&
        data != old_data) {
        for (const inspect::ImageInfoItemConstrained& c : model.info.constrained) {
            if (c.insertion_index != module.index || c.alignment == 0) continue;
            // Only the data's own bytes are stored; patches beyond them are lost.
            const std::size_t length = data.size();
            PatchDescriptors(data, at, size, model.size);
            data.resize(length);
        }
    }

    // The first linked add-on ROM header lies directly below its parent's.
    std::vector<const Module*> links;
    for (const Module* m = &module + 1;
         m < model.modules.data() + model.modules.size() && m->area == module.area &&
         m->block == module.block && m->Linked();
         ++m) {
        links.push_back(m);
    }
    const std::uint32_t lo = links.empty() ? header : std::min(header, links.back()->header.offset);
    const std::uint32_t hi = std::max(old_end, at + size);
    const std::uint32_t region_before =
        module.area == ModuleArea::Main ? RegionSum(image, *model.main, lo, hi) : 0;
    // The stamp lies in the main BIOS header, far from any module's bytes.
    const std::uint32_t stamp_at = model.main->signature + main_header::BootBlockStamp.offset;
    const std::uint32_t stamp_before = RegionSum(image, *model.main, stamp_at, stamp_at + 4);
    if (stamp) store_le32(&image[stamp_at], *stamp);
    const std::uint32_t stamp_after = RegionSum(image, *model.main, stamp_at, stamp_at + 4);

    // Bytes that the data no longer takes are free space again, as a build leaves it,
    // and so are the rounding bytes behind the new data.
    std::fill(image.begin() + at, image.begin() + hi, std::uint8_t(0xFF));
    std::copy(data.begin(), data.end(), image.begin() + at);
    SetDataSize(image, header, size);
    SealHeader(image, header, size);
    for (const Module* link : links) {
        SetDataSize(image, link->header.offset, size);
        SealHeader(image, link->header.offset, link->link_without_bit ? size : 0);
    }

    // Only the changed doublewords enter the region's sum: ROM holes and blocks in the
    // region were filled after it was sealed and are not counted as they stand.
    const std::uint32_t field = model.main->signature + main_header::Checksum.offset;
    const std::uint32_t region_after =
        module.area == ModuleArea::Main ? RegionSum(image, *model.main, lo, hi) : 0;
    store_le32(&image[field], load_le32(&image[field]) + region_before - region_after +
                                  stamp_before - stamp_after);
    if (module.area != ModuleArea::Main) {
        const bool ebb = module.area == ModuleArea::Ebb;
        const inspect::Block& block = ebb ? *model.ebb : model.ncbs[module.block];
        WriteBlockHeader(image, block.offset,
                         ebb ? block_header::kEbbSignature : block_header::kNcbSignature,
                         block.length, true,
                         ebb ? HeaderChecksumRule::LowWordOfDwordChecksum
                             : HeaderChecksumRule::WordChecksum);
    }
    return {};
}

}  // namespace fwforge::edit
