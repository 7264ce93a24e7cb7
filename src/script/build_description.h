#pragma once
// Everything a build script says: the settings, the module and ROM-hole tables with
// their counters, and the modules diverted to the Extended Boot Block. The script
// reader fills it; the layout engine writes only the fields it owns (see each field).

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "format/main_header_block.h"
#include "format/module_header.h"

namespace fwforge {

inline constexpr std::size_t kModuleTableSize = 255;  // 254 from the script + image info
inline constexpr std::size_t kRomHoleTableSize = 16;
inline constexpr std::size_t kMaxEbbModules = 10;
inline constexpr std::uint32_t kNoStartAddress = 0xFFFFFFFF;
inline constexpr std::uint8_t kNoIndex = 0xFF;

// ModuleEntry::CompressionFlags bits.
namespace compression_flag {
inline constexpr std::uint8_t AlreadyCompressed = 0x01;  // nowcompressed = yes
inline constexpr std::uint8_t MinSize = 0x02;            // compressed = minsize
}  // namespace compression_flag

enum PlacementState : std::uint8_t { Unplaced = 0, Placed = 1, NoWholeFit = 2 };

// One [module] section. Default member values are those of a fresh section.
struct ModuleEntry {
    std::string FileName;
    ModuleHeader Header;
    std::uint16_t LinkVendorId = 0xFFFF;
    std::uint16_t LinkDeviceId = 0xFFFF;
    std::uint32_t MaxModuleSize = 0;
    std::uint8_t Contiguous = 0;
    std::uint8_t Alignment = 0;
    std::uint8_t PlacementState = Unplaced;  // layout engine
    std::uint32_t PlacedSize = 0;            // layout engine
    std::uint8_t LinkedRomCount = 0;         // layout engine
    std::uint8_t InsertionIndex = 0;         // layout engine
    std::uint8_t CompressionFlags = 0;
    std::string RomRegion;  // upper case; "" main BIOS, "EBB", or a non-critical block's Name
    std::uint32_t StartAddress = kNoStartAddress;
    std::uint32_t HeaderAddress = 0;
    std::uint8_t RomHoleIndex = kNoIndex;
    bool operator==(const ModuleEntry&) const = default;
};

// A [romhole] or [noncriticalrom] section, or the reservation of a module with a
// start address (OwnerModule != 0xFF).
struct RomHoleEntry {
    std::string FileName;
    std::uint8_t Filler = 0xFF;
    std::uint32_t StartAddress = 0;  // ROM address until the gap map makes it an image offset
    std::uint32_t Size = 0;
    std::string Name;  // upper case; non-empty makes the record a non-critical block
    std::uint8_t OwnerModule = kNoIndex;
    bool operator==(const RomHoleEntry&) const = default;
};

// A module diverted to the Extended Boot Block.
struct EbbModuleRecord {
    ModuleHeader Header;
    std::string FileName;
    std::uint32_t MaxModuleSize = 0;
    std::uint8_t Alignment = 0;
    std::uint8_t CompressionFlags = 0;
    std::uint32_t EbbOffset = 0;
    bool operator==(const EbbModuleRecord&) const = default;
};

struct InitSettings {
    std::string BootBlockFile;
    std::uint32_t ChecksumOffset = 0x0000E000;
    std::uint32_t BiosTagOffset = 0x0000FFE0;
    bool operator==(const InitSettings&) const = default;
};

struct BiosSettings {
    std::string RomFile;
    std::uint32_t BiosSize = 0;
    std::uint32_t BootBlockSize = 0;
    std::uint32_t NvramSize = 0;
    std::uint32_t MaxEbbSize = 0;
    std::string BiosTag;  // upper case, at most 11 characters
    bool operator==(const BiosSettings&) const = default;
};

struct RomImageSettings {
    std::uint8_t RomImageVersion = 0;
    bool Use32BitMode = false;
    std::uint8_t RomImageFlags = 0;
    bool operator==(const RomImageSettings&) const = default;
};

struct BuildDescription {
    InitSettings Init;
    BiosSettings Bios;
    RomImageSettings RomImage;

    std::uint8_t ModuleHeaderExtension = module_header::kExtensionSize;
    std::uint8_t MainHeaderExtension = main_header::kExtensionSize;

    // Fixed-size tables: record ModuleCount is taken by the image information module.
    std::vector<ModuleEntry> ModuleTable = std::vector<ModuleEntry>(kModuleTableSize);
    std::uint32_t ModuleCount = 0;
    std::vector<RomHoleEntry> RomHoleTable = std::vector<RomHoleEntry>(kRomHoleTableSize);
    std::uint32_t RomHoleCount = 0;
    std::uint32_t FixedModuleCount = 0;
    std::uint8_t ConstrainedModuleCount = 0;
    std::vector<EbbModuleRecord> EbbModuleList;  // at most kMaxEbbModules
    std::uint32_t BootBlockStamp = 0;

    // Two descriptions are equal when a build reads the same from them: the records in
    // use and everything else, not what a table slot beyond its count still holds.
    bool operator==(const BuildDescription& other) const;
};

inline bool BuildDescription::operator==(const BuildDescription& o) const {
    auto used = [](const auto& table, std::size_t count) {
        return std::span(table).first(std::min(count, table.size()));
    };
    auto same = [](auto a, auto b) { return std::ranges::equal(a, b); };
    return Init == o.Init && Bios == o.Bios && RomImage == o.RomImage &&
           ModuleHeaderExtension == o.ModuleHeaderExtension &&
           MainHeaderExtension == o.MainHeaderExtension && ModuleCount == o.ModuleCount &&
           RomHoleCount == o.RomHoleCount && FixedModuleCount == o.FixedModuleCount &&
           ConstrainedModuleCount == o.ConstrainedModuleCount &&
           EbbModuleList == o.EbbModuleList && BootBlockStamp == o.BootBlockStamp &&
           same(used(ModuleTable, ModuleCount), used(o.ModuleTable, o.ModuleCount)) &&
           same(used(RomHoleTable, RomHoleCount), used(o.RomHoleTable, o.RomHoleCount));
}

}  // namespace fwforge
