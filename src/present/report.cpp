#include "present/report.h"

#include <algorithm>

#include "check/problems.h"
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
    if (!model.link_form_note.empty()) out += "NOTE: " + model.link_form_note + "\n";
    out += ProblemLines(model.problems);
    return out;
}

nlohmann::ordered_json JsonText(const std::string& text) {
    // Texts can carry bytes of the image; read as Latin-1 they are always valid
    // Unicode, and the writer escapes everything beyond ASCII.
    std::string utf8;
    utf8.reserve(text.size());
    for (const unsigned char c : text) {
        if (c < 0x80) {
            utf8 += static_cast<char>(c);
        } else {
            utf8 += static_cast<char>(0xC0 | c >> 6);
            utf8 += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return utf8;
}

std::string JsonDocument(const nlohmann::ordered_json& document) {
    return document.dump(2, ' ', true) + "\n";
}

namespace {

using Json = nlohmann::ordered_json;


Json JsonBlock(const Block& b) {
    return {{"offset", b.offset},
            {"length", b.length},
            {"header_checksum", b.header_checksum},
            {"block_checksum", b.block_checksum},
            {"first_module", b.first_module}};
}

Json JsonFindings(const std::vector<Finding>& findings) {
    Json out = Json::array();
    for (const Finding& f : findings) {
        out.push_back({{"where", JsonText(f.where)}, {"what", JsonText(f.what)}});
    }
    return out;
}

Json JsonStrings(const std::vector<std::string>& items) {
    Json out = Json::array();
    for (const std::string& item : items) out.push_back(JsonText(item));
    return out;
}

}  // namespace

nlohmann::ordered_json ListModuleJson(std::span<const std::uint8_t> image, const ImageModel& model,
                                  const Module& m) {
    using Json = nlohmann::ordered_json;
    const ModuleSizes s = SizesOf(image, m);
    Json out = {
        {"index", m.index},
        {"number", JsonText(ModuleNumber(m))},
        {"area", m.area == ModuleArea::Main ? "main" : m.area == ModuleArea::Ebb ? "ebb" : "ncb"},
        {"id", m.header.id},
        {"attributes", m.header.attributes},
        {"compressed", m.Compressed()},
        {"linked", m.Linked()},
        {"split", m.Split()},
        {"contiguous", m.Contiguous()},
    };
    if (m.link_without_bit) out["link_without_bit"] = true;
    if (m.area == ModuleArea::Ncb) out["block"] = m.block + 1;
    if (m.header.id == kAddonRomModuleId) {
        out["vendor_id"] = m.header.dest_offset;
        out["device_id"] = m.header.dest_segment;
    } else {
        out["dest_segment"] = m.header.dest_segment;
        out["dest_offset"] = m.header.dest_offset;
    }
    out["header_offset"] = m.header.offset;
    out["header_address"] = model.Address(m.header.offset);
    out["data_size"] = m.header.data_size;
    Json pieces = Json::array();
    for (const Piece& piece : m.pieces) {
        pieces.push_back({{"offset", piece.offset},
                          {"address", model.Address(piece.offset)},
                          {"length", piece.length}});
    }
    out["pieces"] = std::move(pieces);
    if (s.compressed) {
        out["compressed_total"] = s.total;
        out["original_size"] = s.original;
    }
    return out;
}

std::string ListJson(std::span<const std::uint8_t> image, const ImageModel& model) {
    Json out = {{"schema_version", kJsonSchemaVersion},
                {"size", model.size},
                {"address_base", model.address_base},
                {"links", model.links32 ? 32 : 16},
                {"placement", model.gap_placement ? "gap" : "sequential"}};
    if (model.boot_block_size) out["boot_block_size"] = *model.boot_block_size;
    if (model.nvram_offset) {
        out["nvram"] = {{"offset", *model.nvram_offset}, {"length", *model.nvram_size}};
    }
    if (model.main) {
        const MainHeader& h = *model.main;
        out["main_header"] = {{"offset", h.signature}, {"address", model.Address(h.signature)},
                              {"version", h.version},  {"flags", h.flags},
                              {"stamp", h.stamp},      {"length", h.length},
                              {"checksum", h.checksum}, {"link", h.link}};
    }
    if (!model.info.tool_version.empty()) {
        Json info = {{"tool_version", JsonText(model.info.tool_version)}};
        if (model.info.rom_image_version) {
            info["version"] = *model.info.rom_image_version;
            info["flags"] = *model.info.rom_image_flags;
        }
        out["image_information"] = std::move(info);
    }
    if (model.ebb) out["ebb"] = JsonBlock(*model.ebb);
    Json blocks = Json::array();
    for (const Block& b : model.ncbs) blocks.push_back(JsonBlock(b));
    out["non_critical_blocks"] = std::move(blocks);
    Json modules = Json::array();
    for (const Module& m : model.modules) modules.push_back(ListModuleJson(image, model, m));
    out["modules"] = std::move(modules);
    Json holes = Json::array();
    for (const auto& h : model.info.holes) {
        holes.push_back({{"kind", h.kind}, {"filler", h.filler}, {"offset", h.start},
                         {"length", h.size}});
    }
    out["rom_holes"] = std::move(holes);
    std::uint64_t total = 0;
    Json runs = Json::array();
    for (const FreeRun& r : FreeSpace(image, model)) {
        total += r.length;
        runs.push_back({{"offset", r.offset}, {"length", r.length}});
    }
    out["free_space"] = {{"total", total}, {"runs", std::move(runs)}};
    out["problems"] = JsonFindings(model.problems);
    out["notes"] = JsonStrings(model.notes);
    return JsonDocument(out);
}

std::string VerifyText(const VerifyReport& report) {
    std::string out;
    out += ProblemLines(report.problems);
    for (const CannotUnpack& c : report.cannot_unpack) {
        out += "CANNOT UNPACK: " + c.module + ": " + c.reason + "; " + c.change + "\n";
    }
    for (const std::string& n : report.notes) out += "NOTE: " + n + "\n";
    switch (report.Status()) {
        case ExitStatus::Ok:
            out += StrFormat("verify: OK, %d checks passed\n", report.checks);
            break;
        case ExitStatus::CannotUnpack:
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
    const ExitStatus status = report.Status();
    Json cannot = Json::array();
    for (const CannotUnpack& c : report.cannot_unpack) {
        cannot.push_back({{"module", JsonText(c.module)},
                          {"reason", JsonText(c.reason)},
                          {"change", JsonText(c.change)}});
    }
    const Json out = {{"schema_version", kJsonSchemaVersion},
                      {"status", ExitCode(status)},
                      {"result", status == ExitStatus::Ok         ? "intact"
                                 : status == ExitStatus::Problems ? "damaged"
                                                                  : "cannot unpack"},
                      {"ok", status == ExitStatus::Ok},
                      {"checks", report.checks},
                      {"problems", JsonFindings(report.problems)},
                      {"cannot_unpack", std::move(cannot)},
                      {"notes", JsonStrings(report.notes)}};
    return JsonDocument(out);
}

}  // namespace fwforge::inspect
