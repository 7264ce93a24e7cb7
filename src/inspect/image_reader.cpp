// Reading a ROM image into the inspector's model. Everything here must hold up against
// arbitrary bytes: every offset is checked against the image (or its block) before it
// is read, every chain walk remembers where it has been, and a problem ends only the
// walk it was found in.

#include <algorithm>
#include <cstring>
#include <set>

#include "inspect/image_model.h"
#include "inspect/module_data.h"
#include "layout/module_header.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {

bool Module::Compressed() const {
    return !Linked() && (header.attributes & module_attr::NotCompressed) == 0;
}
bool Module::Linked() const { return (header.attributes & module_attr::LinkedRom) != 0; }
bool Module::Contiguous() const {
    return (header.attributes & module_attr::ContiguousAttr) != 0;
}
std::uint32_t Module::StoredLength() const {
    std::uint32_t total = 0;
    for (const Piece& p : pieces) total += p.length;
    return total;
}
std::vector<std::uint8_t> Module::StoredData(std::span<const std::uint8_t> image) const {
    std::vector<std::uint8_t> out;
    for (const Piece& p : pieces) {
        if (p.offset >= image.size()) continue;
        const std::size_t n = std::min<std::size_t>(p.length, image.size() - p.offset);
        out.insert(out.end(), image.begin() + p.offset, image.begin() + p.offset + n);
    }
    return out;
}

std::vector<const Module*> ImageModel::ModulesIn(ModuleArea area, int block) const {
    std::vector<const Module*> out;
    for (const Module& m : modules) {
        if (m.area == area && (area != ModuleArea::Ncb || m.block == block)) out.push_back(&m);
    }
    return out;
}

std::string DescribeModule(const ImageModel& model, const Module& module) {
    (void)model;
    switch (module.area) {
        case ModuleArea::Main:
            return StrFormat("module #%d (id %02X)", module.index, module.header.id);
        case ModuleArea::Ebb:
            return StrFormat("EBB module #%d (id %02X)", module.index, module.header.id);
        case ModuleArea::Ncb:
            return StrFormat("non-critical block %d module #%d (id %02X)", module.block + 1,
                             module.index, module.header.id);
    }
    return "module";
}

namespace {

using Bytes = std::span<const std::uint8_t>;

// Attribute bits that no writer sets.
constexpr std::uint8_t kUnusedAttributeBits = 0x0F;

bool Fits(std::uint64_t offset, std::uint64_t length, std::uint64_t limit) {
    return offset <= limit && length <= limit - offset;
}

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

std::vector<std::uint32_t> FindSignature(Bytes image, const char* signature) {
    std::vector<std::uint32_t> hits;
    if (image.size() < kSignatureSize) return hits;
    const auto* begin = image.data();
    const auto* end = image.data() + image.size();
    const auto* sig = reinterpret_cast<const std::uint8_t*>(signature);
    for (const auto* p = begin; p < end;) {
        p = std::search(p, end, sig, sig + kSignatureSize);
        if (p == end) break;
        hits.push_back(static_cast<std::uint32_t>(p - begin));
        ++p;
    }
    return hits;
}

// Where a main-chain link leads: the image offset of the module header's first byte.
// 16-bit links are segment:offset of the base header as a real-mode address of an
// image that ends at 0xFFFFF; 32-bit links are the base header's image offset.
std::optional<std::uint32_t> DecodeMainLink(std::uint32_t value, bool links32,
                                            std::uint32_t size) {
    if (value == kEndOfChain) return std::nullopt;
    std::uint64_t base_header;
    if (links32) {
        base_header = value;
    } else {
        if (size > 0x100000) return std::nullopt;
        const std::uint64_t address = std::uint64_t(value >> 16) * 16 + (value & 0xFFFF);
        const std::uint64_t address_base = 0x100000 - size;
        if (address < address_base) return std::nullopt;
        base_header = address - address_base;
    }
    if (base_header < module_header::kExtensionSize) return std::nullopt;
    const std::uint64_t header = base_header - module_header::kExtensionSize;
    if (!Fits(header, module_header::kSize, size)) return std::nullopt;
    return static_cast<std::uint32_t>(header);
}

// A header that a link leads to looks like one when its data (if any) fits the image.
bool PlausibleHeader(Bytes image, std::uint32_t at) {
    const HeaderView h = ReadHeader(image, at);
    if (h.attributes & module_attr::LinkedRom) return true;
    if (h.attributes & module_attr::SplitPiece) return Fits(at + 20ull, h.data_size, image.size());
    return Fits(at + 20ull, h.data_size, image.size()) || h.data_size16 == 0xFFFF;
}

std::optional<MainHeader> FindMainHeader(Bytes image, ImageModel& model) {
    std::optional<MainHeader> best;
    int best_score = -1;
    for (std::uint32_t sig : FindSignature(image, kMainHeaderSignature)) {
        if (sig < main_header::kExtensionSize ||
            !Fits(sig, main_header::kHeaderSize, image.size())) {
            continue;
        }
        const std::uint8_t* p = image.data() + sig;
        MainHeader h;
        h.signature = sig;
        h.version = p[main_header::RomImageVersion];
        h.flags = p[main_header::RomImageFlags];
        h.module_extension = p[main_header::ModuleHeaderExtension];
        h.main_extension = p[main_header::MainHeaderExtension];
        h.stamp = load_le32(p + main_header::BootBlockStamp);
        h.length = load_le16(p + main_header::Length);
        h.checksum = load_le32(p + main_header::Checksum);
        h.link = load_le32(p + main_header::Link);
        // A copy of the signature inside some module's data is possible; the real
        // header has the extension sizes and a link that leads to a header.
        int score = 0;
        if (h.module_extension == module_header::kExtensionSize &&
            h.main_extension == main_header::kExtensionSize) {
            score += 1;
        }
        for (bool form : {false, true}) {
            auto at = DecodeMainLink(h.link, form, model.size);
            if (at && PlausibleHeader(image, *at)) {
                score += 2;
                break;
            }
        }
        if (score >= best_score) {  // ties: the highest one
            best_score = score;
            best = h;
        }
    }
    return best;
}

void ChooseLinkForm(Bytes image, const InspectOptions& options, ImageModel& model) {
    const MainHeader& h = *model.main;
    if (options.link_form != LinkForm::Auto) {
        model.links32 = options.link_form == LinkForm::Bits32;
        model.notes.push_back(model.links32 ? "32-bit links (forced with --32)"
                                            : "16-bit links (forced with --16)");
        return;
    }
    if (h.flags & 0x01) {
        model.links32 = true;
        model.notes.push_back("32-bit links (flags byte has the 32-bit mode bit)");
        return;
    }
    if (model.size > 0x100000) {
        model.links32 = true;
        model.notes.push_back("32-bit links (image larger than 1 MB)");
        return;
    }
    // The compatibility form writes no flags, so a 32-bit build looks like a 16-bit
    // one there; the link itself tells them apart.
    auto as16 = DecodeMainLink(h.link, false, model.size);
    auto as32 = DecodeMainLink(h.link, true, model.size);
    const bool ok16 = as16 && PlausibleHeader(image, *as16);
    const bool ok32 = as32 && PlausibleHeader(image, *as32);
    model.links32 = !ok16 && ok32;
    model.notes.push_back(model.links32
                              ? "32-bit links (flags byte clear, but only a 32-bit link leads "
                                "to a header; compatibility form?)"
                              : "16-bit segment:offset links (flags byte clear)");
}

struct ChainLimits {
    std::uint32_t begin = 0;  // the area that headers and data must lie in
    std::uint32_t end = 0;
};

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
            model.problems.push_back(
                {from, StrFormat("link %08x points outside the image", link)});
            break;
        }
        if (!visited.insert(*at).second) {
            model.problems.push_back(
                {from, StrFormat("link %08x loops back to the header at %x", link, *at)});
            break;
        }
        const HeaderView h = ReadHeader(image, *at);
        const std::uint32_t data = *at + 20;
        if (h.attributes & kUnusedAttributeBits) {
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
        if (!m.piece_headers.empty() && m.piece_headers.front().id != h.id) {
            model.problems.push_back({DescribeModule(model, m),
                                      "split pieces before it belong to another module id"});
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
        model.problems.push_back({StrFormat("split piece at %x", pending.piece_headers.back().offset),
                                  "the chain ends before the split module's last piece"});
    }
}

// Walks the chain of a block (EBB or non-critical block): 32-bit links counted from
// the block's start, headers and data inside the block.
void WalkBlockChain(Bytes image, ImageModel& model, const Block& block, ModuleArea area,
                    int block_index, const std::string& name, int& index) {
    std::set<std::uint32_t> visited;
    std::uint32_t link = block.first_module;
    if (link != kEndOfChain && link != block_header::kSize + module_header::kExtensionSize) {
        model.problems.push_back({name + " header",
                                  StrFormat("first module offset %08x is neither 20 nor ffffffff", link)});
    }
    std::string from = name + " header";
    const std::uint64_t block_end = std::uint64_t(block.offset) + block.length;
    while (link != kEndOfChain) {
        const std::uint64_t header = std::uint64_t(block.offset) + link - 8;
        if (link < block_header::kSize + 8 || header + 20 > block_end) {
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
        if (m.header.attributes & kUnusedAttributeBits) {
            model.problems.push_back(
                {from, StrFormat("link %08x leads to a header at %x with unknown attribute bits "
                                 "(%02x): not a module header?",
                                 link, at, m.header.attributes)});
        }
        if (!m.Linked()) {
            Piece piece{at + 20, m.header.data_size};
            if (at + 20ull + m.header.data_size > block_end) {
                model.problems.push_back(
                    {DescribeModule(model, m),
                     StrFormat("data of %x bytes runs past the end of %s", m.header.data_size,
                               name.c_str())});
                piece.length = static_cast<std::uint32_t>(block_end - (at + 20));
                m.truncated = true;
            }
            m.pieces.push_back(piece);
        }
        from = DescribeModule(model, m);
        link = m.header.next_link;
        model.modules.push_back(std::move(m));
    }
}

std::optional<Block> ReadBlockHeader(Bytes image, std::uint32_t at) {
    if (!Fits(at, block_header::kSize, image.size())) return std::nullopt;
    const std::uint8_t* p = image.data() + at;
    if (load_le16(p + block_header::HeaderLength) != block_header::kSize) return std::nullopt;
    Block b;
    b.offset = at;
    b.length = load_le32(p + block_header::BlockLength);
    b.header_checksum = load_le16(p + block_header::HeaderChecksum);
    b.block_checksum = load_le32(p + block_header::BlockChecksum);
    b.first_module = load_le32(p + block_header::FirstModuleOffset);
    if (b.length < block_header::kSize) return std::nullopt;
    return b;
}

bool InsideMainModuleData(const ImageModel& model, std::uint32_t at) {
    for (const Module& m : model.modules) {
        for (const Piece& p : m.pieces) {
            if (at >= p.offset && at - p.offset < p.length) return true;
        }
    }
    return false;
}

void ReadImageInfo(Bytes image, ImageModel& model) {
    if (model.modules.empty()) return;
    // The image information module is the last one placed in the main chain.
    const int last = static_cast<int>(model.modules.size()) - 1;
    const Module& m = model.modules[last];
    if (m.header.id != kImageInfoModuleId || m.Linked()) {
        model.notes.push_back("no image information module at the end of the main chain");
        return;
    }
    model.info.module = last;
    std::vector<std::uint8_t> data = m.StoredData(image);
    if (m.Compressed()) {
        DecodeResult decoded = DecodeStoredData(data);
        if (decoded.status != DecodeStatus::Ok) {
            model.notes.push_back("the image information module cannot be decoded: " +
                                  decoded.message);
            return;
        }
        data = std::move(decoded.bytes);
    }
    std::size_t at = 0;
    for (int guard = 0; guard < 16; ++guard) {
        if (at + 5 > data.size()) {
            model.problems.push_back({"image information module",
                                      StrFormat("record at %zx is cut off", at)});
            return;
        }
        const std::uint16_t next = load_le16(&data[at]);
        const std::uint8_t type = data[at + 2], item = data[at + 3], count = data[at + 4];
        const std::size_t items = at + 5;
        if (items + std::size_t(item) * count > data.size()) {
            model.problems.push_back(
                {"image information module",
                 StrFormat("record %02x at %zx runs past its data", type, at)});
            return;
        }
        const std::uint8_t* p = &data[items];
        if (type == 0x60 && item == 4 && count >= 1) {
            model.info.tool_version.assign(reinterpret_cast<const char*>(p), 4);
        } else if (type == 0x10 && item == 2 && count >= 1) {
            model.info.rom_image_version = p[0];
            model.info.rom_image_flags = p[1];
        } else if (type == 0x20 && item == 8 && count >= 1) {
            model.info.bios_tag_offset = load_le32(p);
            model.info.checksum_offset = load_le32(p + 4);
        } else if (type == 0x30 && item == 8 && count >= 1) {
            model.info.boot_area_size = load_le32(p);
            model.info.nvram_size = load_le32(p + 4);
        } else if (type == 0x40 && item == 6) {
            for (int i = 0; i < count; ++i, p += 6) {
                model.info.constrained.push_back({p[0], p[1], load_le32(p + 2)});
            }
        } else if (type == 0x50 && item == 10) {
            for (int i = 0; i < count; ++i, p += 10) {
                model.info.holes.push_back({p[0], p[1], load_le32(p + 2), load_le32(p + 6)});
            }
        }
        model.info.data_length = items + std::size_t(item) * count;
        if (next == 0xFFFF) return;
        if (next <= at) {
            model.problems.push_back({"image information module",
                                      StrFormat("record at %zx links back to %x", at, next)});
            return;
        }
        at = next;
    }
}

void FindBlocks(Bytes image, ImageModel& model) {
    for (std::uint32_t at : FindSignature(image, kEbbSignature)) {
        if (InsideMainModuleData(model, at)) continue;
        auto block = ReadBlockHeader(image, at);
        if (!block) continue;
        if (!Fits(at, block->length, model.size)) {
            model.problems.push_back({StrFormat("EBB at %x", at),
                                      StrFormat("block length %x runs past the end of the image",
                                                block->length)});
            block->length = model.size - at;
        }
        model.ebb = block;  // the highest one wins: the EBB sits right below the boot block
    }
    std::vector<Block> found;
    for (std::uint32_t at : FindSignature(image, kNcbSignature)) {
        // Non-critical blocks start at paragraph addresses.
        if (at % 16 != 0 || InsideMainModuleData(model, at)) continue;
        auto block = ReadBlockHeader(image, at);
        if (!block) continue;
        if (!Fits(at, block->length, model.size)) {
            model.problems.push_back({StrFormat("non-critical block at %x", at),
                                      StrFormat("block length %x runs past the end of the image",
                                                block->length)});
            block->length = model.size - at;
        }
        found.push_back(*block);
    }
    // Blocks are built in the order the image information lists them; that order also
    // numbers their modules. Blocks it does not list follow in address order.
    for (const ImageInfoItemHole& hole : model.info.holes) {
        if (hole.kind != 2) continue;
        auto it = std::find_if(found.begin(), found.end(),
                               [&](const Block& b) { return b.offset == hole.start; });
        if (it != found.end()) {
            model.ncbs.push_back(*it);
            found.erase(it);
        }
    }
    model.ncbs.insert(model.ncbs.end(), found.begin(), found.end());
}

void FindBootArea(const InspectOptions& options, ImageModel& model) {
    const std::uint32_t ebb_length = model.ebb ? model.ebb->length : 0;
    if (options.boot_block_size) {
        model.boot_block_size = *options.boot_block_size;
    } else if (model.ebb && model.ebb->offset + std::uint64_t(ebb_length) <= model.size) {
        model.boot_block_size = model.size - (model.ebb->offset + ebb_length);
        model.notes.push_back("boot block size from the EBB's position");
    } else if (model.info.boot_area_size && *model.info.boot_area_size <= model.size) {
        model.boot_block_size = *model.info.boot_area_size;
        model.notes.push_back("boot block size from the image information module");
    }
    if (model.boot_block_size && *model.boot_block_size > model.size) {
        model.problems.push_back({"boot block", StrFormat("size %x is larger than the image",
                                                          *model.boot_block_size)});
        model.boot_block_size.reset();
    }
    if (model.boot_block_size && model.info.nvram_size && *model.info.nvram_size != 0) {
        const std::uint64_t top = std::uint64_t(model.size) - *model.boot_block_size - ebb_length;
        if (*model.info.nvram_size <= top) {
            model.nvram_size = *model.info.nvram_size;
            model.nvram_offset = static_cast<std::uint32_t>(top - *model.nvram_size);
        }
    }
}

}  // namespace

ImageModel ReadImage(std::span<const std::uint8_t> image, const InspectOptions& options) {
    ImageModel model;
    if (image.size() > 0xFFFFFFFFu) {
        model.problems.push_back({"image", "larger than 4 GB"});
        return model;
    }
    model.size = static_cast<std::uint32_t>(image.size());
    model.main = FindMainHeader(image, model);
    if (!model.main) {
        model.problems.push_back({"image", "no main BIOS header (signature \"ZELBIOSC\") found"});
    } else {
        ChooseLinkForm(image, options, model);
        model.address_base =
            model.links32 || model.size > 0x100000 ? 0 : 0x100000 - model.size;
        if (model.main->module_extension != module_header::kExtensionSize) {
            model.problems.push_back(
                {"main BIOS header", StrFormat("module header extension size is %u, expected 8",
                                               model.main->module_extension)});
        }
        const MainHeader& h = *model.main;
        const std::uint32_t region = h.length == main_header::kCappedLength
                                         ? main_header::kCappedRegion
                                         : std::uint32_t(h.length) * 8;
        if (region > h.End()) {
            model.problems.push_back(
                {"main BIOS header",
                 StrFormat("its region of %x bytes reaches below the start of the image (%x "
                           "bytes below the header): truncated image?",
                           region, h.End())});
        }
        WalkMainChain(image, model);
        ReadImageInfo(image, model);
    }
    FindBlocks(image, model);
    int ebb_index = 0;
    if (model.ebb) {
        WalkBlockChain(image, model, *model.ebb, ModuleArea::Ebb, -1, "the EBB", ebb_index);
    }
    // Modules of non-critical blocks were inserted after the main chain, so their
    // insertion order numbers on from it.
    int next_index = static_cast<int>(model.ModulesIn(ModuleArea::Main).size());
    for (std::size_t i = 0; i < model.ncbs.size(); ++i) {
        WalkBlockChain(image, model, model.ncbs[i], ModuleArea::Ncb, static_cast<int>(i),
                       StrFormat("non-critical block %zu", i + 1), next_index);
    }
    FindBootArea(options, model);
    const std::uint8_t flags =
        model.info.rom_image_flags.value_or(model.main ? model.main->flags : 0);
    model.gap_placement = (flags & 0x02) != 0 || !model.info.holes.empty();
    for (const auto& c : model.info.constrained) {
        if (c.start_address != kEndOfChain) model.gap_placement = true;
    }
    return model;
}

}  // namespace fwforge::inspect
