#include "bootblock/boot_block.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <vector>

#include "format/checksum.h"
#include "platform/byte_order.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge {

namespace {

// Offsets in the build script count within the top 64 KB segment of the ROM, whose
// last BootBlockSize bytes are the boot block.
constexpr std::uint64_t kTopSegmentSize = 0x10000;

void CheckBootBlockLimits(BuildContext& ctx) {
    const BiosSettings& bios = ctx.description.Bios;
    const InitSettings& init = ctx.description.Init;
    const std::uint32_t size = bios.BootBlockSize;
    if (size == 0 || size % 4 != 0 || size > kTopSegmentSize) {
        ctx.diag.Fatal("Boot block size must be a multiple of 4 between 4 and 65536");
    }
    // Both must lie in the segment's last `size` bytes; the tag with its zero byte.
    const std::uint64_t first = kTopSegmentSize - size;
    const std::uint64_t checksum = init.ChecksumOffset;
    const std::uint64_t tag = init.BiosTagOffset;
    if (checksum < first || checksum + 4 > kTopSegmentSize || tag < first ||
        tag + bios.BiosTag.size() + 1 > kTopSegmentSize) {
        ctx.diag.Fatal("Boot block checksum or tag offset lies outside the boot block");
    }
}

// The end-of-script check compares the sizes in wrapping 32-bit arithmetic, so a boot
// block larger than the image can get this far; it is refused where it would be copied
// into the image, after its file has been written.
void CheckBootBlockFits(BuildContext& ctx) {
    const BiosSettings& bios = ctx.description.Bios;
    const std::uint32_t cursor = ctx.image.PlacementCursor;
    if (cursor > ctx.image.ImageBuffer.size() || cursor < bios.BootBlockSize) {
        ctx.diag.Fatal(
            StrFormat("Boot block does not fit in the ROM image: bbsize 0x%08X is larger than "
                      "the 0x%08X bytes left of size 0x%08X",
                      bios.BootBlockSize, cursor, bios.BiosSize));
    }
}

std::vector<std::uint8_t> ReadBootBlockFile(BuildContext& ctx) {
    auto file = ctx.files.Open(ctx.description.Init.BootBlockFile);
    if (!file) ctx.diag.Fatal("Cannot open boot block file");
    const auto size = file->Size();
    if (!size) ctx.diag.Fatal("Cannot read from boot block file");
    std::vector<std::uint8_t> bytes;
    try {
        bytes.resize(*size);
    } catch (const std::bad_alloc&) {
        ctx.diag.Fatal("Out of memory");
    } catch (const std::length_error&) {
        ctx.diag.Fatal("Out of memory");
    }
    if (!file->ReadExactly(bytes)) ctx.diag.Fatal("Cannot read from boot block file");
    return bytes;
}

}  // namespace

void BuildBootBlock(BuildContext& ctx) {
    const BiosSettings& bios = ctx.description.Bios;
    const InitSettings& init = ctx.description.Init;
    ctx.diag.Print("Generating boot block image...\n");
    CheckBootBlockLimits(ctx);

    const std::uint32_t size = bios.BootBlockSize;
    const std::uint32_t first = std::uint32_t(kTopSegmentSize - size);
    std::vector<std::uint8_t> boot_block(size, 0x00);
    {
        // The file is meant to be a whole 64 KB segment. A shorter one is copied as far
        // as it reaches (the rest stays zero); a longer one gives only the boot block.
        const std::vector<std::uint8_t> file = ReadBootBlockFile(ctx);
        if (file.size() > first) {
            const std::size_t count = std::min<std::size_t>(file.size() - first, size);
            std::copy_n(file.begin() + first, count, boot_block.begin());
        }
    }

    // The tag goes in first so that the checksum covers it.
    const std::size_t tag_at = init.BiosTagOffset - first;
    std::copy(bios.BiosTag.begin(), bios.BiosTag.end(), boot_block.begin() + tag_at);
    boot_block[tag_at + bios.BiosTag.size()] = 0;

    std::uint8_t* checksum = boot_block.data() + (init.ChecksumOffset - first);
    store_le32(checksum, 0);
    store_le32(checksum, DwordChecksum(boot_block, 0, size));

    const std::string name =
        platform::ComposeOutputName(ctx.options.OutputPath, bios.BiosTag + ".int");
    auto out = ctx.files.Create(name);
    if (!out) ctx.diag.Fatal("Cannot create boot block file");
    if (!out->Write(boot_block) || !out->Commit()) {
        ctx.diag.Fatal("Cannot write to boot block file");
    }

    CheckBootBlockFits(ctx);
    ctx.image.PlacementCursor -= size;
    std::copy(boot_block.begin(), boot_block.end(),
              ctx.image.ImageBuffer.begin() + ctx.image.PlacementCursor);
}

}  // namespace fwforge
