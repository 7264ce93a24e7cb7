#pragma once
// A structural checker for built ROM images: finds the main BIOS header, checks its
// region sum and length, walks the module chain from it in either link form and checks
// every module header's checksum. Tests of every layout feature reuse it.

#include <cstdint>
#include <optional>
#include <sstream>
#include <span>
#include <string>
#include <vector>

#include "context/build_context.h"

namespace fwforge::testing {

struct ChainEntry {
    std::uint32_t header = 0;  // image offset of the module header's first byte
    std::uint32_t data_size = 0;
    std::uint16_t data_size16 = 0;
    std::uint8_t module_id = 0;
    std::uint8_t attributes = 0;
    std::uint16_t dest_offset = 0;   // or VendorId
    std::uint16_t dest_segment = 0;  // or DeviceId
    // Data bytes behind this header itself: none for a linked add-on ROM, what the
    // earlier pieces left for the last piece of a split module.
    std::uint32_t own_size = 0;
    // Data of this header: none for a linked add-on ROM.
    std::uint32_t data() const { return header + 20; }
};

struct MainBiosCheck {
    std::vector<std::string> problems;  // empty when the image is sound
    std::uint32_t main_header = 0;      // image offset of the signature
    std::uint32_t region_start = 0;     // first byte covered by the header checksum
    std::uint16_t length_field = 0;
    std::vector<ChainEntry> chain;      // in chain order
    // Sum of the data doublewords of the last module of the chain, all its pieces
    // included; a non-critical block built after a split module counts it (see CheckNcb).
    std::uint32_t last_module_data_sum = 0;
};

// A range of image offsets.
struct ByteRange {
    std::uint32_t start = 0;
    std::uint32_t size = 0;
};

struct NcbCheck {
    std::vector<std::string> problems;
    std::uint32_t block_length = 0;
    std::vector<ChainEntry> chain;  // the block's own chain, headers as image offsets
};

// How links are encoded: 32-bit image offsets, or 16-bit offset:segment real-mode
// addresses of an image that ends at 0xFFFFF.
enum class LinkForm { Real16, Flat32 };

// Image offset of the main BIOS header's signature: the highest "ZELBIOSC" whose
// extension sizes are 8 and 10. Returns 0xFFFFFFFF when there is none.
std::uint32_t FindMainHeader(std::span<const std::uint8_t> rom);

// Checks the main BIOS of `rom`: the header's region sums to 0 and its length field
// matches the region (capped at 0xFFFF for 0x80000 bytes or more), the chain reaches
// 0xFFFFFFFF without leaving the image or looping, and every header with its covered
// data sums to 0 (a split module's pieces are summed into its last header).
// Ranges in `erased` were written after the header was sealed (ROM holes and
// non-critical blocks); the region sum counts them as the 0xFF they held then.
MainBiosCheck CheckMainBios(std::span<const std::uint8_t> rom, LinkForm form,
                            std::span<const ByteRange> erased = {});

// Checks the non-critical block at image offset `block`: signature and header length,
// the header's words sum to 0, the block's doublewords sum to 0 with HeaderChecksum
// taken as 0, and its own chain (32-bit links from the block's start, every module
// inside the block) with every module summing to 0. A block built right after a split
// module starts its chain while the split is still pending: its first module's checksum
// then covers its header alone plus `pending_split_sum`.
NcbCheck CheckNcb(std::span<const std::uint8_t> rom, std::uint32_t block,
                  std::optional<std::uint32_t> pending_split_sum = std::nullopt);

// The 32-bit wrapping sum of the little-endian doublewords of `bytes`.
std::uint32_t SumDwords(std::span<const std::uint8_t> bytes);
// The same over `length` bytes from `start`; a last doubleword that reaches past the
// range takes the bytes after it, and bytes past the end of `rom` count as 0.
std::uint32_t SumDwords(std::span<const std::uint8_t> rom, std::size_t start, std::size_t length);

// A range that a build script reserved, as image offsets, with what it must hold.
struct ReservedRange {
    enum Kind { Hole, Block, FixedModule } kind = Hole;
    std::uint32_t start = 0;
    std::uint32_t size = 0;
    std::uint8_t filler = 0xFF;
    std::vector<std::uint8_t> file;  // a ROM hole's file
};

struct GapImageCheck {
    MainBiosCheck main;
    std::vector<NcbCheck> blocks;  // in the order of `ranges`
    std::vector<std::string> problems;  // main, blocks and layout problems together
};

// Everything a gap-placement image must satisfy: the main BIOS (its region summed as it
// was before the ROM holes were loaded), every non-critical block, ROM holes holding
// their file and filler, block bytes that no module covers holding the filler, every
// module of a start address inside its reservation (the rest of it erased), and no two
// items (main BIOS header, module headers with their data, ROM holes, blocks, the boot
// area from `top` up) overlapping. `info_split` says the image information module was
// split, so that the first module of the blocks built after it counts the pending split
// sum.
GapImageCheck CheckGapImage(std::span<const std::uint8_t> rom, LinkForm form,
                            std::span<const ReservedRange> ranges, std::uint32_t top,
                            bool info_split);

// The reserved ranges of `d` as image offsets (ROM-hole files read), taken before a
// build rewrites the table.
std::vector<ReservedRange> ReservedRangesOf(const BuildDescription& d);

// Builds the image of `ctx` (its console is `console`) and runs CheckGapImage on it. The
// reservations of modules with a start address are sized by the build, so they are read
// back after it; the image information module counts as split when the console says so.
GapImageCheck BuildAndCheckGapImage(BuildContext& ctx, const std::ostringstream& console,
                                    LinkForm form);

// "" when the data of chain entry `e` holds `file`, as it is or compressed; else why not.
std::string HoldsFile(std::span<const std::uint8_t> rom, const ChainEntry& e,
                      const std::vector<std::uint8_t>& file);

}  // namespace fwforge::testing
