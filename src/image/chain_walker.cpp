#include "image/chain_walker.h"

#include <set>

#include "format/block_header.h"
#include "format/module_header.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint32_t kHeader = module_header::kSize;
constexpr std::uint32_t kBase = module_header::kExtensionSize;  // links point here

HeaderView ReadHeader(Bytes image, std::uint32_t at) {
    const std::uint8_t* p = image.data() + at;
    HeaderView h;
    h.offset = at;
    h.data_size = load_le32(p + module_header::DataSize.offset);
    h.checksum = load_le32(p + module_header::Checksum.offset);
    h.next_link = load_le32(p + module_header::NextModuleLink.offset);
    h.data_size16 = load_le16(p + module_header::DataSize16.offset);
    h.id = p[module_header::ModuleId.offset];
    h.attributes = p[module_header::ModuleAttributes.offset];
    h.dest_offset = load_le16(p + module_header::DestOffset.offset);
    h.dest_segment = load_le16(p + module_header::DestSegment.offset);
    return h;
}

// The lowest header of a module: its first piece's when it is split. Linked add-on
// ROM headers go directly below it.
std::uint32_t FirstHeader(const Module& m) {
    return m.Split() ? m.piece_headers.front().offset : m.header.offset;
}

// An add-on ROM header right below the header of the add-on ROM before it in the chain
// (its parent, or a link header of the same parent), with that one's DataSize: its data
// would start at the header above it. That is a linked add-on ROM header that the build
// wrote without the LinkedRom bit (`link = no` with both link ids).
bool LinkWithoutBit(const HeaderView& h, const Module* before) {
    return before != nullptr && h.id == kAddonRomModuleId &&
           before->header.id == kAddonRomModuleId &&
           (h.attributes & (module_attr::LinkedRom | module_attr::SplitPiece)) == 0 &&
           h.offset + std::uint64_t(kHeader) == FirstHeader(*before) &&
           h.data_size == before->header.data_size;
}

void NoteLinkWithoutBit(ImageModel& model, const Module& m) {
    model.notes.push_back(DescribeModule(model, m) +
                          ": a linked add-on ROM header without the LinkedRom bit (`link = no` "
                          "with both link ids): below its parent, with the parent's data size "
                          "and no data of its own");
}

}  // namespace

// Where a main-chain link leads: the image offset of the module header's first byte.
// 16-bit links are segment:offset of the base header as a real-mode address of an
// image that ends at 0xFFFFF; 32-bit links are the base header's image offset.
std::optional<std::uint32_t> DecodeMainLink(std::uint32_t value, bool links32, std::uint32_t size) {
    if (value == kEndOfChain) return std::nullopt;
    std::uint64_t base_header = value;
    if (!links32) {
        const std::optional<std::uint64_t> target = RealModeLinkTarget(value, size);
        if (!target) return std::nullopt;
        base_header = *target;
    }
    if (base_header < kBase) return std::nullopt;
    const std::uint64_t header = base_header - kBase;
    if (!Fits(header, kHeader, size)) return std::nullopt;
    return static_cast<std::uint32_t>(header);
}

// A header that a link leads to looks like one when its data (if any) fits the image.
bool PlausibleHeader(Bytes image, std::uint32_t at) {
    const HeaderView h = ReadHeader(image, at);
    if (h.attributes & module_attr::LinkedRom) return true;
    const std::uint64_t data = std::uint64_t(at) + kHeader;
    if (h.attributes & module_attr::SplitPiece) return Fits(data, h.data_size, image.size());
    return Fits(data, h.data_size, image.size()) || h.data_size16 == 0xFFFF;
}

// Walks the main chain. Split pieces are gathered into the module that their last
// piece (the one with the full header) completes.
void WalkMainChain(Bytes image, ImageModel& model) {
    const std::uint32_t size = model.size;
    std::set<std::uint32_t> visited;
    std::uint32_t link = model.main->link;
    std::string from = "main BIOS header";
    Module pending;  // split pieces seen so far
    int index = 0;
    while (link != kEndOfChain) {
        auto at = DecodeMainLink(link, model.links32, size);
        if (!at) {
            model.problems.push_back({from, StrFormat("link %08x points outside the image", link)});
            break;
        }
        if (!visited.insert(*at).second) {
            model.problems.push_back(
                {from, StrFormat("link %08x loops back to the header at %x", link, *at)});
            break;
        }
        const HeaderView h = ReadHeader(image, *at);
        const std::uint32_t data = *at + kHeader;
        if (h.attributes & module_attr::kUnused) {
            model.problems.push_back(
                {from, StrFormat("link %08x leads to a header at %x with unknown attribute bits "
                                 "(%02x): not a module header?",
                                 link, *at, h.attributes)});
        }
        if (h.attributes & module_attr::SplitPiece) {
            if (!pending.piece_headers.empty() && pending.header.id != h.id) {
                model.problems.push_back({StrFormat("header at %x", *at),
                                          "split piece of another module before the last piece "
                                          "of the one before"});
            }
            Piece piece{data, h.data_size};
            if (!Fits(data, h.data_size, size)) {
                model.problems.push_back(
                    {StrFormat("split piece at %x", *at),
                     StrFormat("data of %x bytes runs past the end of the image", h.data_size)});
                piece.length = data <= size ? size - data : 0;
                pending.truncated = true;
            }
            pending.header = h;
            pending.piece_headers.push_back(h);
            pending.pieces.push_back(piece);
            from = StrFormat("split piece at %x", *at);
            link = h.next_link;
            continue;
        }
        Module m = std::move(pending);
        pending = Module{};
        m.area = ModuleArea::Main;
        m.index = index++;
        m.header = h;
        if (m.piece_headers.empty() &&
            LinkWithoutBit(h, model.modules.empty() ? nullptr : &model.modules.back())) {
            m.link_without_bit = true;
            NoteLinkWithoutBit(model, m);
        }
        if (!m.piece_headers.empty() && m.piece_headers.front().id != h.id) {
            model.problems.push_back(
                {DescribeModule(model, m), "split pieces before it belong to another module id"});
        }
        if (!m.Linked()) {
            std::uint64_t remaining = h.data_size;
            const std::uint64_t before = m.StoredLength();
            if (m.Split()) {
                if (before > remaining) {
                    model.problems.push_back(
                        {DescribeModule(model, m),
                         StrFormat("split pieces hold %llx bytes, more than the module's size %x",
                                   static_cast<unsigned long long>(before), h.data_size)});
                    remaining = 0;
                } else {
                    remaining -= before;
                }
            }
            Piece piece{data, static_cast<std::uint32_t>(remaining)};
            if (!Fits(data, remaining, size)) {
                model.problems.push_back(
                    {DescribeModule(model, m),
                     StrFormat("data of %llx bytes at %x runs past the end of the image",
                               static_cast<unsigned long long>(remaining), data)});
                piece.length = data <= size ? size - data : 0;
                m.truncated = true;
            }
            m.pieces.push_back(piece);
        }
        from = DescribeModule(model, m);
        link = h.next_link;
        model.modules.push_back(std::move(m));
    }
    if (!pending.piece_headers.empty()) {
        model.problems.push_back(
            {StrFormat("split piece at %x", pending.piece_headers.back().offset),
             "the chain ends before the split module's last piece"});
    }
}

// Walks the chain of a block (EBB or non-critical block): 32-bit links counted from
// the block's start, headers and data inside the block.
void WalkBlockChain(Bytes image, ImageModel& model, const Block& block, ModuleArea area,
                    int block_index, const std::string& name, int& index) {
    std::set<std::uint32_t> visited;
    std::uint32_t link = block.first_module;
    if (link != kEndOfChain && link != block_header::kFirstModuleOffset) {
        model.problems.push_back(
            {name + " header",
             StrFormat("first module offset %08x is neither 20 nor ffffffff", link)});
    }
    std::string from = name + " header";
    const std::uint64_t block_end = std::uint64_t(block.offset) + block.length;
    // The header names the first header in the block. When the first module is an
    // add-on ROM with linked ones, that is the lowest link header: the links lie below
    // their parent and follow it in the chain. The chain starts at the parent, the
    // first header above them whose links run down through them to the lowest one.
    const std::uint64_t first = std::uint64_t(block.offset) + block_header::kSize;
    auto linked_at = [&](std::uint64_t at) {
        if (at + kHeader > block_end) return false;
        const HeaderView h = ReadHeader(image, static_cast<std::uint32_t>(at));
        if (h.attributes & module_attr::LinkedRom) return true;
        if (at + 2 * kHeader > block_end) return false;
        const HeaderView above = ReadHeader(image, static_cast<std::uint32_t>(at + kHeader));
        return h.id == kAddonRomModuleId && above.id == kAddonRomModuleId &&
               h.data_size == above.data_size && (h.attributes & module_attr::SplitPiece) == 0;
    };
    if (link == block_header::kFirstModuleOffset && linked_at(first)) {
        std::uint64_t parent = first;
        while (linked_at(parent)) parent += kHeader;
        bool chained = parent + kHeader <= block_end;
        for (std::uint64_t at = parent; chained && at > first; at -= kHeader) {
            chained = ReadHeader(image, static_cast<std::uint32_t>(at)).next_link ==
                      at - kHeader - block.offset + kBase;
        }
        if (chained) {
            link = static_cast<std::uint32_t>(parent - block.offset + kBase);
            model.notes.push_back(name +
                                  ": the chain starts at the add-on ROM above the link "
                                  "headers that its header names");
        }
    }
    const Module* before = nullptr;  // the module before in this block's chain
    while (link != kEndOfChain) {
        const std::uint64_t header = std::uint64_t(block.offset) + link - kBase;
        if (link < block_header::kFirstModuleOffset || header + kHeader > block_end) {
            model.problems.push_back(
                {from, StrFormat("link %08x points outside %s", link, name.c_str())});
            break;
        }
        const auto at = static_cast<std::uint32_t>(header);
        if (!visited.insert(at).second) {
            model.problems.push_back(
                {from, StrFormat("link %08x loops back to the header at %x", link, at)});
            break;
        }
        Module m;
        m.area = area;
        m.block = block_index;
        m.index = index++;
        m.header = ReadHeader(image, at);
        if (LinkWithoutBit(m.header, before)) {
            m.link_without_bit = true;
            NoteLinkWithoutBit(model, m);
        }
        if (m.header.attributes & module_attr::kUnused) {
            model.problems.push_back(
                {from, StrFormat("link %08x leads to a header at %x with unknown attribute bits "
                                 "(%02x): not a module header?",
                                 link, at, m.header.attributes)});
        }
        if (!m.Linked()) {
            Piece piece{at + kHeader, m.header.data_size};
            if (at + std::uint64_t(kHeader) + m.header.data_size > block_end) {
                model.problems.push_back(
                    {DescribeModule(model, m), StrFormat("data of %x bytes runs past the end of %s",
                                                         m.header.data_size, name.c_str())});
                piece.length = static_cast<std::uint32_t>(block_end - (at + kHeader));
                m.truncated = true;
            }
            m.pieces.push_back(piece);
        }
        from = DescribeModule(model, m);
        link = m.header.next_link;
        model.modules.push_back(std::move(m));
        before = &model.modules.back();
    }
}

}  // namespace fwforge::inspect
