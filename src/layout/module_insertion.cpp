#include "layout/module_insertion.h"

#include <algorithm>

#include "layout/module_chain.h"
#include "layout/module_data.h"
#include "platform/text_format.h"

namespace fwforge {
namespace {

constexpr std::uint32_t kHeader = module_header::kSize;

PlacementMode ModeOf(const BuildContext& ctx) {
    return ctx.description.RomHoleCount == 0 ? PlacementMode::Sequential : PlacementMode::Gap;
}

// Writes the header at the PlacementCursor and joins it to the chain.
void WriteHeaderAndChain(BuildContext& ctx, const ModuleHeader& header) {
    WriteModuleHeader(ctx.image.ImageBuffer.data() + ctx.image.PlacementCursor, header);
    LinkToLastHeader(ctx);
    SealLastHeader(ctx);
    SealNewHeader(ctx);
    ctx.layout.LastHeader = ctx.image.PlacementCursor + module_header::kExtensionSize;
}

// Our own guard where the header and data are copied: they must lie inside the image.
// Only a stored size that wrapped past 4 GB (a MaxModuleSize just below it) gets here.
void CheckInsideImage(BuildContext& ctx, const ModuleEntry& m, std::uint64_t end) {
    if (end > ctx.image.ImageBuffer.size()) {
        ctx.diag.Fatal(StrFormat(
            "Module %s at image offset %x with %llx bytes reaches past the end of the image "
            "(BIOS size %x)",
            m.FileName.c_str(), ctx.image.PlacementCursor,
            static_cast<unsigned long long>(end - ctx.image.PlacementCursor),
            ctx.description.Bios.BiosSize));
    }
}

// Our own guard for gap placement: the room was reserved from the module's sized
// footprint, and the module as stored must not run into whatever lies above it.
void CheckInsideRoom(BuildContext& ctx, const ModuleEntry& m, std::uint64_t end) {
    if (end > ctx.layout.RoomEnd) {
        ctx.diag.Fatal(StrFormat(
            "Module %s at image offset %x ends at %llx, past the end %llx of the room "
            "reserved for it (PlacedSize %x, alignment %x)",
            m.FileName.c_str(), ctx.image.PlacementCursor, static_cast<unsigned long long>(end),
            static_cast<unsigned long long>(ctx.layout.RoomEnd), m.PlacedSize, m.Alignment));
    }
}

}  // namespace

std::uint64_t LoadModuleData(BuildContext& ctx, const ModuleEntry& m, bool trace_compression,
                             std::vector<std::uint8_t>& buffer) {
    std::uint32_t n = 0;
    buffer = ReadModuleFile(ctx, m.FileName, n);
    std::uint64_t d = n;
    if (IsCompressedByBuild(m.Header.attributes, m.CompressionFlags)) {
        if (trace_compression && ctx.options.VerboseMode &&
            m.Header.id == kImageInfoModuleId) {
            ctx.diag.Print(" (compressed)");
        }
        d = CompressInPlace(ctx, buffer, n).total;
    }
    if (m.MaxModuleSize != 0) {
        if (m.MaxModuleSize < d) ctx.diag.Fatal("MaxModuleSize is too small for this module");
        d = m.MaxModuleSize;
    }
    // What a buffer of MaxModuleSize bytes would hold beyond the file (0xFF) is supplied
    // where the data is copied, so a MaxModuleSize far beyond the image allocates nothing.
    return d;
}

void PlaceFixedModule(BuildContext& ctx, std::uint32_t index) {
    ModuleEntry& m = ctx.description.ModuleTable[index];
    if (m.RomHoleIndex == kNoIndex) return;
    m.PlacementState = Placed;
    // The header address is a ROM address; the gap map has checked the reservation
    // around it, which starts at or below it, against the image.
    ctx.image.PlacementCursor = m.HeaderAddress - ctx.image.AddressBase;
    ctx.layout.RoomEnd = std::uint64_t{ctx.image.PlacementCursor} + m.PlacedSize;
    InsertModule(ctx, index);
}

void InsertModule(BuildContext& ctx, std::uint32_t index) {
    BuildDescription& desc = ctx.description;
    ImageState& image = ctx.image;
    ModuleEntry& m = desc.ModuleTable[index];
    const PlacementMode mode = ModeOf(ctx);

    std::uint32_t linked = 0;
    if (mode == PlacementMode::Sequential) {
        if (IsLinkedAddonRom(m)) {
            InsertLinkedRom(ctx, index);
            return;
        }
    } else {
        // The headers of the linked add-on ROMs take the bytes below the parent's header.
        linked = m.LinkedRomCount;
        image.PlacementCursor += kHeader * linked;
    }
    m.InsertionIndex = ctx.layout.InsertionCounter++;
    ctx.diag.Printf(" Inserting %s as module id %02X", m.FileName.c_str(), m.Header.id);

    std::vector<std::uint8_t> buffer;
    const std::uint64_t d = LoadModuleData(ctx, m, true, buffer);
    // The stored size is 32-bit, as the header holds it; a data length within a few bytes
    // of 4 GB wraps, and the copy below refuses it.
    std::uint32_t s = (static_cast<std::uint32_t>(d) + 3) & ~3u;
    if (m.Alignment != 0) {
        if (mode == PlacementMode::Sequential) {
            // Widen the module so that its data, which ends at the cursor, starts on a
            // multiple of Alignment.
            s += (image.PlacementCursor - s) % m.Alignment;
        }
        if (m.Header.id == kDescriptorModuleId) {
            const std::uint32_t data_offset = mode == PlacementMode::Sequential
                                                  ? image.PlacementCursor - s
                                                  : image.PlacementCursor + kHeader;
            PatchDescriptors(buffer, data_offset, s, desc.Bios.BiosSize);
        }
    }
    m.Header.SetDataSizes(s);

    if (mode == PlacementMode::Sequential) {
        ctx.layout.LastRequest = {RoomRegion::Main, index, std::uint64_t{s} + kHeader,
                                  image.PlacementCursor};
        if (image.PlacementCursor < s + kHeader) ctx.diag.Fatal("Out of ROM space!");
        image.PlacementCursor -= s + kHeader;
        // The image information module is the lowest item; its header starts on an
        // 8-byte boundary, where the main BIOS header's checksummed region begins.
        if (index == desc.ModuleCount) image.PlacementCursor &= ~7u;
    }
    ctx.diag.Printf(" at %x\n", image.PlacementCursor + image.AddressBase);

    CheckInsideImage(ctx, m, std::uint64_t{image.PlacementCursor} + kHeader + d);
    if (mode == PlacementMode::Gap) {
        CheckInsideRoom(ctx, m, std::uint64_t{image.PlacementCursor} + kHeader + s);
    }
    const auto data = image.ImageBuffer.begin() + image.PlacementCursor + kHeader;
    const std::uint64_t held = std::min<std::uint64_t>(d, buffer.size());
    std::fill(std::copy_n(buffer.begin(), held, data), data + d, std::uint8_t{0xFF});
    WriteHeaderAndChain(ctx, m.Header);
    buffer = {};

    for (std::uint32_t k = 1; k <= linked; ++k) InsertLinkedRom(ctx, index + k);
}

void InsertLinkedRom(BuildContext& ctx, std::uint32_t index) {
    ImageState& image = ctx.image;
    ModuleEntry& k = ctx.description.ModuleTable[index];
    ctx.diag.Print(" Inserting linked addon-rom");
    // The main BIOS header is no add-on ROM's header either.
    if (ctx.layout.LastHeader == ctx.layout.MainHeader) {
        ctx.diag.Fatal("Addon-rom must precede linked modules");
    }
    const std::uint8_t* last =
        image.ImageBuffer.data() + ctx.layout.LastHeader - module_header::kExtensionSize;
    if (last[module_header::ModuleId.offset] != kAddonRomModuleId) {
        ctx.diag.Fatal("Addon-rom must precede linked modules");
    }
    k.InsertionIndex = ctx.layout.InsertionCounter++;
    k.Header.SetDataSizes(load_le32(last + module_header::DataSize.offset));
    // A linked header needs its 20 bytes and one more below it.
    ctx.layout.LastRequest = {RoomRegion::Main, index, kHeader + 1, image.PlacementCursor};
    if (ModeOf(ctx) == PlacementMode::Sequential && image.PlacementCursor <= kHeader) {
        ctx.diag.Fatal("Not enough free space in ROM file to insert module");
    }
    const std::uint32_t below = image.PlacementCursor;
    image.PlacementCursor -= kHeader;
    ctx.diag.Printf(" at %x\n", image.PlacementCursor + image.AddressBase);
    // In gap placement the parent's room holds the link headers at its bottom, so this
    // guards the copy only.
    if (below < kHeader) {
        ctx.diag.Fatal(
            StrFormat("Linked addon-rom header at image offset %x does not fit "
                      "below its parent",
                      below));
    }
    WriteHeaderAndChain(ctx, k.Header);
}

void PatchDescriptors(std::vector<std::uint8_t>& data, std::uint32_t data_offset,
                      std::uint32_t stored_size, std::uint32_t bios_size) {
    // The three 16-bit values can put the patches up to 128 KB past the data's start.
    // The module buffer grows to hold them, erased like the rest of it; what lands past
    // the bytes that are stored never reaches the image.
    auto reach = [&](std::uint32_t end) {
        if (data.size() < end) data.resize(end, 0xFF);
    };
    reach(10);
    const std::uint32_t g = load_le16(&data[4]);
    const std::uint32_t p = load_le16(&data[6]);
    const std::uint32_t b = load_le16(&data[8]);
    // The address of the data's first byte when the image ends at 0xFFFFFFFF.
    const std::uint32_t a = data_offset - bios_size;

    const std::uint32_t pointer = (p + 2) % 0x10000;
    const std::uint32_t code = b + g;
    const std::uint32_t rw = b + (g + 8) % 0x10000;
    reach(std::max({pointer + 4, code + 8, rw + 8}));

    store_le32(&data[pointer], a + b);
    // Byte granularity, 16-bit segments: limit bits 16-19 from the size, flags 0.
    auto descriptor = [&](std::uint32_t at, std::uint8_t access) {
        store_le16(&data[at], static_cast<std::uint16_t>(stored_size));
        store_le16(&data[at + 2], static_cast<std::uint16_t>(a));
        data[at + 4] = static_cast<std::uint8_t>(a >> 16);
        data[at + 5] = access;
        data[at + 6] = static_cast<std::uint8_t>((stored_size >> 16) & 0x0F);
        data[at + 7] = static_cast<std::uint8_t>(a >> 24);
    };
    descriptor(code, 0x9B);  // present, ring 0, code, readable, accessed
    descriptor(rw, 0x93);    // present, ring 0, data, writable, accessed
}

}  // namespace fwforge
