#include "bootblock/extended_boot_block.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <vector>

#include "format/block_header.h"
#include "format/checksum.h"
#include "platform/byte_order.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge {

namespace {

using module_header::kSize;  // 20-byte module header

// Without a MaxModuleSize the module buffer leaves this much room behind the file;
// with one, this much behind the larger of both. Either covers the 9 bytes that
// compression may add to the input.
constexpr std::uint64_t kSlackWithoutMaxSize = 4096;
constexpr std::uint64_t kSlackWithMaxSize = 15;

std::vector<std::uint8_t> AllocateFilled(BuildContext& ctx, std::uint64_t size, std::uint8_t fill) {
    try {
        return std::vector<std::uint8_t>(size, fill);
    } catch (const std::bad_alloc&) {
        ctx.diag.Fatal("Out of memory");
    } catch (const std::length_error&) {
        ctx.diag.Fatal("Out of memory");
    }
}

// A module's file in a buffer larger than the file, filled with 0xFF beyond it.
struct ModuleBuffer {
    std::vector<std::uint8_t> bytes;
    std::uint64_t file_size = 0;
};

ModuleBuffer ReadModuleFile(BuildContext& ctx, const EbbModuleRecord& record) {
    auto file = ctx.files.Open(record.FileName);
    if (!file) {
        // The reason follows on the fatal line, which starts a line of its own.
        ctx.diag.Printf("Fail to open file \"%s\"", record.FileName.c_str());
        ctx.diag.Fatal("Cannot open boot block file");
    }
    const auto size = file->Size();
    if (!size) ctx.diag.Fatal("Cannot read module file");
    ModuleBuffer buffer;
    buffer.file_size = *size;
    const std::uint64_t capacity =
        record.MaxModuleSize != 0
            ? std::max<std::uint64_t>(*size, record.MaxModuleSize) + kSlackWithMaxSize
            : *size + kSlackWithoutMaxSize;
    buffer.bytes = AllocateFilled(ctx, capacity, 0xFF);
    if (!file->ReadExactly(std::span(buffer.bytes).first(*size))) {
        ctx.diag.Fatal("Cannot read module file");
    }
    return buffer;
}

// Compresses the module in place at the start of its buffer and returns the stored
// size. When the encoder stopped before the end of the input its stream cannot be
// decoded, so the module is kept as it is in its file and marked NotCompressed.
std::uint64_t CompressInPlace(BuildContext& ctx, EbbModuleRecord& record, ModuleBuffer& buffer) {
    std::vector<std::uint8_t> source = AllocateFilled(ctx, buffer.file_size, 0);
    std::copy_n(buffer.bytes.begin(), buffer.file_size, source.begin());
    if (ctx.options.VerboseMode && record.Header.id == kImageInfoModuleId) {
        ctx.diag.Print(" (compressed)");
    }
    const lzh::CompressResult result = ctx.Compressor().CompressModule(source, buffer.bytes);
    if (result.stopped && result.consumed < buffer.file_size) {
        std::fill(buffer.bytes.begin(), buffer.bytes.end(), std::uint8_t(0xFF));
        std::copy(source.begin(), source.end(), buffer.bytes.begin());
        record.Header.attributes |= module_attr::NotCompressed;
        return buffer.file_size;
    }
    return result.total;
}

void SetModuleLink(std::span<std::uint8_t> image, std::size_t header, std::uint32_t link) {
    store_le32(image.data() + header + module_header::NextModuleLink.offset, link);
}

// Seals a module already in the image: its checksum covers the header and all data.
void SealModule(std::span<std::uint8_t> image, std::size_t header) {
    std::uint8_t* checksum = image.data() + header + module_header::Checksum.offset;
    store_le32(checksum, 0);
    const std::uint32_t data_size =
        load_le32(image.data() + header + module_header::DataSize.offset);
    store_le32(checksum, DwordChecksum(image, header, std::size_t(data_size) + kSize));
}

// The end-of-script check compares the sizes in wrapping 32-bit arithmetic, so a block
// that does not fit below the boot block can get this far.
void CheckEbbFits(BuildContext& ctx, std::uint32_t cursor) {
    const BiosSettings& bios = ctx.description.Bios;
    if (cursor > ctx.image.ImageBuffer.size() || cursor < bios.MaxEbbSize) {
        ctx.diag.Fatal(StrFormat(
            "Extended Boot Block does not fit in the ROM image: maxebbsize 0x%08X is larger "
            "than the 0x%08X bytes left below the boot block (size 0x%08X, bbsize 0x%08X)",
            bios.MaxEbbSize, cursor, bios.BiosSize, bios.BootBlockSize));
    }
}

}  // namespace

void BuildExtendedBootBlock(BuildContext& ctx) {
    const BiosSettings& bios = ctx.description.Bios;
    std::vector<EbbModuleRecord>& modules = ctx.description.EbbModuleList;
    const std::uint32_t ebb_size = bios.MaxEbbSize;
    if (ebb_size == 0) {
        if (!modules.empty()) {
            ctx.diag.Fatal(
                "Some module(s) intended for Extended BootBlock but the Extended BootBlock "
                "size is zero.");
        }
        ctx.diag.Print("BIOS has no Extended Boot Block.\n");
        return;
    }
    ctx.diag.Print("Generating Extended Boot Block image...\n");
    if (ebb_size < block_header::kSize) ctx.diag.Fatal("Extended Boot Block size is too small");
    // The block checksum sums whole doublewords; its last one must lie inside the block.
    if (ebb_size % 4 != 0) ctx.diag.Fatal("Extended Boot Block size must be a multiple of 4");
    const std::uint32_t cursor = ctx.image.PlacementCursor;

    std::span<std::uint8_t> image(ctx.image.ImageBuffer);
    // In 32 bits, as the region is laid out: a block larger than the space below the boot
    // block wraps here, and is refused before its first byte is written.
    const std::uint32_t ebb_start = cursor - ebb_size;
    std::uint64_t fill = block_header::kSize;
    for (std::size_t i = 0; i < modules.size(); ++i) {
        EbbModuleRecord& record = modules[i];
        // Alignment places the module's data, not its header, on a multiple of it in
        // the image; the bytes skipped stay erased and belong to no module.
        if (record.Alignment != 0) {
            const std::uint64_t data_at = ebb_start + fill + kSize;
            fill += (record.Alignment - data_at % record.Alignment) % record.Alignment;
        }
        record.EbbOffset = std::uint32_t(std::min<std::uint64_t>(fill, ebb_size));

        ModuleBuffer buffer = ReadModuleFile(ctx, record);
        ctx.diag.Printf(" Inserting %s as module id %02X", record.FileName.c_str(),
                        record.Header.id);
        std::uint64_t size = buffer.file_size;
        if ((record.Header.attributes & module_attr::NotCompressed) == 0 &&
            (record.CompressionFlags & compression_flag::AlreadyCompressed) == 0) {
            size = CompressInPlace(ctx, record, buffer);
        }
        if (record.MaxModuleSize != 0) {
            if (record.MaxModuleSize < size) {
                ctx.layout.LastRequest = {RoomRegion::EbbModuleLimit, std::uint32_t(i), size,
                                          record.MaxModuleSize};
                ctx.diag.Fatal("MaxModuleSize is too small for this module");
            }
            size = record.MaxModuleSize;
        }
        // Bytes copied after the header; the padding to a multiple of 4 is not written.
        // The buffer always holds them (the encoder adds at most 9 bytes to its input);
        // the bound only keeps a faulty encoder result from reading past it.
        const std::uint64_t data_length = std::min<std::uint64_t>(size, buffer.bytes.size());
        size = (size + 3) & ~std::uint64_t(3);

        ctx.layout.LastRequest = {RoomRegion::Ebb, std::uint32_t(i), size + kSize,
                                  ebb_size - std::min<std::uint64_t>(fill, ebb_size)};
        if (fill + size + kSize > ebb_size) ctx.diag.Fatal("Out of EBB space!");
        record.Header.SetDataSizes(std::uint32_t(size));
        record.Header.checksum = 0;

        const std::uint32_t header = ebb_start + std::uint32_t(fill);
        ctx.diag.Printf(" at %x\n", unsigned(header));
        CheckEbbFits(ctx, cursor);
        WriteModuleHeader(image.data() + header, record.Header);
        std::copy_n(buffer.bytes.begin(), data_length, image.begin() + header + kSize);

        // A module's checksum covers its link, so each is sealed once its link is final:
        // the last at once, every other one when the module after it is written.
        if (i + 1 == modules.size()) {
            SetModuleLink(image, header, kEndOfChain);
            SealModule(image, header);
        }
        if (i != 0) {
            const std::size_t previous = ebb_start + modules[i - 1].EbbOffset;
            SetModuleLink(image, previous, Link32(std::uint32_t(fill), 0));
            SealModule(image, previous);
        }
        fill += size + kSize;
    }

    CheckEbbFits(ctx, cursor);
    WriteBlockHeader(image, ebb_start, block_header::kEbbSignature, ebb_size, !modules.empty(),
                     HeaderChecksumRule::LowWordOfDwordChecksum);
    ctx.image.PlacementCursor = cursor - ebb_size;
}

}  // namespace fwforge
