#include "inspect/map.h"

#include <algorithm>

#include "format/module_header.h"
#include "inspect/report.h"
#include "inspect/verify.h"
#include "platform/text_format.h"

namespace fwforge::inspect {
namespace {

std::string ModuleDetails(const ImageModel& model, const Module& m) {
    std::string d = DescribeAttributes(m) + ", " + DescribeDestination(m) +
                    StrFormat(", data size %x", m.Linked() ? 0 : m.header.data_size);
    for (std::size_t i = 0; i < m.pieces.size() && m.Split(); ++i) {
        d += StrFormat("; piece %zu at %x, %x bytes", i + 1, model.Address(m.pieces[i].offset),
                       m.pieces[i].length);
    }
    return d;
}

// A module's extent: header to the end of its last piece (pieces of a split module
// are mapped one by one).
std::vector<MapEntry> ModuleEntries(const ImageModel& model, const Module& m, int index,
                                    int depth) {
    std::vector<MapEntry> out;
    const std::string name = DescribeModule(model, m);
    const std::string details = ModuleDetails(model, m);
    for (std::size_t i = 0; i < m.piece_headers.size(); ++i) {
        out.push_back({m.piece_headers[i].offset, m.pieces[i].offset + m.pieces[i].length,
                       MapKind::Module, depth, name + StrFormat(" piece %zu", i + 1), details,
                       index});
    }
    const std::uint32_t end = m.Linked() || m.pieces.empty()
                                  ? m.header.offset + std::uint32_t(module_header::kSize)
                                  : m.pieces.back().offset + m.pieces.back().length;
    out.push_back({m.header.offset, end, MapKind::Module, depth,
                   m.Split() ? name + " last piece" : name, details, index});
    return out;
}

std::string HtmlEscape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

const char* KindClass(MapKind kind) {
    switch (kind) {
        case MapKind::Region:
            return "region";
        case MapKind::Block:
            return "block";
        case MapKind::Module:
            return "module";
        case MapKind::Free:
            return "free";
        case MapKind::Other:
            return "other";
    }
    return "other";
}

}  // namespace

std::vector<MapEntry> BuildMap(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::vector<MapEntry> map;
    // Top-level items; a module of the main chain is a module, the rest regions.
    std::vector<Extent> covered = TopLevelExtents(model);
    for (const Extent& e : TopLevelExtents(model, false)) {
        MapEntry entry{e.begin, e.end, MapKind::Region, 0, e.name, "", -1};
        if (e.name.starts_with("non-critical block") || e.name == "Extended Boot Block") {
            entry.kind = MapKind::Block;
        }
        map.push_back(entry);
    }
    for (std::size_t i = 0; i < model.modules.size(); ++i) {
        const Module& m = model.modules[i];
        const int depth = m.area == ModuleArea::Main ? 0 : 1;
        for (MapEntry& e : ModuleEntries(model, m, static_cast<int>(i), depth)) {
            e.end = std::min(e.end, model.size);
            map.push_back(e);
        }
    }
    // What lies between the items: free runs of 0xFF and other bytes (padding).
    for (const FreeRun& r : FreeSpace(image, model)) {
        map.push_back({r.offset, r.offset + r.length, MapKind::Free, 0, "free", "0xFF", -1});
        covered.push_back({r.offset, r.offset + r.length, ""});
    }
    std::uint32_t from = 0;
    covered = MergedCover(std::move(covered));
    covered.push_back({model.size, model.size, ""});
    for (const Extent& e : covered) {
        if (e.begin > from) {
            map.push_back({from, e.begin, MapKind::Other, 0, "other",
                           "padding or bytes no item accounts for", -1});
        }
        from = std::max(from, e.end);
    }
    std::stable_sort(map.begin(), map.end(), [](const MapEntry& a, const MapEntry& b) {
        return a.begin != b.begin ? a.begin < b.begin : a.depth < b.depth;
    });
    return map;
}

std::string MapText(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::string out = StrFormat("Map of the image: %x bytes, addresses %x-%x\n", model.size,
                                model.Address(0), model.Address(model.size ? model.size - 1 : 0));
    out += "  address range       image range         size      item\n";
    for (const MapEntry& e : BuildMap(image, model)) {
        const std::string indent(e.depth * 2, ' ');
        out +=
            StrFormat("  %s%-19s %-19s %-9x %s%s%s\n", indent.c_str(),
                      StrFormat("%x-%x", model.Address(e.begin), model.Address(e.end - 1)).c_str(),
                      StrFormat("%x-%x", e.begin, e.end - 1).c_str(), e.end - e.begin,
                      e.name.c_str(), e.details.empty() ? "" : ": ", e.details.c_str());
    }
    for (const Finding& f : model.problems) out += "PROBLEM: " + f.where + ": " + f.what + "\n";
    return out;
}

std::string MapHtml(std::span<const std::uint8_t> image, const ImageModel& model,
                    const std::string& title) {
    const std::vector<MapEntry> map = BuildMap(image, model);
    // Scale so that the smallest item is still a few pixels high, within bounds that
    // a browser draws without trouble; every box gets at least 2 pixels.
    std::uint32_t smallest = model.size ? model.size : 1;
    for (const MapEntry& e : map) {
        if (e.kind != MapKind::Other && e.end > e.begin)
            smallest = std::min(smallest, e.end - e.begin);
    }
    double scale = std::max(900.0 / std::max<std::uint32_t>(model.size, 1), 4.0 / smallest);
    scale = std::min(scale, 16000.0 / std::max<std::uint32_t>(model.size, 1));
    const double height = model.size * scale;

    std::string h;
    h += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    h += "<title>" + HtmlEscape(title) +
         "</title>\n<style>\n"
         "body{font-family:sans-serif;margin:16px;color:#222;display:flex;gap:24px;"
         "align-items:flex-start}\n"
         "#picture{position:relative;width:360px;flex:none;border:1px solid #444;"
         "background:#fafafa}\n"
         ".box{position:absolute;box-sizing:border-box;border:1px solid #333;overflow:hidden;"
         "font-size:10px;line-height:11px;white-space:nowrap;min-height:2px}\n"
         ".box:hover{outline:2px solid #d00;z-index:10}\n"
         ".region{left:0;width:100%;background:#9ecae1}\n"
         ".block{left:0;width:100%;background:#fdd0a2}\n"
         ".module{left:0;width:100%;background:#a1d99b}\n"
         ".box.module.nested{left:24px;width:calc(100% - 24px);background:#74c476}\n"
         ".free{left:0;width:100%;background:repeating-linear-gradient(45deg,#fff,#fff 4px,"
         "#eee 4px,#eee 8px);border-style:dashed}\n"
         ".other{left:0;width:100%;background:#ddd;border:none}\n"
         "table{border-collapse:collapse;font-size:12px}\n"
         "td,th{border:1px solid #bbb;padding:2px 6px;text-align:left}\n"
         "th{background:#eee}\n"
         "#details{position:sticky;top:16px}\n"
         "</style>\n</head>\n<body>\n";
    h += StrFormat("<div id=\"picture\" style=\"height:%.0fpx\" data-size=\"%u\">\n", height + 1,
                   model.size);
    // The top of the image (highest address) at the top of the picture.
    for (const MapEntry& e : map) {
        const double top = (model.size - e.end) * scale;
        const double box = std::max(2.0, (e.end - e.begin) * scale);
        std::string cls = std::string("box ") + KindClass(e.kind);
        if (e.kind == MapKind::Module && e.depth > 0) cls += " nested";
        const std::string tip =
            StrFormat("%s: %x-%x (image %x-%x, %x bytes)", e.name.c_str(), model.Address(e.begin),
                      model.Address(e.end - 1), e.begin, e.end - 1, e.end - e.begin) +
            (e.details.empty() ? "" : "\n" + e.details);
        h += StrFormat(
            "<div class=\"%s\"%s style=\"top:%.1fpx;height:%.1fpx\" title=\"%s\">%s</div>\n",
            cls.c_str(), e.module >= 0 ? StrFormat(" data-module=\"%d\"", e.module).c_str() : "",
            top, box, HtmlEscape(tip).c_str(), box >= 11 ? HtmlEscape(e.name).c_str() : "");
    }
    h += "</div>\n<div id=\"details\">\n<h1>" + HtmlEscape(title) + "</h1>\n";
    h += StrFormat("<p>%x bytes, ROM addresses %x-%x, %s links, %s placement.</p>\n", model.size,
                   model.Address(0), model.Address(model.size ? model.size - 1 : 0),
                   model.links32 ? "32-bit" : "16-bit", model.gap_placement ? "gap" : "sequential");
    h += "<table id=\"modules\">\n<tr><th>area</th><th>#</th><th>id</th><th>attributes</th>"
         "<th>destination</th><th>header</th><th>data</th><th>data size</th></tr>\n";
    for (const Module& m : model.modules) {
        const char* area = m.area == ModuleArea::Main  ? "main"
                           : m.area == ModuleArea::Ebb ? "EBB"
                                                       : "NCB";
        h += StrFormat(
            "<tr><td>%s</td><td>%d</td><td>%02X</td><td>%s</td><td>%s</td><td>%x</td>"
            "<td>%s</td><td>%x</td></tr>\n",
            area, m.index, m.header.id, HtmlEscape(DescribeAttributes(m)).c_str(),
            HtmlEscape(DescribeDestination(m)).c_str(), model.Address(m.header.offset),
            m.pieces.empty() ? "-"
                             : StrFormat("%x", model.Address(m.pieces.front().offset)).c_str(),
            m.Linked() ? 0 : m.header.data_size);
    }
    h += "</table>\n";
    for (const Finding& f : model.problems) {
        h += "<p class=\"problem\">PROBLEM: " + HtmlEscape(f.where + ": " + f.what) + "</p>\n";
    }
    h += "</div>\n</body>\n</html>\n";
    return h;
}

}  // namespace fwforge::inspect
