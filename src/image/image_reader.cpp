// Reading a ROM image into the inspector's model: finding its regions by their
// signatures (the main BIOS header, the Extended Boot Block, non-critical blocks),
// choosing the link form, reading the image information records and telling the boot
// block and NVRAM area. Everything here must hold up against arbitrary bytes: every
// offset is checked against the image before it is read. The chains themselves are
// walked in chain_walker.cpp.

#include "image/image_reader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "format/block_header.h"
#include "format/checksum.h"
#include "format/image_info_records.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "image/chain_walker.h"
#include "image/module_data.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

using Bytes = std::span<const std::uint8_t>;
namespace rec = image_info_record;

std::vector<std::uint32_t> FindSignature(Bytes image, std::string_view signature) {
    std::vector<std::uint32_t> hits;
    if (image.size() < signature.size()) return hits;
    const auto* begin = image.data();
    const auto* end = image.data() + image.size();
    const auto* sig = reinterpret_cast<const std::uint8_t*>(signature.data());
    for (const auto* p = begin; p < end;) {
        p = std::search(p, end, sig, sig + signature.size());
        if (p == end) break;
        hits.push_back(static_cast<std::uint32_t>(p - begin));
        ++p;
    }
    return hits;
}

std::optional<MainHeader> FindMainHeader(Bytes image, ImageModel& model) {
    std::optional<MainHeader> best;
    int best_score = -1;
    for (std::uint32_t sig : FindSignature(image, main_header::kSignature)) {
        if (sig < main_header::kExtensionSize || !Fits(sig, main_header::kSize, image.size())) {
            continue;
        }
        const std::uint8_t* p = image.data() + sig;
        MainHeader h;
        h.signature = sig;
        h.version = p[main_header::RomImageVersion];
        h.flags = p[main_header::RomImageFlags];
        h.module_extension = p[main_header::ModuleExtensionSize];
        h.main_extension = p[main_header::MainExtensionSize];
        h.stamp = load_le32(p + main_header::BootBlockStamp.offset);
        h.length = load_le16(p + main_header::Length.offset);
        h.checksum = load_le32(p + main_header::Checksum.offset);
        h.link = load_le32(p + main_header::FirstLink.offset);
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

// Whether the main chain, read with 32-bit links or with 16-bit ones, holds: it is
// walked without a problem to its end, and every module header on it that seals its
// own data (no split piece, no link header) sums to zero with that data.
bool ChainHolds(Bytes image, const ImageModel& model, bool links32) {
    ImageModel probe;
    probe.size = model.size;
    probe.main = model.main;
    probe.links32 = links32;
    WalkMainChain(image, probe);
    if (!probe.problems.empty() || probe.modules.empty()) return false;
    std::uint64_t budget = ModuleByteBudget(probe);
    for (const Module& m : probe.modules) {
        if (m.Split() || m.Linked()) continue;
        const std::uint64_t covered = module_header::kSize + std::uint64_t(m.header.data_size);
        if (covered > budget) return false;
        budget -= covered;
        if (DwordSum(image, m.header.offset, covered) != 0) return false;
    }
    return true;
}

void ChooseLinkForm(Bytes image, const InspectOptions& options, ImageModel& model) {
    const MainHeader& h = *model.main;
    if (options.link_form != LinkForm::Auto) {
        model.links32 = options.link_form == LinkForm::Bits32;
        model.notes.push_back(model.links32 ? "32-bit links (forced with --32)"
                                            : "16-bit links (forced with --16)");
        return;
    }
    if (h.flags & rom_image_flag::Mode32Bit) {
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
    // In an image of 1 MB the first link can lead to something that looks like a header
    // under both forms; the form under which the whole chain holds decides then.
    if (ok16 && ok32) {
        const bool holds16 = ChainHolds(image, model, false);
        const bool holds32 = ChainHolds(image, model, true);
        if (holds16 != holds32 && holds32 != model.links32) {
            model.links32 = holds32;
            model.link_form_note =
                model.links32 ? "links read as 32-bit: the main BIOS header does not say, and "
                                "the chain holds only so"
                              : "links read as 16-bit segment:offset: the main BIOS header does "
                                "not say, and the chain holds only so";
            model.notes.push_back(model.link_form_note);
            return;
        }
    }
    model.notes.push_back(model.links32
                              ? "32-bit links (flags byte clear, but only a 32-bit link leads "
                                "to a header; compatibility form?)"
                              : "16-bit segment:offset links (flags byte clear)");
}

std::optional<Block> ReadBlockHeader(Bytes image, std::uint32_t at) {
    if (!Fits(at, block_header::kSize, image.size())) return std::nullopt;
    const std::uint8_t* p = image.data() + at;
    if (load_le16(p + block_header::HeaderLength.offset) != block_header::kSize) {
        return std::nullopt;
    }
    Block b;
    b.offset = at;
    b.length = load_le32(p + block_header::BlockLength.offset);
    b.header_checksum = load_le16(p + block_header::HeaderChecksum.offset);
    b.block_checksum = load_le32(p + block_header::BlockChecksum.offset);
    b.first_module = load_le32(p + block_header::FirstModuleOffset.offset);
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
        if (at + rec::kHeadSize > data.size()) {
            model.problems.push_back(
                {"image information module", StrFormat("record at %zx is cut off", at)});
            return;
        }
        const std::uint16_t next = load_le16(&data[at + rec::NextOffset.offset]);
        const std::uint8_t type = data[at + rec::Type.offset];
        const std::uint8_t item = data[at + rec::ItemSize.offset];
        const std::uint8_t count = data[at + rec::ItemCount.offset];
        const std::size_t items = at + rec::kHeadSize;
        if (items + std::size_t(item) * count > data.size()) {
            model.problems.push_back(
                {"image information module",
                 StrFormat("record %02x at %zx runs past its data", type, at)});
            return;
        }
        const std::uint8_t* p = &data[items];
        if (type == rec::kToolVersionType && item == rec::kToolVersionItemSize && count >= 1) {
            model.info.tool_version.assign(
                reinterpret_cast<const char*>(p + rec::ToolVersion.offset), rec::ToolVersion.width);
        } else if (type == rec::kRomImageType && item == rec::kRomImageItemSize && count >= 1) {
            model.info.rom_image_version = p[rec::RomImageVersion.offset];
            model.info.rom_image_flags = p[rec::RomImageFlags.offset];
        } else if (type == rec::kBootBlockOffsetsType && item == rec::kBootBlockOffsetsItemSize &&
                   count >= 1) {
            model.info.bios_tag_offset = load_le32(p + rec::BiosTagOffset.offset);
            model.info.checksum_offset = load_le32(p + rec::ChecksumOffset.offset);
        } else if (type == rec::kBootAreaSizesType && item == rec::kBootAreaSizesItemSize &&
                   count >= 1) {
            model.info.boot_area_size = load_le32(p + rec::BootAreaSize.offset);
            model.info.nvram_size = load_le32(p + rec::NvramSize.offset);
        } else if (type == rec::kConstrainedModulesType && item == rec::kModuleItemSize) {
            for (int i = 0; i < count; ++i, p += rec::kModuleItemSize) {
                model.info.constrained.push_back({p[rec::ModuleInsertionIndex.offset],
                                                  p[rec::ModuleAlignment.offset],
                                                  load_le32(p + rec::ModuleStartAddress.offset)});
            }
        } else if (type == rec::kRomHolesType && item == rec::kRomHoleItemSize) {
            for (int i = 0; i < count; ++i, p += rec::kRomHoleItemSize) {
                model.info.holes.push_back({p[rec::RomHoleKind.offset],
                                            p[rec::RomHoleFiller.offset],
                                            load_le32(p + rec::RomHoleStart.offset),
                                            load_le32(p + rec::RomHoleSize.offset)});
            }
        }
        model.info.data_length = items + std::size_t(item) * count;
        if (next == rec::kLastRecord) return;
        if (next <= at) {
            model.problems.push_back({"image information module",
                                      StrFormat("record at %zx links back to %x", at, next)});
            return;
        }
        at = next;
    }
}

// A block whose length runs past the end of the image is a problem, and is read up to
// the end.
void ClipToImage(ImageModel& model, Block& block, std::uint32_t at, const char* what) {
    if (Fits(at, block.length, model.size)) return;
    model.problems.push_back(
        {StrFormat("%s at %x", what, at),
         StrFormat("block length %x runs past the end of the image", block.length)});
    block.length = model.size - at;
}

void FindBlocks(Bytes image, ImageModel& model) {
    for (std::uint32_t at : FindSignature(image, block_header::kEbbSignature)) {
        if (InsideMainModuleData(model, at)) continue;
        auto block = ReadBlockHeader(image, at);
        if (!block) continue;
        ClipToImage(model, *block, at, "EBB");
        model.ebb = block;  // the highest one wins: the EBB sits right below the boot block
    }
    std::vector<Block> found;
    for (std::uint32_t at : FindSignature(image, block_header::kNcbSignature)) {
        // Non-critical blocks start at paragraph addresses.
        if (at % 16 != 0 || InsideMainModuleData(model, at)) continue;
        auto block = ReadBlockHeader(image, at);
        if (!block) continue;
        ClipToImage(model, *block, at, "non-critical block");
        found.push_back(*block);
    }
    // Blocks are built in the order the image information lists them; that order also
    // numbers their modules. Blocks it does not list follow in address order.
    for (const ImageInfoItemHole& hole : model.info.holes) {
        if (hole.kind != rec::kNonCriticalBlock) continue;
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
        model.problems.push_back(
            {"boot block", StrFormat("size %x is larger than the image", *model.boot_block_size)});
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
        model.problems.push_back({"image", "no main BIOS header (signature \"" +
                                               std::string(main_header::kSignature) + "\") found"});
    } else {
        ChooseLinkForm(image, options, model);
        model.address_base = model.links32 || model.size > 0x100000 ? 0 : 0x100000 - model.size;
        if (model.main->module_extension != module_header::kExtensionSize) {
            model.problems.push_back(
                {"main BIOS header", StrFormat("module header extension size is %u, expected 8",
                                               model.main->module_extension)});
        }
        const MainHeader& h = *model.main;
        const std::uint32_t region = main_header::RegionLength(h.length);
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
    model.gap_placement = (flags & rom_image_flag::HasRomHoles) != 0 || !model.info.holes.empty();
    for (const auto& c : model.info.constrained) {
        if (c.start_address != kEndOfChain) model.gap_placement = true;
    }
    return model;
}

}  // namespace fwforge::inspect