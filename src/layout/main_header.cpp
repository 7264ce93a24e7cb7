#include "layout/main_header.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "platform/text_format.h"

namespace fwforge {

std::uint32_t MainHeaderBlockSize(const BuildDescription& description) {
    return main_header::BlockSize(description.MainHeaderExtension);
}

void CreateMainHeader(BuildContext& ctx) {
    const BuildDescription& desc = ctx.description;
    ImageState& image = ctx.image;
    ctx.diag.Print(" Creating main BIOS header\n");
    if (ctx.options.VerboseMode) {
        ctx.diag.Printf("\nTop of BIOS (main header end) = %x\n",
                        image.PlacementCursor + image.AddressBase);
    }
    const std::uint32_t block = MainHeaderBlockSize(desc);
    const std::uint32_t top = image.PlacementCursor;
    image.PlacementCursor -= block;
    if (ctx.options.VerboseMode) {
        ctx.diag.Printf("Placing main BIOS header at %x\n\n",
                        image.PlacementCursor + image.AddressBase);
    }
    // The end-of-script check lets a BIOS size below its 40-byte reserve through (the
    // subtraction wraps), which can leave fewer bytes than the block below the top areas.
    if (top < block || top > image.ImageBuffer.size()) {
        ctx.diag.Fatal(StrFormat(
            "BIOS size %x leaves %x bytes below the boot block (bbsize %x), Extended Boot "
            "Block (maxebbsize %x) and NVRAM (nvramsize %x), too few for the main BIOS "
            "header of %x bytes",
            desc.Bios.BiosSize, top, desc.Bios.BootBlockSize, desc.Bios.MaxEbbSize,
            desc.Bios.NvramSize, block));
    }
    std::uint8_t* start = image.ImageBuffer.data() + image.PlacementCursor;
    std::fill_n(start, desc.MainHeaderExtension + main_header::kSize, std::uint8_t{0});
    std::uint8_t* sig = start + desc.MainHeaderExtension;
    if (!ctx.options.CompatibilityMode) {
        sig[main_header::RomImageVersion] = desc.RomImage.RomImageVersion;
        sig[main_header::RomImageFlags] = desc.RomImage.RomImageFlags;
    }
    sig[main_header::ModuleExtensionSize] = desc.ModuleHeaderExtension;
    sig[main_header::MainExtensionSize] = desc.MainHeaderExtension;
    std::memcpy(sig + main_header::Signature.offset, main_header::kSignature.data(),
                main_header::Signature.width);
    store_le32(sig + main_header::BootBlockStamp.offset, desc.BootBlockStamp);

    ctx.layout.MainHeader = image.PlacementCursor + desc.MainHeaderExtension;
    ctx.layout.LastHeader = ctx.layout.MainHeader;
}

void FinishMainHeader(BuildContext& ctx, PlacementMode mode) {
    ImageState& image = ctx.image;
    std::vector<std::uint8_t>& buf = image.ImageBuffer;
    const std::uint32_t header = ctx.layout.MainHeader;
    const std::uint32_t end = header + main_header::kSize;

    std::uint32_t length = end;
    if (mode == PlacementMode::Sequential) {
        // The region starts on an 8-byte boundary; the firmware reads the bytes between
        // that boundary and the lowest module as part of the main BIOS, so they get a
        // fixed value ('0') instead of staying erased.
        const std::uint32_t r = image.PlacementCursor % main_header::kLengthUnit;
        const std::uint32_t bottom = image.PlacementCursor - r;
        std::fill(buf.begin() + bottom, buf.begin() + image.PlacementCursor, std::uint8_t{0x30});
        length = end - bottom;
        if (length < main_header::kRegionCap) image.PlacementCursor = bottom;
    }

    std::uint8_t* sig = buf.data() + header;
    if (length >= main_header::kRegionCap) {
        store_le16(sig + main_header::Length.offset, main_header::kCappedLength);
        length = main_header::kRegionCap - 1;
    } else {
        store_le16(sig + main_header::Length.offset,
                   static_cast<std::uint16_t>(length / main_header::kLengthUnit));
    }
    store_le32(sig + main_header::Checksum.offset, 0);
    const std::uint32_t covered = length / main_header::kLengthUnit * main_header::kLengthUnit;
    store_le32(sig + main_header::Checksum.offset, DwordChecksum(buf, end - covered, covered));
}

}  // namespace fwforge
