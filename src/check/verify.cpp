#include "check/verify.h"

#include <algorithm>

#include "compress/lzh_format.h"
#include "format/block_header.h"
#include "format/checksum.h"
#include "format/compressed_data_header.h"
#include "format/image_info_records.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "image/extents.h"
#include "image/module_data.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

using Bytes = std::span<const std::uint8_t>;
namespace rec = image_info_record;

constexpr std::uint32_t kHeader = module_header::kSize;

std::string ModuleName(const ImageModel& model, const Module& m) {
    return DescribeModule(model, m) + StrFormat(" at %x", model.Address(m.header.offset));
}

// The data sum that a split module's last header carries, as the build takes it: each
// piece from its own first byte, its last doubleword completed by the bytes that follow
// it in the module buffer, which are the next piece's first bytes. After the last piece
// they are what the buffer held past the module, which the image does not keep. They
// follow from how the module was stored, so the sum has one value for each way that the
// stored data allows; where even that leaves bytes open, only the lanes of the last
// doubleword below them are compared (`mask`).
struct SplitSum {
    std::vector<std::uint32_t> candidates;
    std::uint32_t mask = 0xFFFFFFFF;
    bool Seals(std::uint32_t header_sum) const {
        return std::any_of(candidates.begin(), candidates.end(),
                           [&](std::uint32_t c) { return ((header_sum + c) & mask) == 0; });
    }
};

SplitSum SplitDataSum(Bytes image, const Module& m, const DecodeResult* decoded) {
    const std::vector<std::uint8_t> data = m.StoredData(image);
    std::uint32_t known = 0;  // with the bytes past the module taken as 0
    std::size_t at = 0;
    for (const Piece& p : m.pieces) {
        known += DwordSum(data, at, p.length);
        at += p.length;
    }
    SplitSum out;
    const std::size_t lane = m.pieces.empty() ? 0 : m.pieces.back().length % 4;
    if (lane == 0) {
        out.candidates.push_back(known);
        return out;
    }
    const std::size_t s = data.size();
    // The module buffer holds the file, room for the compressed-data frame (0xFF) after
    // it, and ends there or at the module's end, whichever is further; a compressed
    // module's file lies under its compressed data.
    auto with_file = [&](std::span<const std::uint8_t> file, std::size_t file_size) {
        std::uint32_t sum = known;
        for (std::size_t k = 0; lane + k < 4; ++k) {
            const std::size_t i = s + k;
            const std::uint32_t byte = i < file.size()                       ? file[i]
                                       : i < file_size + kCompressedOverhead ? 0xFF
                                                                             : 0;
            sum += byte << (8 * (lane + k));
        }
        out.candidates.push_back(sum);
    };
    // Stored as its file is: the file ends inside the 0xFF bytes that end the data.
    std::size_t ff = 0;
    while (ff < s && ff < kCompressedOverhead && data[s - 1 - ff] == 0xFF) ++ff;
    for (std::size_t n = s - ff; n <= s; ++n) with_file({}, n);
    if (decoded && decoded->status == DecodeStatus::Ok) {
        with_file(decoded->bytes, decoded->bytes.size());
    } else if (decoded && decoded->status == DecodeStatus::CutOff) {
        // The encoder read the whole file unless it stopped right after a full read
        // (8448 bytes, then 8192 at a time); then the bytes past it are the file's.
        with_file({}, decoded->original);
        const std::uint32_t first = lzh::kWindowSize + lzh::kMaxMatch;
        if (decoded->original >= first && (decoded->original - first) % lzh::kWindowSize == 0) {
            out.mask = (1u << (8 * lane)) - 1;
        }
    }
    return out;
}

// `parent` is the module before `m` in its chain that is no link header: the parent of
// a link's header.
void CheckModule(Bytes image, const ImageModel& model, const Module& m, const Module* parent,
                 const SplitSum* carried_split_sum, SplitSum& split_sum, VerifyReport& report) {
    if (m.truncated) return;  // already reported by the reader
    const std::string name = ModuleName(model, m);
    std::optional<DecodeResult> decoded;
    if (m.Compressed()) decoded = DecodeStoredData(m.StoredData(image));
    ++report.checks;
    const std::uint32_t header_sum = DwordSum(image, m.header.offset, kHeader);
    std::uint32_t sum = header_sum;  // of the covered bytes, for the message
    bool sealed;
    if (m.Linked() && !m.link_without_bit) {
        sealed = header_sum == 0;
    } else if (m.Split()) {
        // The pieces' headers carry no checksum; the last one covers its own 20 bytes
        // and the data of every piece.
        split_sum = SplitDataSum(image, m, decoded ? &*decoded : nullptr);
        sealed = split_sum.Seals(header_sum);
        sum += split_sum.candidates.front();
    } else {
        // A link header without the LinkedRom bit covers DataSize bytes after it as a
        // module's header does: those of its parent.
        sum = DwordSum(image, m.header.offset, kHeader + std::size_t(m.header.data_size));
        // The first module of a non-critical block is sealed while the main chain's
        // last split module is still pending; that seal counts the split data instead
        // of its own.
        sealed = sum == 0 || (carried_split_sum && carried_split_sum->Seals(header_sum));
    }
    if (m.link_without_bit) {
        report.notes.push_back(name +
                               ": a linked add-on ROM header without the LinkedRom bit (`link = "
                               "no` with both link ids); its checksum covers the DataSize bytes "
                               "above it, its parent's");
    }
    if (!sealed && m.link_without_bit && parent && parent->Split()) {
        // Below a split parent its DataSize bytes run past the parent's first piece into
        // whatever was placed there after it was sealed.
        report.notes.push_back(name +
                               ": link header without the LinkedRom bit below a split add-on "
                               "ROM: its checksum covers bytes placed after it was sealed, and "
                               "is not checked");
        sealed = true;
    }
    // A piece's header carries no checksum: it must repeat the module's own header.
    for (std::size_t i = 0; i < m.piece_headers.size(); ++i) {
        const HeaderView& p = m.piece_headers[i];
        ++report.checks;
        if (p.id != m.header.id || p.dest_offset != m.header.dest_offset ||
            p.dest_segment != m.header.dest_segment ||
            p.attributes != (m.header.attributes | module_attr::SplitPiece)) {
            report.problems.push_back(
                {name,
                 StrFormat("piece %zu's header at %x (id %02X, attributes %02x, %04x:%04x) "
                           "does not repeat the module's (id %02X, attributes %02x, %04x:%04x)",
                           i + 1, model.Address(p.offset), p.id, p.attributes, p.dest_segment,
                           p.dest_offset, m.header.id,
                           m.header.attributes | module_attr::SplitPiece, m.header.dest_segment,
                           m.header.dest_offset)});
        }
    }
    if (!sealed) {
        report.problems.push_back(
            {name, StrFormat("checksum %08x does not match: covered bytes sum to %08x, not 0",
                             m.header.checksum, sum)});
    }
    const std::uint16_t expect16 = DataSize16For(m.header.data_size);
    ++report.checks;
    if (m.header.data_size16 != expect16) {
        report.problems.push_back(
            {name, StrFormat("16-bit data size %04x does not match data size %x",
                             m.header.data_size16, m.header.data_size)});
    }
    if (!decoded) return;
    ++report.checks;
    CannotUnpack entry;
    if (DescribeCannotUnpack(model, m, *decoded, entry)) {
        // Data that its own checksum seals is what the build wrote; otherwise the
        // damage may be what keeps it from decoding.
        if (sealed) {
            report.cannot_unpack.push_back(std::move(entry));
        } else {
            report.problems.push_back({name, "compressed data not decodable: " + entry.reason});
        }
    }
}

// The main BIOS header's region, with every ROM hole and non-critical block counted as
// 0xFF: they are filled after the checksum is set.
void CheckMainRegion(Bytes image, const ImageModel& model, VerifyReport& report) {
    const MainHeader& h = *model.main;
    const std::string name = StrFormat("main BIOS header at %x", model.Address(h.signature));
    ++report.checks;
    if (h.main_extension != main_header::kExtensionSize) {
        report.problems.push_back(
            {name, StrFormat("main header extension size is %u, expected 10", h.main_extension)});
    }
    if (h.length == 0) {
        report.problems.push_back({name, "length is 0"});
        return;
    }
    const std::uint32_t length = main_header::RegionLength(h.length);
    if (length > h.End()) return;  // reported by the reader
    const std::uint32_t begin = h.End() - length;
    std::vector<std::uint8_t> region(image.begin() + begin, image.begin() + h.End());
    auto blank = [&](std::uint64_t from, std::uint64_t size) {
        const std::uint64_t lo = std::max<std::uint64_t>(from, begin);
        const std::uint64_t hi = std::min<std::uint64_t>(from + size, h.End());
        for (std::uint64_t i = lo; i < hi; ++i) region[i - begin] = 0xFF;
    };
    for (const ImageInfoItemHole& hole : model.info.holes) blank(hole.start, hole.size);
    for (const Block& b : model.ncbs) blank(b.offset, b.length);
    const std::uint32_t sum = DwordSum(region, 0, region.size());
    if (sum != 0) {
        report.problems.push_back(
            {name + StrFormat(" (region %x-%x)", model.Address(begin), model.Address(h.End() - 1)),
             StrFormat("checksum %08x does not match: region sums to %08x, not 0", h.checksum,
                       sum)});
    }
}

// The two checksums of a block's header: HeaderChecksum by the block's own rule, and
// BlockChecksum over the whole block.
void CheckBlock(Bytes image, const Block& b, const std::string& name, HeaderChecksumRule rule,
                VerifyReport& report) {
    ++report.checks;
    const std::uint16_t expect = BlockHeaderChecksum(image, b.offset, rule);
    if (expect != b.header_checksum) {
        report.problems.push_back({name, StrFormat("header checksum %04x does not match (%04x)",
                                                   b.header_checksum, expect)});
    }
    ++report.checks;
    const std::uint32_t expect_block = ComputeBlockChecksum(image, b.offset, b.length);
    if (expect_block != b.block_checksum) {
        report.problems.push_back({name, StrFormat("block checksum %08x does not match (%08x)",
                                                   b.block_checksum, expect_block)});
    }
}

void CheckEbb(Bytes image, const ImageModel& model, VerifyReport& report) {
    const Block& b = *model.ebb;
    const std::string name = StrFormat("EBB at %x", model.Address(b.offset));
    // Taken over the header with BlockChecksum in place, low 16 bits of a dword sum.
    CheckBlock(image, b, name, HeaderChecksumRule::LowWordOfDwordChecksum, report);
    if (model.boot_block_size) {
        ++report.checks;
        const std::uint64_t end = std::uint64_t(b.offset) + b.length;
        if (end != model.size - *model.boot_block_size) {
            report.problems.push_back({name, StrFormat("ends at %llx, not at the boot block (%x)",
                                                       static_cast<unsigned long long>(end),
                                                       model.size - *model.boot_block_size)});
        }
    }
}

void CheckNcb(Bytes image, const ImageModel& model, std::size_t i, VerifyReport& report) {
    const Block& b = model.ncbs[i];
    CheckBlock(image, b, StrFormat("non-critical block %zu at %x", i + 1, model.Address(b.offset)),
               HeaderChecksumRule::WordChecksum, report);
}

void CheckOverlaps(const ImageModel& model, VerifyReport& report) {
    std::vector<Extent> items = TopLevelExtents(model);
    // Modules inside blocks only need to stay apart from each other.
    auto add_block = [&](ModuleArea area, int block) {
        std::vector<Extent> inner;
        for (const Module* m : model.ModulesIn(area, block)) {
            const std::uint32_t end = m->pieces.empty()
                                          ? m->header.offset + kHeader
                                          : m->pieces.back().offset + m->pieces.back().length;
            inner.push_back({m->header.offset, end, DescribeModule(model, *m)});
        }
        std::sort(inner.begin(), inner.end(),
                  [](const Extent& a, const Extent& b) { return a.begin < b.begin; });
        items.insert(items.end(), inner.begin(), inner.end());
    };
    ++report.checks;
    auto scan = [&](std::vector<Extent> list) {
        std::sort(list.begin(), list.end(), [](const Extent& a, const Extent& b) {
            return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
        });
        // Each item against the one reaching furthest up among those before it.
        std::size_t reach = 0;
        for (std::size_t i = 1; i < list.size(); ++i) {
            const Extent& before = list[reach];
            if (before.end > list[i].begin) {
                report.problems.push_back(
                    {list[i].name,
                     StrFormat("overlaps %s (%x-%x)", before.name.c_str(),
                               model.Address(before.begin), model.Address(before.end - 1))});
            }
            if (list[i].end > before.end) reach = i;
        }
    };
    scan(items);
    items.clear();
    add_block(ModuleArea::Ebb, -1);
    scan(items);
    for (std::size_t i = 0; i < model.ncbs.size(); ++i) {
        items.clear();
        add_block(ModuleArea::Ncb, static_cast<int>(i));
        scan(items);
    }
}

}  // namespace

bool DescribeCannotUnpack(const ImageModel& model, const Module& m, const DecodeResult& decoded,
                          CannotUnpack& out) {
    out.module = ModuleName(model, m);
    switch (decoded.status) {
        case DecodeStatus::Ok:
            return false;
        case DecodeStatus::CutOff:
            out.reason = StrFormat(
                "its compressed stream is cut off by the encoder's output bound (total %x = "
                "original size %x + 9): the file does not compress",
                decoded.total, decoded.original);
            // The Extended Boot Block compresses a minsize module all the same.
            out.change =
                m.area == ModuleArea::Ebb
                    ? "give its [module] section `compressed = no`"
                    : "give its [module] section `compressed = minsize` or `compressed = no`";
            return true;
        case DecodeStatus::BadHeader:
        case DecodeStatus::Malformed:
            out.reason = "it holds no compressed data (" + decoded.message +
                         "): its file was marked `nowcompressed = yes` and is stored as it is";
            out.change =
                "give it a file that fwforge-lzh c compressed, or drop `nowcompressed = yes` "
                "from its [module] section so that the build compresses it";
            return true;
    }
    return false;
}

VerifyReport Verify(std::span<const std::uint8_t> image, const ImageModel& model) {
    VerifyReport report;
    report.problems = model.problems;
    if (!model.link_form_note.empty()) report.notes.push_back(model.link_form_note);
    if (model.main) CheckMainRegion(image, model, report);
    // The split module whose data sum is still pending when the first non-critical
    // block is built: the last one of the main chain, if it ends the chain.
    SplitSum last_split, split;
    bool carried = false;
    const Module* parent = nullptr;
    std::uint64_t budget = ModuleByteBudget(model);
    int previous_block = -1;
    for (const Module& m : model.modules) {
        const std::uint64_t cost = m.StoredLength() + std::uint64_t(kHeader);
        if (cost > budget) {
            report.problems.push_back({"image",
                                       "its modules claim far more data than the image "
                                       "holds; the remaining module checks are skipped"});
            break;
        }
        budget -= cost;
        const bool first_in_block = m.area == ModuleArea::Ncb && m.block != previous_block;
        if (m.area == ModuleArea::Ncb) previous_block = m.block;
        split = {};
        CheckModule(image, model, m, parent, first_in_block && carried ? &last_split : nullptr,
                    split, report);
        if (!m.Linked()) parent = &m;
        if (m.area == ModuleArea::Main) {
            carried = m.Split();
            last_split = split;
        }
    }
    if (model.ebb) CheckEbb(image, model, report);
    for (std::size_t i = 0; i < model.ncbs.size(); ++i) CheckNcb(image, model, i, report);
    if (model.boot_block_size) {
        ++report.checks;
        const std::uint32_t bb = *model.boot_block_size;
        const std::uint32_t sum = DwordSum(image, model.size - bb, bb);
        if (sum != 0) {
            report.problems.push_back(
                {StrFormat("boot block (%x bytes at %x)", bb, model.Address(model.size - bb)),
                 StrFormat("dword sum is %08x, not 0", sum)});
        }
    } else {
        report.notes.push_back("boot block not checked: its size is unknown (give --bbsize)");
    }
    CheckOverlaps(model, report);
    return report;
}

}  // namespace fwforge::inspect
