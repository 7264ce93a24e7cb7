#include "image/extents.h"

#include <algorithm>

#include "format/image_info_records.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

namespace rec = image_info_record;

constexpr std::uint32_t kHeader = module_header::kSize;

}  // namespace

std::vector<Extent> MergedCover(std::vector<Extent> extents) {
    std::sort(extents.begin(), extents.end(),
              [](const Extent& a, const Extent& b) { return a.begin < b.begin; });
    std::vector<Extent> merged;
    for (const Extent& e : extents) {
        if (e.end <= e.begin) continue;
        if (!merged.empty() && e.begin <= merged.back().end) {
            merged.back().end = std::max(merged.back().end, e.end);
        } else {
            merged.push_back({e.begin, e.end, "", ExtentKind::Other});
        }
    }
    return merged;
}

std::vector<Extent> TopLevelExtents(const ImageModel& model, bool with_modules) {
    std::vector<Extent> items;
    auto add = [&](std::uint64_t begin, std::uint64_t size, std::string name, ExtentKind kind) {
        if (size == 0 || begin >= model.size) return;
        const std::uint64_t end = std::min<std::uint64_t>(begin + size, model.size);
        items.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end),
                         std::move(name), kind});
    };
    if (model.boot_block_size) {
        add(model.size - *model.boot_block_size, *model.boot_block_size, "boot block",
            ExtentKind::BootBlock);
    }
    if (model.ebb)
        add(model.ebb->offset, model.ebb->length, "Extended Boot Block", ExtentKind::Ebb);
    if (model.nvram_offset)
        add(*model.nvram_offset, *model.nvram_size, "NVRAM area", ExtentKind::Nvram);
    if (model.main)
        add(model.main->BlockStart(), main_header::kBlockSize, "main BIOS header",
            ExtentKind::MainHeader);
    for (const Module& m : model.modules) {
        if (m.area != ModuleArea::Main || !with_modules) continue;
        const std::string name = DescribeModule(model, m);
        for (std::size_t i = 0; i < m.piece_headers.size(); ++i) {
            add(m.piece_headers[i].offset, kHeader + std::uint64_t(m.pieces[i].length),
                name + StrFormat(" piece %zu", i + 1), ExtentKind::Module);
        }
        const std::uint64_t data = m.Linked() ? 0 : m.pieces.back().length;
        add(m.header.offset, kHeader + data, m.Split() ? name + " last piece" : name,
            ExtentKind::Module);
    }
    for (std::size_t i = 0; i < model.ncbs.size(); ++i) {
        add(model.ncbs[i].offset, model.ncbs[i].length, StrFormat("non-critical block %zu", i + 1),
            ExtentKind::Ncb);
    }
    for (const ImageInfoItemHole& hole : model.info.holes) {
        if (hole.kind == rec::kNonCriticalBlock) continue;  // listed as the block itself
        if (hole.kind == rec::kFileHole) {
            add(hole.start, hole.size, "ROM hole (file)", ExtentKind::RomHoleFile);
        } else {
            add(hole.start, hole.size, "ROM hole", ExtentKind::RomHole);
        }
    }
    std::sort(items.begin(), items.end(),
              [](const Extent& a, const Extent& b) { return a.begin < b.begin; });
    return items;
}

std::vector<FreeRun> FreeSpace(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::vector<FreeRun> runs;
    std::vector<Extent> cover = MergedCover(TopLevelExtents(model));
    cover.push_back({static_cast<std::uint32_t>(image.size()),
                     static_cast<std::uint32_t>(image.size()), "", ExtentKind::Other});
    std::uint32_t from = 0;
    for (const Extent& item : cover) {
        // The bytes between the items, scanned for runs of 0xFF.
        std::uint32_t start = from, length = 0;
        for (std::uint32_t i = from; i <= item.begin; ++i) {
            if (i < item.begin && image[i] == 0xFF) {
                if (length++ == 0) start = i;
                continue;
            }
            if (length >= kMinFreeRun) runs.push_back({start, length});
            length = 0;
        }
        from = std::max(from, item.end);
    }
    return runs;
}

}  // namespace fwforge::inspect
