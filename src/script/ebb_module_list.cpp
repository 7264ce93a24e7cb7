#include "script/ebb_module_list.h"

namespace fwforge {

EbbOffer AddEbbModule(BuildDescription& description, const ModuleEntry& record) {
    // The whole text must match: "EBB2" names a non-critical block, not the EBB.
    if (record.RomRegion != "EBB") return EbbOffer::NotTaken;
    if (description.EbbModuleList.size() >= kMaxEbbModules) return EbbOffer::ListFull;

    // Only what the Extended Boot Block uses travels; start addresses, links and the
    // contiguity flag have no meaning there. The rest of the header image stays zero
    // until the EBB is built.
    EbbModuleRecord ebb;
    ebb.FileName = record.FileName;
    ebb.MaxModuleSize = record.MaxModuleSize;
    ebb.CompressionFlags = record.CompressionFlags;
    ebb.Alignment = record.Alignment;
    ebb.Header.id = record.Header.id;
    ebb.Header.attributes = record.Header.attributes;
    ebb.Header.dest_offset = record.Header.dest_offset;
    ebb.Header.dest_segment = record.Header.dest_segment;
    description.EbbModuleList.push_back(std::move(ebb));
    return EbbOffer::Taken;
}

bool ReserveStartAddress(BuildDescription& description, std::uint32_t module,
                         std::uint32_t address) {
    // Reservations share the 16 records with ROM holes and non-critical blocks.
    if (description.RomHoleCount >= kRomHoleTableSize) return false;
    // The header goes directly below the data. Below address 20 this wraps to the top
    // of the 32-bit space, which the gap map finds out of range.
    const std::uint32_t header_size = 12u + description.ModuleHeaderExtension;
    ++description.ConstrainedModuleCount;
    ++description.FixedModuleCount;
    ModuleEntry& entry = description.ModuleTable[module];
    entry.StartAddress = address;
    entry.HeaderAddress = address - header_size;
    entry.Contiguous = 1;
    entry.RomHoleIndex = static_cast<std::uint8_t>(description.RomHoleCount);
    RomHoleEntry& reservation = description.RomHoleTable[description.RomHoleCount];
    reservation = RomHoleEntry{};
    reservation.StartAddress = entry.HeaderAddress & ~std::uint32_t{0xF};
    reservation.Filler = 0x00;
    reservation.Size = 0;  // known once the module is sized
    reservation.OwnerModule = static_cast<std::uint8_t>(module);
    ++description.RomHoleCount;
    return true;
}

}  // namespace fwforge
