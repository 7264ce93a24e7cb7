#include "inspect/report.h"

#include <algorithm>

#include "format/compressed_data_header.h"
#include "format/image_info_records.h"
#include "format/main_header_block.h"
#include "format/module_header.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

std::string FlagsText(std::uint8_t flags) {
    std::vector<std::string> parts;
    if (flags & rom_image_flag::Mode32Bit) parts.push_back("32-bit mode");
    if (flags & rom_image_flag::HasRomHoles) parts.push_back("ROM holes");
    if (flags & rom_image_flag::ModuleSplit) parts.push_back("module split");
    std::string out;
    for (const auto& p : parts) out += (out.empty() ? "" : ", ") + p;
    return out.empty() ? "none" : out;
}

std::string Range(const ImageModel& model, std::uint32_t offset, std::uint32_t length) {
    const std::uint32_t last = length ? offset + length - 1 : offset;
    return StrFormat("%x-%x (image %x-%x, %x bytes)", model.Address(offset), model.Address(last),
                     offset, last, length);
}

void ModuleTable(std::string& out, std::span<const std::uint8_t> image, const ImageModel& model,
                 const std::vector<const Module*>& modules) {
    out +=
        "  #    id  attributes                     destination     header(addr/image)  "
        "data(addr/image)    stored    original  ratio\n";
    for (const Module* m : modules) {
        const ModuleSizes s = SizesOf(image, *m);
        const std::string data = m->pieces.empty()
                                     ? std::string("-")
                                     : StrFormat("%x/%x", model.Address(m->pieces.front().offset),
                                                 m->pieces.front().offset);
        out +=
            StrFormat("  %-4d %02X  %-30s %-15s %-19s %-19s %-9x %-9s %s\n", m->index, m->header.id,
                      DescribeAttributes(*m).c_str(), DescribeDestination(*m).c_str(),
                      StrFormat("%x/%x", model.Address(m->header.offset), m->header.offset).c_str(),
                      data.c_str(), s.stored,
                      s.compressed ? StrFormat("%x", s.original).c_str() : "-", RatioText(s).c_str());
        for (std::size_t i = 0; i < m->piece_headers.size(); ++i) {
            out += StrFormat("       piece %zu: header %x/%x, %x data bytes\n", i + 1,
                             model.Address(m->piece_headers[i].offset), m->piece_headers[i].offset,
                             m->pieces[i].length);
        }
        if (m->Split()) {
            out += StrFormat("       last piece: header %x/%x, %x data bytes\n",
                             model.Address(m->header.offset), m->header.offset,
                             m->pieces.back().length);
        }
    }
}

}  // namespace

std::vector<FreeRun> FreeSpace(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::vector<FreeRun> runs;
    std::vector<Extent> cover = MergedCover(TopLevelExtents(model));
    cover.push_back(
        {static_cast<std::uint32_t>(image.size()), static_cast<std::uint32_t>(image.size()), ""});
    std::uint32_t from = 0;
    for (const Extent& item : cover) {
        // The bytes between the items, scanned for runs of 0xFF.
        std::uint32_t start = from, length = 0;
        for (std::uint32_t i = from; i <= item.begin; ++i) {
            if (i < item.begin && image[i] == 0xFF) {
                if (length++ == 0) start = i;
                continue;
            }
            if (length >= kMinFreeRun) runs.push_back({start, length});
            length = 0;
        }
        from = std::max(from, item.end);
    }
    return runs;
}

ModuleSizes SizesOf(std::span<const std::uint8_t> image, const Module& m) {
    ModuleSizes s;
    s.stored = m.Linked() ? 0 : m.header.data_size;
    if (!m.Compressed() || m.pieces.empty()) return s;
    // The compressed-data header is at the start of the first piece.
    const Piece& first = m.pieces.front();
    if (first.length < compressed_data_header::kSize) return s;
    s.compressed = true;
    s.total = load_le32(image.data() + first.offset + compressed_data_header::TotalSize.offset);
    s.original =
        load_le32(image.data() + first.offset + compressed_data_header::OriginalSize.offset);
    return s;
}

std::string RatioText(const ModuleSizes& s) {
    if (!s.compressed || s.original == 0) return "-";
    return StrFormat("%.1f%%", 100.0 * s.total / s.original);
}

std::string DescribeAttributes(const Module& m) {
    std::vector<std::string> parts;
    if (m.link_without_bit) {
        parts.push_back("linked add-on ROM, no link bit");
    } else if (m.Linked()) {
        parts.push_back("linked add-on ROM");
    } else {
        parts.push_back(m.Compressed() ? "compressed" : "uncompressed");
    }
    if (m.Split()) parts.push_back(StrFormat("split (%zu pieces)", m.pieces.size()));
    if (m.Contiguous()) parts.push_back("contiguous");
    std::string out;
    for (const auto& p : parts) out += (out.empty() ? "" : ", ") + p;
    return out;
}

std::string DescribeDestination(const Module& m) {
    if (m.header.id == kAddonRomModuleId) {
        return StrFormat("PCI %04x:%04x", m.header.dest_offset, m.header.dest_segment);
    }
    return StrFormat("%04x:%04x", m.header.dest_segment, m.header.dest_offset);
}

std::string ListText(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::string out;
    out += StrFormat("Image: %x bytes, ROM addresses %x-%x, %s links, %s placement\n", model.size,
                     model.Address(0), model.Address(model.size ? model.size - 1 : 0),
                     model.links32 ? "32-bit" : "16-bit segment:offset",
                     model.gap_placement ? "gap" : "sequential");
    out += "\nRegions from the top down:\n";
    if (model.boot_block_size) {
        out += "  boot block           " +
               Range(model, model.size - *model.boot_block_size, *model.boot_block_size) + "\n";
    } else {
        out += "  boot block           size unknown (give --bbsize)\n";
    }
    if (model.ebb) {
        out += "  Extended Boot Block  " + Range(model, model.ebb->offset, model.ebb->length) +
               StrFormat(", %zu modules\n", model.ModulesIn(ModuleArea::Ebb).size());
    }
    if (model.nvram_offset) {
        out +=
            "  NVRAM area           " + Range(model, *model.nvram_offset, *model.nvram_size) + "\n";
    }
    if (model.main) {
        const MainHeader& h = *model.main;
        out += "  main BIOS header     " + Range(model, h.BlockStart(), main_header::kBlockSize) +
               "\n";
        out += StrFormat("    signature at %x, version %02x, flags %02x (%s), stamp %08x\n",
                         model.Address(h.signature), h.version, h.flags, FlagsText(h.flags).c_str(),
                         h.stamp);
        if (h.length == main_header::kCappedLength) {
            out += StrFormat(
                "    length ffff (capped: checksum over the %x bytes below the header end)\n",
                main_header::kCappedRegion);
        } else {
            out += StrFormat("    length %x (%x bytes), checksum %08x\n", h.length,
                             main_header::RegionLength(h.length), h.checksum);
        }
    }
    if (!model.info.tool_version.empty()) {
        out += StrFormat("  image information    written by tool version %s",
                         model.info.tool_version.c_str());
        if (model.info.rom_image_version) {
            out += StrFormat(", version %02x, flags %02x", *model.info.rom_image_version,
                             *model.info.rom_image_flags);
        }
        out += "\n";
    }
    for (const ImageInfoItemHole& hole : model.info.holes) {
        if (hole.kind == image_info_record::kNonCriticalBlock) continue;
        out += StrFormat("  ROM hole             %s, filler %02x%s\n",
                         Range(model, hole.start, hole.size).c_str(), hole.filler,
                         hole.kind == image_info_record::kFileHole ? ", loaded from a file" : "");
    }

    out += StrFormat("\nMain BIOS modules in chain order (%zu):\n",
                     model.ModulesIn(ModuleArea::Main).size());
    ModuleTable(out, image, model, model.ModulesIn(ModuleArea::Main));
    if (model.ebb) {
        out += StrFormat("\nExtended Boot Block modules (%zu):\n",
                         model.ModulesIn(ModuleArea::Ebb).size());
        ModuleTable(out, image, model, model.ModulesIn(ModuleArea::Ebb));
    }
    for (std::size_t i = 0; i < model.ncbs.size(); ++i) {
        const auto modules = model.ModulesIn(ModuleArea::Ncb, static_cast<int>(i));
        out += StrFormat("\nNon-critical block %zu: ", i + 1) +
               Range(model, model.ncbs[i].offset, model.ncbs[i].length) +
               StrFormat(", %zu modules\n", modules.size());
        if (!modules.empty()) ModuleTable(out, image, model, modules);
    }

    std::vector<FreeRun> runs = FreeSpace(image, model);
    std::uint64_t total = 0;
    for (const FreeRun& r : runs) total += r.length;
    out += StrFormat("\nFree space: %llx bytes of 0xFF in %zu %s",
                     static_cast<unsigned long long>(total), runs.size(),
                     runs.size() == 1 ? "run" : "runs");
    std::stable_sort(runs.begin(), runs.end(),
                     [](const FreeRun& a, const FreeRun& b) { return a.length > b.length; });
    if (!runs.empty())
        out += runs.size() > 5 ? "; the five largest:" : runs.size() > 1 ? ", largest first:" : ":";
    out += "\n";
    for (std::size_t i = 0; i < runs.size() && i < 5; ++i) {
        out += "  " + Range(model, runs[i].offset, runs[i].length) + "\n";
    }
    for (const Finding& f : model.problems) {
        out += "PROBLEM: " + f.where + ": " + f.what + "\n";
    }
    return out;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            // Texts can carry bytes of the image; as Latin-1 they stay valid JSON.
            out += StrFormat("\\u%04x", c);
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

namespace {

std::string JsonModule(std::span<const std::uint8_t> image, const ImageModel& model,
                       const Module& m) {
    const ModuleSizes s = SizesOf(image, m);
    std::string out = StrFormat(
        "{\"index\": %d, \"number\": %s, \"area\": %s, \"id\": %u, \"attributes\": %u, "
        "\"compressed\": %s, \"linked\": %s, \"split\": %s, \"contiguous\": %s, ",
        m.index, JsonString(ModuleNumber(m)).c_str(),
        JsonString(m.area == ModuleArea::Main  ? "main"
                   : m.area == ModuleArea::Ebb ? "ebb"
                                               : "ncb")
            .c_str(),
        m.header.id, m.header.attributes, m.Compressed() ? "true" : "false",
        m.Linked() ? "true" : "false", m.Split() ? "true" : "false",
        m.Contiguous() ? "true" : "false");
    if (m.link_without_bit) out += "\"link_without_bit\": true, ";
    if (m.area == ModuleArea::Ncb) out += StrFormat("\"block\": %d, ", m.block + 1);
    if (m.header.id == kAddonRomModuleId) {
        out += StrFormat("\"vendor_id\": %u, \"device_id\": %u, ", m.header.dest_offset,
                         m.header.dest_segment);
    } else {
        out += StrFormat("\"dest_segment\": %u, \"dest_offset\": %u, ", m.header.dest_segment,
                         m.header.dest_offset);
    }
    out += StrFormat("\"header_offset\": %u, \"header_address\": %u, \"data_size\": %u, ",
                     m.header.offset, model.Address(m.header.offset), m.header.data_size);
    out += "\"pieces\": [";
    for (std::size_t i = 0; i < m.pieces.size(); ++i) {
        out += StrFormat("%s{\"offset\": %u, \"address\": %u, \"length\": %u}", i ? ", " : "",
                         m.pieces[i].offset, model.Address(m.pieces[i].offset), m.pieces[i].length);
    }
    out += "]";
    if (s.compressed) {
        out += StrFormat(", \"compressed_total\": %u, \"original_size\": %u", s.total, s.original);
    }
    return out + "}";
}

std::string JsonBlock(const Block& b) {
    return StrFormat(
        "{\"offset\": %u, \"length\": %u, \"header_checksum\": %u, "
        "\"block_checksum\": %u, \"first_module\": %u}",
        b.offset, b.length, b.header_checksum, b.block_checksum, b.first_module);
}

std::string JsonFindings(const std::vector<Finding>& findings) {
    std::string out = "[";
    for (std::size_t i = 0; i < findings.size(); ++i) {
        out += (i ? ", " : "") + std::string("{\"where\": ") + JsonString(findings[i].where) +
               ", \"what\": " + JsonString(findings[i].what) + "}";
    }
    return out + "]";
}

std::string JsonStrings(const std::vector<std::string>& items) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) out += (i ? ", " : "") + JsonString(items[i]);
    return out + "]";
}

}  // namespace

std::string ListJson(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::string out = "{\n";
    out += StrFormat("  \"size\": %u,\n  \"address_base\": %u,\n  \"links\": %d,\n", model.size,
                     model.address_base, model.links32 ? 32 : 16);
    out += StrFormat("  \"placement\": %s,\n", model.gap_placement ? "\"gap\"" : "\"sequential\"");
    if (model.boot_block_size)
        out += StrFormat("  \"boot_block_size\": %u,\n", *model.boot_block_size);
    if (model.nvram_offset) {
        out += StrFormat("  \"nvram\": {\"offset\": %u, \"length\": %u},\n", *model.nvram_offset,
                         *model.nvram_size);
    }
    if (model.main) {
        const MainHeader& h = *model.main;
        out += StrFormat(
            "  \"main_header\": {\"offset\": %u, \"address\": %u, \"version\": %u, "
            "\"flags\": %u, \"stamp\": %u, \"length\": %u, \"checksum\": %u, "
            "\"link\": %u},\n",
            h.signature, model.Address(h.signature), h.version, h.flags, h.stamp, h.length,
            h.checksum, h.link);
    }
    if (!model.info.tool_version.empty()) {
        out += "  \"image_information\": {\"tool_version\": " + JsonString(model.info.tool_version);
        if (model.info.rom_image_version) {
            out += StrFormat(", \"version\": %u, \"flags\": %u", *model.info.rom_image_version,
                             *model.info.rom_image_flags);
        }
        out += "},\n";
    }
    if (model.ebb) out += "  \"ebb\": " + JsonBlock(*model.ebb) + ",\n";
    out += "  \"non_critical_blocks\": [";
    for (std::size_t i = 0; i < model.ncbs.size(); ++i)
        out += (i ? ", " : "") + JsonBlock(model.ncbs[i]);
    out += "],\n  \"modules\": [\n";
    for (std::size_t i = 0; i < model.modules.size(); ++i) {
        out += "    " + JsonModule(image, model, model.modules[i]) +
               (i + 1 < model.modules.size() ? ",\n" : "\n");
    }
    out += "  ],\n  \"rom_holes\": [";
    for (std::size_t i = 0; i < model.info.holes.size(); ++i) {
        const auto& h = model.info.holes[i];
        out += StrFormat("%s{\"kind\": %u, \"filler\": %u, \"offset\": %u, \"length\": %u}",
                         i ? ", " : "", h.kind, h.filler, h.start, h.size);
    }
    const std::vector<FreeRun> runs = FreeSpace(image, model);
    std::uint64_t total = 0;
    for (const FreeRun& r : runs) total += r.length;
    out += StrFormat("],\n  \"free_space\": {\"total\": %llu, \"runs\": [",
                     static_cast<unsigned long long>(total));
    for (std::size_t i = 0; i < runs.size(); ++i) {
        out += StrFormat("%s{\"offset\": %u, \"length\": %u}", i ? ", " : "", runs[i].offset,
                         runs[i].length);
    }
    out += "]},\n  \"problems\": " + JsonFindings(model.problems) + ",\n";
    out += "  \"notes\": " + JsonStrings(model.notes) + "\n}\n";
    return out;
}

std::string VerifyText(const VerifyReport& report) {
    std::string out;
    for (const Finding& f : report.problems) out += "PROBLEM: " + f.where + ": " + f.what + "\n";
    for (const CannotUnpack& c : report.cannot_unpack) {
        out += "CANNOT UNPACK: " + c.module + ": " + c.reason + "; " + c.change + "\n";
    }
    for (const std::string& n : report.notes) out += "NOTE: " + n + "\n";
    switch (report.Status()) {
        case kVerifyIntact:
            out += StrFormat("verify: OK, %d checks passed\n", report.checks);
            break;
        case kVerifyCannotUnpack:
            out += StrFormat(
                "verify: intact as built, %d checks passed, but %zu compressed %s cannot be "
                "unpacked\n",
                report.checks, report.cannot_unpack.size(),
                report.cannot_unpack.size() == 1 ? "module" : "modules");
            break;
        default:
            out += StrFormat("verify: FAILED, %zu problems\n", report.problems.size());
            break;
    }
    return out;
}

std::string VerifyJson(const VerifyReport& report) {
    const int status = report.Status();
    std::string out = StrFormat("{\n  \"status\": %d,\n  \"result\": %s,\n  \"ok\": %s,\n", status,
                                status == kVerifyIntact    ? "\"intact\""
                                : status == kVerifyDamaged ? "\"damaged\""
                                                           : "\"cannot unpack\"",
                                status == kVerifyIntact ? "true" : "false");
    out += StrFormat("  \"checks\": %d,\n", report.checks);
    out += "  \"problems\": " + JsonFindings(report.problems) + ",\n  \"cannot_unpack\": [";
    for (std::size_t i = 0; i < report.cannot_unpack.size(); ++i) {
        const CannotUnpack& c = report.cannot_unpack[i];
        out += (i ? ", " : "") + std::string("{\"module\": ") + JsonString(c.module) +
               ", \"reason\": " + JsonString(c.reason) + ", \"change\": " + JsonString(c.change) +
               "}";
    }
    return out + "],\n  \"notes\": " + JsonStrings(report.notes) + "\n}\n";
}

}  // namespace fwforge::inspect
