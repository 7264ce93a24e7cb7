#include "support/image_checks.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "compress/lzh_decoder.h"
#include "driver/image_build.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"
#include "support/test_files.h"

namespace fwforge::testing {
namespace {

constexpr std::uint32_t kEnd = 0xFFFFFFFF;

std::uint32_t LinkTarget(std::span<const std::uint8_t> rom, std::uint32_t link, LinkForm form) {
    if (form == LinkForm::Flat32) return link - 8;
    const std::uint32_t address = (link >> 16) * 16 + (link & 0xFFFF);
    return address - (0x100000u - static_cast<std::uint32_t>(rom.size())) - 8;
}

ChainEntry ReadEntry(std::span<const std::uint8_t> rom, std::uint32_t h) {
    ChainEntry e;
    e.header = h;
    e.data_size = load_le32(&rom[h]);
    e.data_size16 = load_le16(&rom[h + 12]);
    e.module_id = rom[h + 14];
    e.attributes = rom[h + 15];
    e.dest_offset = load_le16(&rom[h + 16]);
    e.dest_segment = load_le16(&rom[h + 18]);
    return e;
}

}  // namespace

std::uint32_t SumDwords(std::span<const std::uint8_t> bytes) {
    return SumDwords(bytes, 0, bytes.size());
}

std::uint32_t SumDwords(std::span<const std::uint8_t> rom, std::size_t start, std::size_t length) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < length; i += 4) {
        for (std::size_t b = 0; b < 4 && start + i + b < rom.size(); ++b) {
            sum += std::uint32_t(rom[start + i + b]) << (8 * b);
        }
    }
    return sum;
}

std::uint32_t FindMainHeader(std::span<const std::uint8_t> rom) {
    for (std::size_t at = rom.size() >= 22 ? rom.size() - 22 : 0; at >= 10; --at) {
        if (std::memcmp(&rom[at], "ZELBIOSC", 8) == 0 && rom[at - 2] == 8 && rom[at - 1] == 10) {
            return static_cast<std::uint32_t>(at);
        }
    }
    return kEnd;
}

MainBiosCheck CheckMainBios(std::span<const std::uint8_t> rom, LinkForm form,
                            std::span<const ByteRange> erased) {
    MainBiosCheck check;
    auto problem = [&](std::string text) { check.problems.push_back(std::move(text)); };
    check.main_header = FindMainHeader(rom);
    if (check.main_header == kEnd) {
        problem("no main BIOS header");
        return check;
    }
    const std::uint32_t end = check.main_header + 22;
    check.length_field = load_le16(&rom[check.main_header + 12]);
    const std::uint32_t covered =
        check.length_field == 0xFFFF ? 0x7FFF8 : std::uint32_t{check.length_field} * 8;
    if (covered > end) {
        problem(StrFormat("main header region of %x bytes reaches below the image", covered));
        return check;
    }
    check.region_start = end - covered;
    std::vector<std::uint8_t> sealed(rom.begin(), rom.end());
    for (const ByteRange& r : erased) {
        for (std::uint64_t i = r.start; i < std::uint64_t{r.start} + r.size && i < sealed.size();
             ++i) {
            sealed[i] = 0xFF;
        }
    }
    if (SumDwords(sealed, check.region_start, covered) != 0) {
        problem("main header region does not sum to 0");
    }

    std::set<std::uint32_t> seen;
    std::uint32_t link = load_le32(&rom[check.main_header + 18]);
    std::uint32_t split_sum = 0;
    std::uint32_t split_bytes = 0;
    bool split_pending = false;
    while (link != kEnd) {
        const std::uint32_t h = LinkTarget(rom, link, form);
        if (std::uint64_t{h} + 20 > rom.size()) {
            problem(StrFormat("link %x leads outside the image", link));
            return check;
        }
        if (!seen.insert(h).second) {
            problem(StrFormat("chain loops at %x", h));
            return check;
        }
        const ChainEntry e = ReadEntry(rom, h);
        check.chain.push_back(e);
        // Headers of split pieces other than the last carry no DataSize16.
        if (!(e.attributes & 0x20) &&
            e.data_size16 != (e.data_size < 0x10000 ? e.data_size : 0xFFFF)) {
            problem(StrFormat("header at %x: DataSize16 %x for DataSize %x", h, e.data_size16,
                              e.data_size));
        }
        const bool linked = e.attributes & 0x40;
        const bool piece = e.attributes & 0x20;
        // The last piece of a split module carries the whole module's DataSize; its own
        // data is what the earlier pieces left.
        std::uint32_t own = linked ? 0 : e.data_size;
        if (split_pending && !linked && !piece) own = e.data_size - split_bytes;
        check.chain.back().own_size = own;
        if (std::uint64_t{h} + 20 + own > rom.size()) {
            problem(StrFormat("module at %x reaches past the image", h));
            return check;
        }
        const std::uint32_t data_sum = SumDwords(rom, h + 20, own);
        if (!linked) {
            check.last_module_data_sum = data_sum + (split_pending ? split_sum : 0);
        }
        if (piece) {
            split_sum += data_sum;
            split_bytes += own;
            split_pending = true;
        } else {
            const std::uint32_t sum = SumDwords(rom, h, 20) + data_sum +
                                      (split_pending && !linked ? split_sum : 0);
            if (sum != 0) problem(StrFormat("module at %x does not sum to 0", h));
            if (!linked) {
                split_pending = false;
                split_sum = 0;
                split_bytes = 0;
            }
        }
        link = load_le32(&rom[h + 8]);
    }
    return check;
}

NcbCheck CheckNcb(std::span<const std::uint8_t> rom, std::uint32_t block,
                  std::optional<std::uint32_t> pending_split_sum) {
    NcbCheck check;
    auto problem = [&](std::string text) { check.problems.push_back(std::move(text)); };
    if (std::uint64_t{block} + 24 > rom.size()) {
        problem(StrFormat("block at %x: no room for its header", block));
        return check;
    }
    const std::uint8_t* h = &rom[block];
    if (std::memcmp(h, "ZELNCBLK", 8) != 0) problem(StrFormat("block at %x: no signature", block));
    if (load_le16(h + 8) != 24) problem(StrFormat("block at %x: header length", block));
    std::uint16_t words = 0;
    for (int i = 0; i < 24; i += 2) words = static_cast<std::uint16_t>(words + load_le16(h + i));
    if (words != 0) problem(StrFormat("block at %x: header words sum to %x", block, words));
    check.block_length = load_le32(h + 12);
    if (std::uint64_t{block} + check.block_length > rom.size()) {
        problem(
            StrFormat("block at %x: length %x reaches past the image", block, check.block_length));
        return check;
    }
    const std::uint32_t dwords =
        SumDwords(rom, block, check.block_length) - load_le16(h + 10) * 0x10000u;
    if (dwords != 0) problem(StrFormat("block at %x: doublewords sum to %x", block, dwords));

    std::uint32_t link = load_le32(h + 20);
    if (link != kEnd && link != 32) problem(StrFormat("block at %x: first module %x", block, link));
    std::set<std::uint32_t> seen;
    bool first = true;
    while (link != kEnd) {
        const std::uint64_t at = std::uint64_t{block} + link - 8;
        if (link < 32 || at + 20 > std::uint64_t{block} + check.block_length) {
            problem(StrFormat("block at %x: link %x leads outside the block", block, link));
            return check;
        }
        const std::uint32_t m = static_cast<std::uint32_t>(at);
        if (!seen.insert(m).second) {
            problem(StrFormat("block at %x: chain loops", block));
            return check;
        }
        const ChainEntry e = ReadEntry(rom, m);
        check.chain.push_back(e);
        const bool linked = e.attributes & 0x40;
        const std::uint32_t own = linked ? 0 : e.data_size;
        check.chain.back().own_size = own;
        if (std::uint64_t{m} + 20 + own > std::uint64_t{block} + check.block_length) {
            problem(StrFormat("module at %x reaches past its block", m));
            return check;
        }
        std::uint32_t sum = SumDwords(rom, m, 20);
        if (first && pending_split_sum) {
            sum += *pending_split_sum;
        } else {
            sum += SumDwords(rom, m + 20, own);
        }
        if (sum != 0) problem(StrFormat("module at %x in block %x does not sum to 0", m, block));
        first = false;
        link = load_le32(&rom[m + 8]);
    }
    return check;
}

GapImageCheck CheckGapImage(std::span<const std::uint8_t> rom, LinkForm form,
                            std::span<const ReservedRange> ranges, std::uint32_t top,
                            bool info_split) {
    GapImageCheck out;
    auto problem = [&](std::string text) { out.problems.push_back(std::move(text)); };
    std::vector<ByteRange> erased;
    for (const ReservedRange& r : ranges) {
        if (r.kind != ReservedRange::FixedModule) erased.push_back({r.start, r.size});
    }
    out.main = CheckMainBios(rom, form, erased);
    for (const auto& p : out.main.problems) problem(p);

    struct Item {
        std::uint64_t start, end;
        std::string what;
    };
    std::vector<Item> items;
    items.push_back({top, rom.size(), "boot area"});
    if (out.main.main_header != kEnd) {
        items.push_back({out.main.main_header - 10u, out.main.main_header + 22u, "main header"});
    }
    for (const ChainEntry& e : out.main.chain) {
        items.push_back({e.header, std::uint64_t{e.header} + 20 + e.own_size,
                         StrFormat("module header at %x", e.header)});
    }

    std::optional<std::uint32_t> pending;
    if (info_split) pending = out.main.last_module_data_sum;
    for (const ReservedRange& r : ranges) {
        const std::uint64_t end = std::uint64_t{r.start} + r.size;
        if (end > rom.size()) {
            problem(StrFormat("range at %x reaches past the image", r.start));
            continue;
        }
        if (r.kind == ReservedRange::FixedModule) {
            // Its module, and the headers of its links, lie inside it.
            continue;
        }
        items.push_back({r.start, end, StrFormat("reserved range at %x", r.start)});
        if (r.kind == ReservedRange::Hole) {
            for (std::uint32_t i = 0; i < r.size; ++i) {
                const std::uint8_t want = i < r.file.size() ? r.file[i] : r.filler;
                if (rom[r.start + i] != want) {
                    problem(StrFormat("ROM hole at %x: byte %x is %x, not %x", r.start, i,
                                      rom[r.start + i], want));
                    break;
                }
            }
            continue;
        }
        NcbCheck block = CheckNcb(rom, r.start, pending);
        for (const auto& p : block.problems) problem(p);
        if (block.block_length != r.size) problem(StrFormat("block at %x: length", r.start));
        // Every byte past the header that no module covers keeps the filler.
        std::vector<bool> covered(r.size, false);
        for (std::uint32_t i = 0; i < 24 && i < r.size; ++i) covered[i] = true;
        for (const ChainEntry& e : block.chain) {
            for (std::uint64_t i = e.header;
                 i < std::uint64_t{e.header} + 20 + e.own_size && i < end; ++i) {
                covered[i - r.start] = true;
            }
        }
        for (std::uint32_t i = 0; i < r.size; ++i) {
            if (!covered[i] && rom[r.start + i] != r.filler) {
                problem(StrFormat("block at %x: free byte %x is %x", r.start, i, rom[r.start + i]));
                break;
            }
        }
        // A block with two modules or more reseals its first module, which ends the
        // pending split; a block with one leaves it for the next block.
        if (block.chain.size() >= 2) pending.reset();
        out.blocks.push_back(std::move(block));
    }

    // Modules with a start address lie inside their reservations, which nothing else
    // writes: no filler is loaded there, so the bytes that neither the module nor its
    // links' headers cover stay erased.
    for (const ReservedRange& r : ranges) {
        if (r.kind != ReservedRange::FixedModule) continue;
        const std::uint64_t end = std::uint64_t{r.start} + r.size;
        if (end > rom.size()) continue;
        bool held = false;
        std::vector<bool> covered(r.size, false);
        for (const Item& it : items) {
            held = held || (it.start >= r.start && it.end <= end && it.end > it.start);
            for (std::uint64_t i = std::max<std::uint64_t>(it.start, r.start);
                 i < std::min(it.end, end); ++i) {
                covered[i - r.start] = true;
            }
        }
        if (!held) problem(StrFormat("reservation at %x holds no module", r.start));
        for (std::uint32_t i = 0; i < r.size; ++i) {
            if (!covered[i] && rom[r.start + i] != 0xFF) {
                problem(StrFormat("reservation at %x: free byte %x is %x", r.start, i,
                                  rom[r.start + i]));
                break;
            }
        }
    }

    std::sort(items.begin(), items.end(),
              [](const Item& a, const Item& b) { return a.start < b.start; });
    for (std::size_t i = 1; i < items.size(); ++i) {
        if (items[i].start < items[i - 1].end) {
            problem(items[i - 1].what + " overlaps " + items[i].what);
        }
    }
    return out;
}

std::vector<ReservedRange> ReservedRangesOf(const BuildDescription& d) {
    const std::uint32_t base = d.RomImage.Use32BitMode ? 0 : 0x100000u - d.Bios.BiosSize;
    std::vector<ReservedRange> ranges;
    for (std::uint32_t i = 0; i < d.RomHoleCount; ++i) {
        const RomHoleEntry& h = d.RomHoleTable[i];
        ReservedRange& r = ranges.emplace_back();
        r.kind = h.OwnerModule != kNoIndex ? ReservedRange::FixedModule
                 : h.Name.empty()          ? ReservedRange::Hole
                                           : ReservedRange::Block;
        r.start = h.StartAddress - base;
        r.size = h.Size;
        r.filler = h.Filler;
        if (!h.FileName.empty()) r.file = ReadBytes(h.FileName);
    }
    return ranges;
}

GapImageCheck BuildAndCheckGapImage(BuildContext& ctx, const std::ostringstream& console,
                                    LinkForm form) {
    const BuildDescription& d = ctx.description;
    std::vector<ReservedRange> ranges = ReservedRangesOf(d);
    const std::uint32_t top =
        d.Bios.BiosSize - d.Bios.BootBlockSize - d.Bios.MaxEbbSize - d.Bios.NvramSize;
    BuildRomImage(ctx);
    for (std::uint32_t i = 0; i < ranges.size(); ++i) {
        if (ranges[i].kind == ReservedRange::FixedModule) {
            ranges[i].start = d.RomHoleTable[i].StartAddress;
            ranges[i].size = d.RomHoleTable[i].Size;
        }
    }
    const bool info_split = console.str().find(" Splitting " +
                                               d.ModuleTable[d.ModuleCount].FileName) !=
                            std::string::npos;
    return CheckGapImage(ReadBytes(d.Bios.RomFile), form, ranges, top, info_split);
}

std::string HoldsFile(std::span<const std::uint8_t> rom, const ChainEntry& e,
                      const std::vector<std::uint8_t>& file) {
    if (std::uint64_t{e.data()} + e.data_size > rom.size()) return "data past the image";
    const auto data = rom.subspan(e.data(), e.data_size);
    if (e.attributes & 0x80) {
        const bool held =
            data.size() >= file.size() && std::equal(file.begin(), file.end(), data.begin());
        return held ? "" : "stored data differs from the file";
    }
    std::string error;
    const auto decoded = lzh::DecodeCompressedData(data, &error);
    if (!decoded) return "does not decode: " + error;
    return *decoded == file ? "" : "decodes to other bytes than the file";
}

}  // namespace fwforge::testing
