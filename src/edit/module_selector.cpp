#include "edit/module_selector.h"

#include <cstdint>
#include <optional>
#include <vector>

#include "format/module_header.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

using inspect::ImageModel;
using inspect::Module;

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

}  // namespace

Selection SelectModule(const ImageModel& model, std::string_view selector) {
    std::vector<const Module*> found;
    const auto by_id = ParseIdSelector(selector);
    for (const Module& m : model.modules) {
        if (by_id) {
            if (m.header.id == *by_id->id &&
                (!by_id->vendor || (m.header.id == kAddonRomModuleId &&
                                    m.header.dest_offset == *by_id->vendor &&
                                    m.header.dest_segment == *by_id->device))) {
                found.push_back(&m);
            }
        } else if (inspect::ModuleNumber(m) == selector) {
            found.push_back(&m);
        }
    }
    if (found.size() == 1) return {found.front(), {}};
    if (found.empty()) {
        const bool number_form = !selector.empty() && (selector.find_first_not_of(
                                                           "0123456789") == std::string_view::npos ||
                                                       selector.starts_with("ebb:"));
        if (!by_id && !number_form) {
            return {nullptr, StrFormat("--module %.*s: not a module number (3, ebb:1), "
                                       "id=XX or pci=VVVV:DDDD",
                                       static_cast<int>(selector.size()), selector.data())};
        }
        return {nullptr, StrFormat("--module %.*s: the image has no such module (`list` shows "
                                   "each module's number)",
                                   static_cast<int>(selector.size()), selector.data())};
    }
    std::string numbers;
    for (const Module* m : found) numbers += (numbers.empty() ? "" : ", ") + inspect::ModuleNumber(*m);
    return {nullptr, StrFormat("--module %.*s names %zu modules (numbers %s); give one number",
                               static_cast<int>(selector.size()), selector.data(), found.size(),
                               numbers.c_str())};
}

}  // namespace fwforge::edit
