#include "layout/module_chain.h"

#include "format/checksum.h"
#include "layout/main_header.h"

namespace fwforge {
namespace {

// The header extension (DataSize, Checksum) sits in front of the base header that
// links point at.
constexpr std::uint32_t kBase = module_header::kExtensionSize;

}  // namespace

std::uint32_t LinkTo(const BuildContext& ctx, std::uint32_t header, bool from_main_header) {
    if (!ctx.description.RomImage.Use32BitMode) {
        return RealModeLink(ctx.description.Bios.BiosSize, header);
    }
    // Links inside a non-critical block count from the block's start; the main BIOS
    // header's own link is always an image offset.
    return Link32(header, from_main_header ? 0 : ctx.layout.NcbBase);
}

std::uint32_t ModuleHeaderChecksum(const BuildContext& ctx, std::uint32_t header) {
    const std::vector<std::uint8_t>& buf = ctx.image.ImageBuffer;
    const std::uint8_t* h = buf.data() + header;
    std::size_t covered = module_header::kSize;
    const bool linked = h[module_header::ModuleAttributes.offset] & module_attr::LinkedRom;
    if (!linked && ctx.layout.SplitPending == 0) {
        covered += load_le32(h + module_header::DataSize.offset);
    }
    const std::uint32_t stored = load_le32(h + module_header::Checksum.offset);
    std::uint32_t sum = DwordSum(buf, header, covered) - stored;
    if (ctx.layout.SplitPending != 0) sum += ctx.layout.SplitDataSum;
    return 0u - sum;
}

void LinkToLastHeader(BuildContext& ctx) {
    LayoutState& layout = ctx.layout;
    if (layout.SkipNextLink) return;
    const std::uint32_t header = ctx.image.PlacementCursor;
    std::uint8_t* buf = ctx.image.ImageBuffer.data();
    if (layout.LastHeader == layout.MainHeader) {
        store_le32(buf + layout.MainHeader + main_header::FirstLink.offset,
                   LinkTo(ctx, header, true));
    } else {
        store_le32(buf + layout.LastHeader, LinkTo(ctx, header, false));
    }
}

void SealLastHeader(BuildContext& ctx) {
    LayoutState& layout = ctx.layout;
    if (layout.SkipNextLink) {
        layout.SkipNextLink = false;
        return;
    }
    if (layout.LastHeader == layout.MainHeader) return;
    const std::uint32_t header = layout.LastHeader - kBase;
    std::uint8_t* checksum = ctx.image.ImageBuffer.data() + header + module_header::Checksum.offset;
    store_le32(checksum, 0);
    store_le32(checksum, ModuleHeaderChecksum(ctx, header));
    layout.SplitPending = 0;
    layout.SplitDataSum = 0;
}

void SealNewHeader(BuildContext& ctx) {
    const std::uint32_t header = ctx.image.PlacementCursor;
    std::uint8_t* h = ctx.image.ImageBuffer.data() + header;
    store_le32(h + module_header::NextModuleLink.offset, kEndOfChain);
    store_le32(h + module_header::Checksum.offset, 0);
    store_le32(h + module_header::Checksum.offset, ModuleHeaderChecksum(ctx, header));
}

bool IsLinkedAddonRom(const ModuleEntry& entry) {
    return entry.Header.id == kAddonRomModuleId && entry.LinkVendorId != 0xFFFF &&
           entry.LinkDeviceId != 0xFFFF;
}

}  // namespace fwforge
