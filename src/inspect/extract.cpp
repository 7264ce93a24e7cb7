#include "inspect/extract.h"

#include <algorithm>

#include "compress/cut_off_stand_in.h"
#include "format/compressed_data_header.h"
#include "format/image_info_records.h"
#include "format/main_header_block.h"
#include "format/module_room.h"
#include "format/module_header.h"
#include "image/module_data.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"
#include "script/ebb_module_list.h"
#include "script/script_writer.h"

namespace fwforge::inspect {
namespace {

namespace rec = image_info_record;

// The boot block file that fwforge reads is a 64 KB segment whose last BootBlockSize
// bytes are the boot block; the bytes in front of it are never read.
constexpr std::uint32_t kBootSegment = 0x10000;

// The tag stored in the boot block at BiosTagOffset, a zero-terminated text.
std::string ReadTag(std::span<const std::uint8_t> image, const ImageModel& model) {
    if (!model.boot_block_size) return {};
    const std::uint32_t bb = *model.boot_block_size;
    const std::uint32_t tag_offset = model.info.bios_tag_offset.value_or(0xFFE0);
    if (tag_offset >= kBootSegment || kBootSegment - tag_offset > bb) return {};
    std::size_t at = model.size - bb + (bb - (kBootSegment - tag_offset));
    std::string tag;
    for (; at < image.size() && image[at] != 0 && tag.size() < 11; ++at) {
        const char c = static_cast<char>(image[at]);
        if (c <= ' ' || c > '~') return {};  // not a tag the script could carry
        tag += c;
    }
    return tag;
}

// The parent of the linked add-on ROM at chain position `i`: the nearest module before
// it that is not a link.
const Module* ParentOf(const std::vector<const Module*>& chain, std::size_t i) {
    while (i > 0) {
        --i;
        if (!chain[i]->Linked()) return chain[i];
    }
    return nullptr;
}

// Gap placement reserves 2 bytes beyond the compressed total that the build computed
// (rounded to 4). It shows where that reaches past the stored data and no maximum size
// made the data longer.
bool ReserveShows(const ImageModel& model, const Module& m, std::uint32_t total) {
    using module_room::RoundUp4;
    return model.gap_placement && m.area != ModuleArea::Ebb &&
           m.header.data_size == RoundUp4(total) &&
           RoundUp4(total + module_room::kCompressedReserve) != RoundUp4(total);
}

}  // namespace

std::string ModuleFileName(const ImageModel& model, const Module& m, const char* suffix) {
    const std::uint32_t at = m.pieces.empty() ? m.header.offset : m.pieces.front().offset;
    std::string area = "m";
    if (m.area == ModuleArea::Ebb) area = "ebb";
    if (m.area == ModuleArea::Ncb) area = StrFormat("ncb%d_", m.block + 1);
    return StrFormat("%s%02d_id%02x_%x%s", area.c_str(), m.index, m.header.id, model.Address(at),
                     suffix);
}

ExtractPlan PlanExtract(std::span<const std::uint8_t> image, const ImageModel& model,
                        const ExtractChoices& choices) {
    ExtractPlan plan;
    std::vector<std::string>& module_files = plan.module_files;
    module_files.resize(model.modules.size());
    std::vector<bool> recompress(model.modules.size(), false);
    std::vector<bool> stand_in(model.modules.size(), false);
    // A stored size beyond what the compressed data needs was fixed by maxmodulesize.
    std::vector<std::uint32_t> fixed_size(model.modules.size(), 0);

    std::uint64_t budget = ModuleByteBudget(model);
    for (std::size_t i = 0; i < model.modules.size(); ++i) {
        const Module& m = model.modules[i];
        if (m.Linked()) continue;
        if (m.StoredLength() > budget) {
            plan.problems.push_back({"image",
                                     "its modules claim far more data than the image "
                                     "holds; the remaining modules are not extracted"});
            break;
        }
        budget -= m.StoredLength();
        std::vector<std::uint8_t> stored = m.StoredData(image);
        // An alignment that is not a multiple of 4 leaves sequential placement a data
        // size that is not one either. Given as a file of that length, the module would
        // be rounded up and aligned anew; given without the last bytes below a multiple
        // of 4, which are alignment bytes the build never writes, it takes exactly its
        // place again.
        if (!model.gap_placement && m.area == ModuleArea::Main) stored.resize(stored.size() & ~3u);
        if (!m.Compressed()) {
            module_files[i] = ModuleFileName(model, m, ".bin");
            plan.files.push_back({module_files[i], stored});
            continue;
        }
        DecodeResult decoded = DecodeStoredData(stored);
        // The stored data is what a rebuild takes (nowcompressed = yes): it is exactly
        // the image's bytes, whatever the encoder would make of the original today.
        module_files[i] = ModuleFileName(model, m, ".lh5");
        plan.files.push_back({module_files[i], stored});
        if (decoded.status == DecodeStatus::Ok) {
            // (Sequential placement widens a module with an alignment instead.)
            const bool aligned =
                m.area == ModuleArea::Main &&
                std::any_of(model.info.constrained.begin(), model.info.constrained.end(),
                            [&](const ImageInfoItemConstrained& c) {
                                return c.insertion_index == m.index && c.alignment != 0;
                            });
            if (!aligned && m.header.data_size > module_room::RoundUp4(decoded.total)) {
                fixed_size[i] = m.header.data_size;
            }
            const std::string name = ModuleFileName(model, m, ".bin");
            plan.files.push_back({name, std::move(decoded.bytes)});
            // The boot block stamp is read from the original file of module 1B, so
            // that one must be given decompressed and compressed again by the build.
            // Where the reserve shows, a build from the stored data would take 4 bytes
            // less room, and so the module is compressed again too.
            const bool reserve_shows = ReserveShows(model, m, decoded.total);
            // Whether the reserve was there is a guess: a file given as compressed data
            // (nowcompressed = yes) has none. A choice overrides it.
            const bool stamp = m.header.id == kBootBlockStampModuleId && m.area != ModuleArea::Ebb;
            bool again = stamp || reserve_shows ||
                         (choices.recompress_all && model.gap_placement && m.area != ModuleArea::Ebb);
            if (model.gap_placement && m.area != ModuleArea::Ebb && !stamp) {
                plan.open_choices.push_back({i, OpenChoice::Recompress});
                if (i < choices.recompress.size() && choices.recompress[i] >= 0) {
                    again = choices.recompress[i] != 0;
                }
            }
            if (again) {
                module_files[i] = name;
                recompress[i] = true;
            }
        } else {
            CannotUnpack entry;
            if (DescribeCannotUnpack(model, m, decoded, entry)) {
                plan.cannot_unpack.push_back(std::move(entry));
            }
            // A cut-off stream that a build made took the room of compressed data, which
            // a build given the stored bytes does not give them. A stand-in file that the
            // encoder cuts off at the same bytes gets that room back.
            if (decoded.status != DecodeStatus::CutOff || !ReserveShows(model, m, decoded.total)) {
                continue;
            }
            std::map<std::size_t, std::optional<std::vector<std::uint8_t>>> found;
            auto& memo = choices.stand_ins != nullptr ? *choices.stand_ins : found;
            if (!memo.contains(i)) memo[i] = lzh::CutOffStandIn(stored);
            const std::optional<std::vector<std::uint8_t>>& standin = memo[i];
            if (!standin) continue;
            plan.open_choices.push_back({i, OpenChoice::Recompress});
            if (i < choices.recompress.size() && choices.recompress[i] == 0) continue;
            module_files[i] = ModuleFileName(model, m, ".standin.bin");
            plan.files.push_back({module_files[i], *standin});
            recompress[i] = true;
            stand_in[i] = true;
        }
    }
    if (model.info.module >= 0) {
        // The image information data as fwforge writes it to its .inf file.
        const Module& m = model.modules[model.info.module];
        std::vector<std::uint8_t> raw = m.StoredData(image);
        if (m.Compressed()) {
            DecodeResult d = DecodeStoredData(raw);
            if (d.status == DecodeStatus::Ok) raw = std::move(d.bytes);
        }
        // Stored data is padded to 4 bytes; the records tell where the data ends.
        if (model.info.data_length != 0 && model.info.data_length <= raw.size()) {
            raw.resize(model.info.data_length);
        }
        plan.files.push_back({"imageinfo.inf", std::move(raw)});
    }

    BuildDescription& d = plan.description;
    auto& lost = plan.lost;
    plan.comments = {"Rebuild script written by fwforge-inspect. Run it from this folder:",
                     "  fwforge . rebuild.scr"};
    const std::uint8_t version =
        model.info.rom_image_version.value_or(model.main ? model.main->version : 0);
    const std::uint8_t flags =
        model.info.rom_image_flags.value_or(model.main ? model.main->flags : 0);
    if (model.main && model.main->version == 0 && model.main->flags == 0 &&
        (version != 0 || flags != 0)) {
        plan.compatibility_form = true;
        plan.comments.push_back(
            "The main BIOS header is in the compatibility form: add -c to the command.");
        lost.push_back("the main BIOS header is in the compatibility form: run fwforge with -c");
    }

    // Boot block.
    if (model.boot_block_size && *model.boot_block_size <= kBootSegment) {
        const std::uint32_t bb = *model.boot_block_size;
        std::vector<std::uint8_t> segment(kBootSegment, 0);
        std::copy(image.end() - bb, image.end(), segment.end() - bb);
        plan.files.push_back({"bootblock.bin", std::move(segment)});
    } else {
        lost.push_back("the boot block: its size is unknown or above 64 KB (give --bbsize)");
    }
    d.Init.BootBlockFile = "bootblock.bin";
    if (model.info.checksum_offset) d.Init.ChecksumOffset = *model.info.checksum_offset;
    if (model.info.bios_tag_offset) d.Init.BiosTagOffset = *model.info.bios_tag_offset;
    if (!model.info.checksum_offset) lost.push_back("checksum and tag offsets (defaults used)");

    // Sizes.
    const std::uint32_t ebb = model.ebb ? model.ebb->length : 0;
    std::uint32_t nvram = model.info.nvram_size.value_or(0);
    if (!model.info.nvram_size && model.main && model.boot_block_size && !model.gap_placement) {
        // In sequential placement the main BIOS header block sits right below it.
        const std::uint64_t top = std::uint64_t(model.size) - *model.boot_block_size - ebb;
        const std::uint64_t block_end =
            model.main->BlockStart() + std::uint64_t(main_header::kBlockSize);
        if (top >= block_end) nvram = static_cast<std::uint32_t>(top - block_end);
    } else if (!model.info.nvram_size) {
        lost.push_back("the NVRAM size (0 used)");
    }
    std::string tag = ReadTag(image, model);
    if (tag.empty()) {
        lost.push_back("the BIOS tag (ROM used)");
        tag = "ROM";
    }
    d.Bios.RomFile = kRebuiltRom;
    d.Bios.BiosSize = model.size;
    d.Bios.BootBlockSize = model.boot_block_size.value_or(0);
    d.Bios.NvramSize = nvram;
    d.Bios.MaxEbbSize = ebb;
    d.Bios.BiosTag = tag;
    d.RomImage.RomImageVersion = version;
    if ((flags & rom_image_flag::Mode32Bit) || model.size > 0x100000) {
        d.RomImage.Use32BitMode = true;
        d.RomImage.RomImageFlags |= rom_image_flag::Mode32Bit;
    }

    // An uncompressed module may not be split by default, and the header records only
    // a "contiguous = yes". Whether such a module was placed whole by the pass for
    // modules that must not be split, or by the pass after it, shows in the chain: each
    // pass takes the largest first, so the later pass begins at the first module that
    // is larger than the one before it, or that is compressed and may be split, and not
    // before the last one marked contiguous.
    auto fixed = [&](const Module& m) {
        return std::any_of(model.info.constrained.begin(), model.info.constrained.end(),
                           [&](const ImageInfoItemConstrained& c) {
                               return c.insertion_index == m.index &&
                                      c.start_address != kEndOfChain;
                           });
    };
    const auto main_chain = model.ModulesIn(ModuleArea::Main);
    // The room a module took, as placement counted it.
    auto placed_size = [&](std::size_t i) {
        const Module& m = *main_chain[i];
        std::uint64_t size = m.header.data_size;
        if (m.Compressed() && !m.pieces.empty() &&
            m.pieces.front().length >= compressed_data_header::TotalSize.end()) {
            const std::uint64_t total = load_le32(image.data() + m.pieces.front().offset +
                                                  compressed_data_header::TotalSize.offset);
            size = std::max(size, module_room::RoundUp4(total + module_room::kCompressedReserve));
        }
        for (const ImageInfoItemConstrained& c : model.info.constrained) {
            if (c.insertion_index == m.index) {
                size += module_room::AlignmentReserve(c.alignment, model.gap_placement);
            }
        }
        size += module_header::kSize;
        for (std::size_t j = i + 1; j < main_chain.size() && main_chain[j]->Linked(); ++j) {
            size += module_header::kSize;
        }
        return size;
    };
    std::vector<std::size_t> whole;  // placed whole by one of the two passes
    for (std::size_t i = 0; i < main_chain.size(); ++i) {
        const Module& m = *main_chain[i];
        if (!m.Linked() && !m.Split() && !fixed(m) && m.header.id != kImageInfoModuleId) {
            whole.push_back(i);
        }
    }
    std::size_t later_pass = whole.size();
    bool unsure = false;
    if (model.gap_placement) {
        std::size_t from = 0;
        for (std::size_t k = 0; k < whole.size(); ++k) {
            if (main_chain[whole[k]]->Contiguous()) from = k + 1;
        }
        for (std::size_t k = from; k < whole.size() && later_pass == whole.size(); ++k) {
            const bool rises = k > 0 && placed_size(whole[k]) > placed_size(whole[k - 1]);
            if (main_chain[whole[k]]->Compressed() || rises) later_pass = k;
        }
        for (std::size_t k = from; k < later_pass; ++k)
            unsure |= !main_chain[whole[k]]->Compressed();
    }
    if (unsure) {
        lost.push_back(
            "whether uncompressed modules placed whole were splittable (not "
            "splittable, the default, used where the chain does not tell)");
    }
    auto may_split = [&](const Module& m) {
        if (m.Compressed() || m.Linked() || m.Contiguous() || m.area != ModuleArea::Main)
            return false;
        if (m.Split()) return true;
        const std::size_t at = static_cast<std::size_t>(&m - model.modules.data());
        if (at < choices.splittable.size() && choices.splittable[at] >= 0) {
            return choices.splittable[at] != 0;
        }
        for (std::size_t k = later_pass; k < whole.size(); ++k) {
            if (main_chain[whole[k]] == &m) return true;
        }
        return false;
    };
    if (model.gap_placement) {
        for (std::size_t w : whole) {
            const Module& m = *main_chain[w];
            if (!m.Compressed() && !m.Contiguous()) {
                plan.open_choices.push_back({static_cast<std::size_t>(&m - model.modules.data()),
                                             OpenChoice::Splittable});
            }
        }
    }

    // Modules: the EBB's first, then the main BIOS's, then each block's, each module
    // directly followed by its linked add-on ROMs.
    plan.module_entries.assign(model.modules.size(), ModuleEntryRef{});
    auto add_module = [&](const std::vector<const Module*>& chain, std::size_t i,
                          const std::string& region) {
        const Module& m = *chain[i];
        const std::size_t k = static_cast<std::size_t>(&m - model.modules.data());
        ModuleHeader header;
        header.id = m.header.id;
        header.dest_offset = m.header.dest_offset;
        header.dest_segment = m.header.dest_segment;
        std::uint8_t attributes = m.header.attributes & module_attr::NotCompressed;
        if (m.Contiguous()) attributes |= module_attr::ContiguousAttr;
        const std::uint8_t compression =
            m.Compressed() && !recompress[k] ? compression_flag::AlreadyCompressed : 0;
        if (stand_in[k]) {
            lost.push_back(DescribeModule(model, m) +
                           ": its file's end, past the encoder's cut, is lost; " + module_files[k] +
                           " is data of its length that the encoder cuts off at the same bytes, "
                           "for the build to store them again in the room it gave them");
        } else if (recompress[k]) {
            lost.push_back(DescribeModule(model, m) +
                           (m.header.id == kBootBlockStampModuleId
                                ? ": given decompressed (it supplies the boot block stamp)"
                                : ": given decompressed (its placement counts its compressed "
                                  "size, which the stored data rounds away)") +
                           "; the build compresses it again, and its encoder may choose other "
                           "matches of the same meaning");
        }
        header.attributes = attributes;
        if (region == "EBB") {
            EbbModuleRecord record;
            record.FileName = module_files[k];
            record.Header = header;
            record.CompressionFlags = compression;
            record.MaxModuleSize = fixed_size[k];
            if (d.EbbModuleList.size() < kMaxEbbModules) {
                plan.module_entries[k] = {true, d.EbbModuleList.size()};
                d.EbbModuleList.push_back(std::move(record));
            }
            return;
        }
        ModuleEntry entry;
        if (!m.Linked()) entry.FileName = module_files[k];
        if (m.Linked()) {
            const Module* parent = ParentOf(chain, i);
            if (parent) {
                if (!m.link_without_bit) attributes |= module_attr::LinkedRom;
                entry.LinkVendorId = parent->header.dest_offset;
                entry.LinkDeviceId = parent->header.dest_segment;
                for (std::size_t j = 0; j < chain.size() && chain[j] != parent; ++j) {
                    if (chain[j]->header.dest_offset == parent->header.dest_offset &&
                        chain[j]->header.dest_segment == parent->header.dest_segment) {
                        lost.push_back(DescribeModule(model, m) +
                                       ": an earlier module has its parent's ids; the build "
                                       "links it there");
                        break;
                    }
                }
            } else {
                lost.push_back(DescribeModule(model, m) + ": linked add-on ROM without a parent");
            }
            header.attributes = attributes;
        }
        entry.Header = header;
        entry.CompressionFlags = compression;
        entry.MaxModuleSize = fixed_size[k];
        entry.Contiguous =
            m.Contiguous() || ((attributes & module_attr::NotCompressed) && !may_split(m));
        // A linked add-on ROM goes wherever its parent goes.
        if (!m.Linked()) entry.RomRegion = region;
        if (d.ModuleCount + 1 >= d.ModuleTable.size()) return;
        const std::uint32_t at = d.ModuleCount++;
        plan.module_entries[k] = {false, at};
        d.ModuleTable[at] = std::move(entry);
        if (m.area != ModuleArea::Main) return;
        for (const ImageInfoItemConstrained& c : model.info.constrained) {
            if (c.insertion_index != m.index) continue;
            if (c.alignment) {
                d.ModuleTable[at].Alignment = c.alignment;
                ++d.ConstrainedModuleCount;
            }
            if (c.start_address != kEndOfChain) ReserveStartAddress(d, at, c.start_address);
        }
    };
    const auto ebb_modules = model.ModulesIn(ModuleArea::Ebb);
    for (std::size_t i = 0; i < ebb_modules.size(); ++i) add_module(ebb_modules, i, "EBB");

    auto main_modules = model.ModulesIn(ModuleArea::Main);
    if (model.info.module >= 0) main_modules.pop_back();  // built by fwforge itself
    auto grouped = [](const std::vector<const Module*>& chain) {
        std::vector<std::vector<std::size_t>> groups;  // a module and its links
        for (std::size_t i = 0; i < chain.size();) {
            std::size_t j = i + 1;
            while (j < chain.size() && chain[j]->Linked()) ++j;
            groups.push_back({});
            for (std::size_t l = i; l < j; ++l) groups.back().push_back(l);
            i = j;
        }
        return groups;
    };
    std::vector<std::vector<std::size_t>> groups = grouped(main_modules);
    // The image information lists the modules with an alignment or a start address in
    // script order; the chain has them in placement order. Those modules take their
    // listed order among the places they hold in the chain.
    auto listed_at = [&](const std::vector<std::size_t>& group) {
        const auto& items = model.info.constrained;
        for (std::size_t k = 0; k < items.size(); ++k) {
            if (items[k].insertion_index == main_modules[group.front()]->index) return k;
        }
        return items.size();
    };
    std::vector<std::size_t> slots;
    std::vector<std::vector<std::size_t>> listed;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        if (listed_at(groups[g]) < model.info.constrained.size()) {
            slots.push_back(g);
            listed.push_back(groups[g]);
        }
    }
    std::stable_sort(listed.begin(), listed.end(),
                     [&](const auto& a, const auto& b) { return listed_at(a) < listed_at(b); });
    for (std::size_t k = 0; k < slots.size(); ++k) groups[slots[k]] = listed[k];
    for (const auto& group : groups) {
        for (std::size_t i : group) add_module(main_modules, i, "");
    }

    for (std::size_t b = 0; b < model.ncbs.size(); ++b) {
        const auto block = model.ModulesIn(ModuleArea::Ncb, static_cast<int>(b));
        for (const auto& group : grouped(block)) {
            for (std::size_t i : group) add_module(block, i, StrFormat("NCB%zu", b + 1));
        }
    }

    // ROM holes and non-critical blocks, from the image information module.
    int hole_number = 0, block_number = 0;
    for (const ImageInfoItemHole& hole : model.info.holes) {
        if (d.RomHoleCount >= d.RomHoleTable.size()) break;
        RomHoleEntry& entry = d.RomHoleTable[d.RomHoleCount++];
        if (hole.kind == rec::kNonCriticalBlock) {
            entry.Name = StrFormat("NCB%d", ++block_number);
        } else if (hole.kind == rec::kFileHole &&
                   std::uint64_t(hole.start) + hole.size <= model.size) {
            const std::string name = StrFormat("romhole%d.bin", ++hole_number);
            plan.files.push_back(
                {name, std::vector<std::uint8_t>(image.begin() + hole.start,
                                                 image.begin() + hole.start + hole.size)});
            entry.FileName = name;
        }
        entry.Filler = hole.filler;
        entry.StartAddress = model.Address(hole.start);
        entry.Size = hole.size;
        d.RomImage.RomImageFlags |= rom_image_flag::HasRomHoles;
    }
    if (!model.ncbs.empty())
        lost.push_back("the names of non-critical blocks (ncb1, ncb2, ... used)");
    if (model.gap_placement) {
        lost.push_back(
            "the order of the [module] sections (gap placement places by size; "
            "chain order used, modules with an alignment or start address in the "
            "order the image information lists them)");
    }
    if (model.main && model.main->stamp != 0 &&
        std::none_of(model.modules.begin(), model.modules.end(),
                     [](const Module& m) { return m.header.id == kBootBlockStampModuleId; })) {
        lost.push_back(
            StrFormat("the boot block stamp %08x: no module 1B supplies it", model.main->stamp));
    }
    for (const Module& m : model.modules) {
        if (!m.Linked() && !m.Compressed()) {
            lost.push_back(
                "the exact file lengths of uncompressed modules (written as stored, "
                "padded to 4 bytes)");
            break;
        }
    }
    if (model.info.module >= 0) module_files[model.info.module].clear();
    const std::string text = WriteBuildScript(d, plan.comments);
    plan.files.push_back({kRebuildScript, std::vector<std::uint8_t>(text.begin(), text.end())});
    return plan;
}

}  // namespace fwforge::inspect
