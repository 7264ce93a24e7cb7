#include "image/chain_walker.h"

#include <functional>
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
    HeaderView h;
    static_cast<ModuleHeader&>(h) = ReadModuleHeader(image.data() + at);
    h.offset = at;
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
    return Fits(data, h.data_size, image.size()) || h.data_size16 == kDataSize16TooLarge;
}

namespace {

// How one chain is read: where its links lead, what bounds its headers and data, and
// whether its modules may be split.
struct ChainRules {
    ModuleArea area = ModuleArea::Main;
    int block = -1;  // index into ImageModel::ncbs for ModuleArea::Ncb
    // The image offset of the header that a link names, or nothing when it leads outside.
    std::function<std::optional<std::uint32_t>(std::uint32_t)> header_at;
    std::string outside;    // where links and data must stay, for messages: "the image"
    std::uint64_t end = 0;  // the end of that place
};

// The one walk of a chain, from `link` on: every header is read once (a link back to one
// already seen ends the walk), split pieces (main chain only) are gathered into the
// module that their last piece completes, and data that runs past the chain's place is
// cut there. Modules are numbered on from `index`.
void WalkChain(Bytes image, ImageModel& model, const ChainRules& rules, std::uint32_t link,
               std::string from, int& index) {
    const bool main = rules.area == ModuleArea::Main;
    std::set<std::uint32_t> visited;
    Module pending;                     // split pieces seen so far
    std::optional<std::size_t> before;  // the module before in this chain
    while (link != kEndOfChain) {
        const std::optional<std::uint32_t> at = rules.header_at(link);
        if (!at) {
            model.problems.push_back(
                {from, StrFormat("link %08x points outside %s", link, rules.outside.c_str())});
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
        if (main && (h.attributes & module_attr::SplitPiece)) {
            if (!pending.piece_headers.empty() && pending.header.id != h.id) {
                model.problems.push_back({StrFormat("header at %x", *at),
                                          "split piece of another module before the last piece "
                                          "of the one before"});
            }
            Piece piece{data, h.data_size};
            if (!Fits(data, h.data_size, rules.end)) {
                model.problems.push_back(
                    {StrFormat("split piece at %x", *at),
                     StrFormat("data of %x bytes runs past the end of the image", h.data_size)});
                piece.length = data <= rules.end ? static_cast<std::uint32_t>(rules.end - data) : 0;
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
        m.area = rules.area;
        m.block = rules.block;
        m.index = index++;
        m.header = h;
        if (m.piece_headers.empty() &&
            LinkWithoutBit(h, before ? &model.modules[*before] : nullptr)) {
            m.link_without_bit = true;
            NoteLinkWithoutBit(model, m);
        }
        if (!m.piece_headers.empty() && m.piece_headers.front().id != h.id) {
            model.problems.push_back(
                {DescribeModule(model, m), "split pieces before it belong to another module id"});
        }
        if (!m.Linked()) {
            std::uint64_t remaining = h.data_size;
            const std::uint64_t stored_before = m.StoredLength();
            if (m.Split()) {
                if (stored_before > remaining) {
                    model.problems.push_back(
                        {DescribeModule(model, m),
                         StrFormat("split pieces hold %llx bytes, more than the module's size %x",
                                   static_cast<unsigned long long>(stored_before), h.data_size)});
                    remaining = 0;
                } else {
                    remaining -= stored_before;
                }
            }
            Piece piece{data, static_cast<std::uint32_t>(remaining)};
            if (!Fits(data, remaining, rules.end)) {
                model.problems.push_back(
                    {DescribeModule(model, m),
                     main ? StrFormat("data of %llx bytes at %x runs past the end of the image",
                                      static_cast<unsigned long long>(remaining), data)
                          : StrFormat("data of %x bytes runs past the end of %s", h.data_size,
                                      rules.outside.c_str())});
                piece.length = data <= rules.end ? static_cast<std::uint32_t>(rules.end - data) : 0;
                m.truncated = true;
            }
            m.pieces.push_back(piece);
        }
        from = DescribeModule(model, m);
        link = h.next_link;
        model.modules.push_back(std::move(m));
        before = model.modules.size() - 1;
    }
    if (!pending.piece_headers.empty()) {
        model.problems.push_back(
            {StrFormat("split piece at %x", pending.piece_headers.back().offset),
             "the chain ends before the split module's last piece"});
    }
}

}  // namespace

// The main chain: links from the main BIOS header, in the model's link form.
void WalkMainChain(Bytes image, ImageModel& model) {
    ChainRules rules;
    rules.header_at = [&](std::uint32_t link) {
        return DecodeMainLink(link, model.links32, model.size);
    };
    rules.outside = "the image";
    rules.end = model.size;
    int index = 0;
    WalkChain(image, model, rules, model.main->link, "main BIOS header", index);
}

// The chain of a block (EBB or non-critical block): 32-bit links counted from the
// block's start, headers and data inside the block.
void WalkBlockChain(Bytes image, ImageModel& model, const Block& block, ModuleArea area,
                    int block_index, const std::string& name, int& index) {
    std::uint32_t link = block.first_module;
    if (link != kEndOfChain && link != block_header::kFirstModuleOffset) {
        model.problems.push_back(
            {name + " header",
             StrFormat("first module offset %08x is neither 20 nor ffffffff", link)});
    }
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
    ChainRules rules;
    rules.area = area;
    rules.block = block_index;
    rules.header_at = [&](std::uint32_t at) -> std::optional<std::uint32_t> {
        const std::uint64_t header = std::uint64_t(block.offset) + at - kBase;
        if (at < block_header::kFirstModuleOffset || header + kHeader > block_end) {
            return std::nullopt;
        }
        return static_cast<std::uint32_t>(header);
    };
    rules.outside = name;
    rules.end = block_end;
    WalkChain(image, model, rules, link, name + " header", index);
}

}  // namespace fwforge::inspect
