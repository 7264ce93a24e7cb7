#include "edit/module_selector.h"

#include <charconv>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "format/module_header.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

using inspect::ImageModel;
using inspect::Module;
using inspect::ModuleArea;

std::optional<std::uint32_t> Hex(std::string_view text, std::size_t max_digits) {
    if (text.empty() || text.size() > max_digits) return std::nullopt;
    std::uint32_t value = 0;
    for (char c : text) {
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0) return std::nullopt;
        value = value * 16 + static_cast<std::uint32_t>(digit);
    }
    return value;
}

struct IdSelector {
    std::optional<std::uint8_t> id;
    std::optional<std::uint16_t> vendor, device;
};

// "id=XX", "pci=VVVV:DDDD" or both, separated by a comma; nothing when it is neither.
std::optional<IdSelector> ParseIdSelector(std::string_view text) {
    IdSelector out;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        const std::string_view part = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        if (part.starts_with("id=") && !out.id) {
            const auto id = Hex(part.substr(3), 2);
            if (!id) return std::nullopt;
            out.id = static_cast<std::uint8_t>(*id);
        } else if (part.starts_with("pci=") && !out.vendor && part.size() == 13 &&
                   part[8] == ':') {
            const auto vendor = Hex(part.substr(4, 4), 4), device = Hex(part.substr(9), 4);
            if (!vendor || !device) return std::nullopt;
            out.vendor = static_cast<std::uint16_t>(*vendor);
            out.device = static_cast<std::uint16_t>(*device);
        } else {
            return std::nullopt;
        }
    }
    if (!out.id && !out.vendor) return std::nullopt;
    if (out.vendor && !out.id) out.id = kAddonRomModuleId;
    return out;
}

// "3" or "ebb:1" as `list` numbers modules: whether it names the EBB, and the number.
std::optional<std::pair<bool, int>> ParseNumber(std::string_view text) {
    const bool ebb = text.starts_with("ebb:");
    if (ebb) text.remove_prefix(4);
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || number < 0)
        return std::nullopt;
    return std::pair(ebb, number);
}

}  // namespace

Selection SelectModule(const ImageModel& model, std::string_view selector) {
    const std::string shown(selector);
    const auto by_id = ParseIdSelector(selector);
    const auto number = by_id ? std::nullopt : ParseNumber(selector);
    if (!by_id && !number) {
        return {nullptr, "--module " + shown +
                             ": not a module number (3, ebb:1), id=XX or pci=VVVV:DDDD"};
    }
    std::vector<const Module*> found;
    for (const Module& m : model.modules) {
        const bool match =
            by_id ? m.header.id == *by_id->id &&
                        (!by_id->vendor || (m.header.id == kAddonRomModuleId &&
                                            m.header.dest_offset == *by_id->vendor &&
                                            m.header.dest_segment == *by_id->device))
                  : (m.area == ModuleArea::Ebb) == number->first && m.index == number->second;
        if (match) found.push_back(&m);
    }
    if (found.size() == 1) return {found.front(), {}};
    if (found.empty()) {
        return {nullptr, "--module " + shown +
                             ": the image has no such module (`list` shows each module's number)"};
    }
    std::string numbers;
    for (const Module* m : found) {
        numbers += (numbers.empty() ? "" : ", ") + inspect::ModuleNumber(*m);
    }
    return {nullptr, StrFormat("--module %s names %zu modules (numbers %s); give one number",
                               shown.c_str(), found.size(), numbers.c_str())};
}

}  // namespace fwforge::edit
