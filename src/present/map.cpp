#include "present/map.h"

#include <algorithm>

#include "check/problems.h"
#include "check/verify.h"
#include "format/module_header.h"
#include "image/extents.h"
#include "image/module_data.h"
#include "platform/text_format.h"
#include "present/map_page.h"
#include "present/report.h"

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

// The colour class of a map item: modules by how they are stored, regions by what they are.
std::string ItemKind(const ImageModel& model, const MapEntry& e) {
    switch (e.kind) {
        case MapKind::Module: {
            const Module& m = model.modules[e.module];
            if (e.module == model.info.module) return "info";
            if (m.Linked()) return "linked";
            if (m.header.id == kAddonRomModuleId) return "addon";
            return m.Compressed() ? "compressed" : "uncompressed";
        }
        case MapKind::Block:
        case MapKind::Region:
            switch (e.extent) {
                case ExtentKind::BootBlock:
                    return "boot";
                case ExtentKind::Ebb:
                    return "ebb";
                case ExtentKind::Nvram:
                    return "nvram";
                case ExtentKind::MainHeader:
                    return "header";
                case ExtentKind::Ncb:
                    return "ncb";
                case ExtentKind::RomHole:
                case ExtentKind::RomHoleFile:
                    return "hole";
                case ExtentKind::Module:
                case ExtentKind::Other:
                    break;
            }
            return "region";
        case MapKind::Free:
            return "free";
        case MapKind::Other:
            return "other";
    }
    return "other";
}

using Json = nlohmann::ordered_json;

Json ModuleJson(std::span<const std::uint8_t> image, const ImageModel& model, const Module& m) {
    const ModuleSizes s = SizesOf(image, m);
    const std::string area = m.area == ModuleArea::Main  ? "main BIOS"
                             : m.area == ModuleArea::Ebb ? "Extended Boot Block"
                                                         : StrFormat("non-critical block %d",
                                                                     m.block + 1);
    Json pieces = Json::array();
    for (std::size_t i = 0; i < m.piece_headers.size(); ++i) {
        pieces.push_back(JsonText(StrFormat("piece %zu: header %x (image %x), %x data bytes",
                                            i + 1, model.Address(m.piece_headers[i].offset),
                                            m.piece_headers[i].offset, m.pieces[i].length)));
    }
    if (m.Split()) {
        pieces.push_back(JsonText(StrFormat("last piece: header %x (image %x), %x data bytes",
                                            model.Address(m.header.offset), m.header.offset,
                                            m.pieces.back().length)));
    }
    return {{"label", JsonText(DescribeModule(model, m))},
            {"num", m.index},
            {"area", JsonText(area)},
            {"id", StrFormat("%02X", m.header.id)},
            {"attr", JsonText(DescribeAttributes(m))},
            {"dest", JsonText(DescribeDestination(m))},
            {"at", m.header.offset},
            {"header", StrFormat("%x (image %x)", model.Address(m.header.offset), m.header.offset)},
            {"data", m.pieces.empty() ? std::string("-")
                                      : StrFormat("%x (image %x)",
                                                  model.Address(m.pieces.front().offset),
                                                  m.pieces.front().offset)},
            {"stored", s.stored},
            {"original", s.compressed ? Json(s.original) : Json(nullptr)},
            {"ratio", JsonText(RatioText(s))},
            {"pieces", std::move(pieces)}};
}

// The page's data as a literal that may stand inside a script element: no "</script>"
// can close it early, whatever the image or its path holds.
std::string ScriptJson(const Json& data) {
    std::string out;
    for (const char c : data.dump(-1, ' ', true)) {
        if (c == '<') {
            out += "\\u003c";
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace

std::vector<MapEntry> BuildMap(std::span<const std::uint8_t> image, const ImageModel& model) {
    std::vector<MapEntry> map;
    // Top-level items; a module of the main chain is a module, the rest regions.
    std::vector<Extent> covered = TopLevelExtents(model);
    for (const Extent& e : TopLevelExtents(model, false)) {
        MapEntry entry{e.begin, e.end, MapKind::Region, 0, e.name, "", -1, e.kind};
        if (e.kind == ExtentKind::Ncb || e.kind == ExtentKind::Ebb) entry.kind = MapKind::Block;
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
        covered.push_back({r.offset, r.offset + r.length, "", ExtentKind::Other});
    }
    std::uint32_t from = 0;
    covered = MergedCover(std::move(covered));
    covered.push_back({model.size, model.size, "", ExtentKind::Other});
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
    out += ProblemLines(model.problems);
    return out;
}

// The page carries everything it needs: its style sheet and script (map_page.css and
// map_page.js beside this file, compiled in as map_page::kStyle and kScript), the map's
// items as a JSON object `MAP` in a script element before the script, and a content
// security policy that keeps the browser from loading anything else.
//
// The picture is a strip whose height is the window's: the whole image on first load,
// the top of the image (highest address) at the top. Heights follow the bytes, except
// that every module and region is drawn at least MIN_PX tall, and what that costs is
// taken from the larger items, so the boxes still tile the strip without overlapping.
// Wheel, drag and click narrow the range shown; the same rule lays out every range.
std::string MapHtml(std::span<const std::uint8_t> image, const ImageModel& model,
                    const std::string& title) {
    Json items = Json::array();
    for (const MapEntry& e : BuildMap(image, model)) {
        items.push_back({{"b", e.begin},
                         {"e", e.end},
                         {"d", e.depth},
                         {"k", ItemKind(model, e)},
                         {"m", e.module},
                         {"n", JsonText(e.name)},
                         {"x", JsonText(e.details)}});
    }
    Json modules = Json::array();
    for (const Module& m : model.modules) modules.push_back(ModuleJson(image, model, m));
    const std::string data = ScriptJson(Json{{"size", model.size},
                                             {"base", model.address_base},
                                             {"items", std::move(items)},
                                             {"modules", std::move(modules)}});

    std::string h = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    // Nothing but the page itself: no request leaves the browser.
    h += "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
         "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n";
    h += "<title>" + HtmlEscape(title) + "</title>\n<style>" + map_page::kStyle +
         "</style>\n</head>\n<body>\n<header>\n<h1>" + HtmlEscape(title) + "</h1>\n";
    h += StrFormat(
        "<p id=\"summary\">%x bytes, ROM addresses %x-%x, %s links, %s placement, "
        "%zu modules.</p>\n",
        model.size, model.Address(0), model.Address(model.size ? model.size - 1 : 0),
        model.links32 ? "32-bit" : "16-bit", model.gap_placement ? "gap" : "sequential",
        model.modules.size());
    h += "<div id=\"controls\"><button id=\"whole\">Whole image</button>"
         "<button id=\"out\">Zoom out</button><span id=\"range\"></span>"
         "<span class=\"hint\">wheel: zoom, drag: zoom to a range, click: zoom to an item, "
         "Esc: whole image</span></div>\n</header>\n<main>\n"
         "<div id=\"overview\" title=\"the range shown; click for the whole image\">"
         "<div id=\"viewmark\"></div></div>\n<div id=\"axis\"></div>\n"
         "<div id=\"picture\"><div id=\"band\"></div></div>\n<aside>\n"
         "<ul id=\"legend\"></ul>\n<h2>Details</h2>\n<div id=\"details\"></div>\n";
    for (const Finding& f : model.problems) {
        h += "<p class=\"problem\">" + HtmlEscape(ProblemText(f)) + "</p>\n";
    }
    h += "<h2>Modules</h2>\n<table id=\"modules\">\n<tr><th>area</th><th>#</th><th>id</th>"
         "<th>attributes</th><th>destination</th><th>header</th><th>stored</th>"
         "<th>original</th><th>ratio</th></tr>\n</table>\n</aside>\n</main>\n";
    h += "<script>\nconst MAP = " + data + ";\n</script>\n<script>" + map_page::kScript +
         "</script>\n</body>\n</html>\n";
    return h;
}

}  // namespace fwforge::inspect
