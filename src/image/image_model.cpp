#include "image/image_model.h"

#include <algorithm>

#include "format/module_header.h"
#include "platform/text_format.h"

namespace fwforge::inspect {

bool Module::Compressed() const {
    return !Linked() && (header.attributes & module_attr::NotCompressed) == 0;
}
bool Module::Linked() const {
    return link_without_bit || (header.attributes & module_attr::LinkedRom) != 0;
}
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

std::string ModuleNumber(const Module& module) {
    return StrFormat(module.area == ModuleArea::Ebb ? "ebb:%d" : "%d", module.index);
}

}  // namespace fwforge::inspect
