// The [module] section: one ModuleEntry per section, checked when the section ends,
// linked add-on ROMs moved behind their parents, fixed-address reservations, and the
// hand-off of Extended Boot Block modules.

#include "script/ebb_module_list.h"
#include "script/hex_input.h"
#include "script/script_parser.h"

namespace fwforge::script {
namespace {

// Alignments below this are no alignment at all: every module is dword aligned anyway.
constexpr std::uint8_t kSmallestAlignment = 5;

}  // namespace

// ----- value forms shared with the other sections -----

std::uint8_t ScriptParser::ByteHex(const std::string& value) {
    const auto number = ScanHex(value);
    if (!number || *number > 0xFF) {
        Fail("Expected two digit hex number (i.e. 00 - FF).  Refer to %s, line %d.");
    }
    return static_cast<std::uint8_t>(*number);
}

std::uint16_t ScriptParser::FourDigitHex(const std::string& value) {
    const auto number = value.size() == 4 ? ScanHex(value, 4) : std::nullopt;
    if (!number) {
        Fail("Expected four digit hex number (i.e. 0000 - FFFF).  Refer to %s, line %d.");
    }
    return static_cast<std::uint16_t>(*number);
}

bool ScriptParser::YesNo(const std::string& value) {
    if (value == "yes") return true;
    if (value != "no") Fail("Expected 'yes' or 'no'.  Refer to %s, line %d.");
    return false;
}

std::string ScriptParser::UpperName(const std::string& value) {
    std::string upper = value;
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

// ----- the section -----

void ScriptParser::ParseModuleSection(std::size_t index) {
    // "linkvenid" and "linkdevid" stand before "link", which is a prefix of both.
    static constexpr KeyEntry kModuleKeyTable[] = {
        {"moduleid", &ScriptParser::ModuleIdKey},
        {"file", &ScriptParser::ModuleFileKey},
        {"destn", &ScriptParser::DestnKey},
        {"compressed", &ScriptParser::CompressedKey},
        {"vendorid", &ScriptParser::VendorIdKey},
        {"deviceid", &ScriptParser::DeviceIdKey},
        {"linkvenid", &ScriptParser::LinkVenIdKey},
        {"linkdevid", &ScriptParser::LinkDevIdKey},
        {"link", &ScriptParser::LinkKey},
        {"maxmodulesize", &ScriptParser::MaxModuleSizeKey},
        {"contiguous", &ScriptParser::ContiguousKey},
        {"alignment", &ScriptParser::AlignmentKey},
        {"nowcompressed", &ScriptParser::NowCompressedKey},
        {"romregion", &ScriptParser::RomRegionKey},
        {"startaddress", &ScriptParser::ModuleStartAddressKey},
    };
    module_seen_ = true;
    module_given_ = {};
    // The slot may hold a module that went to the Extended Boot Block; nothing of it
    // carries over.
    current_module_ = desc_.ModuleCount;
    Current() = ModuleEntry{};
    EnterSection(index);
    RunKeyLoop(kModuleKeyTable);
    CheckModuleSection();
}

void ScriptParser::ModuleIdKey(std::string_view key) {
    module_given_.moduleid = true;
    Current().Header.id = ByteHex(ReadKeyValue(key));
}

void ScriptParser::ModuleFileKey(std::string_view key) {
    module_given_.file = true;
    Current().FileName = ReadKeyValue(key);
}

void ScriptParser::DestnKey(std::string_view key) {
    module_given_.destn = true;
    const std::string value = ReadKeyValue(key);
    std::optional<std::uint32_t> segment, offset;
    if (value.size() == 9 && value[4] == ':') {
        segment = ScanHex(std::string_view(value).substr(0, 4), 4);
        offset = ScanHex(std::string_view(value).substr(5, 4), 4);
    }
    if (!segment || !offset) {
        Fail("Expected segment:offset (i.e. xxxx:yyyy).  Refer to %s, line %d.");
    }
    Current().Header.dest_segment = static_cast<std::uint16_t>(*segment);
    Current().Header.dest_offset = static_cast<std::uint16_t>(*offset);
}

void ScriptParser::CompressedKey(std::string_view key) {
    const std::string value = ReadKeyValue(key);
    ModuleEntry& module = Current();
    if (value == "yes") return;  // compression is the default
    if (value == "no") {
        module.Header.attributes |= module_attr::NotCompressed;
    } else if (value == "minsize") {
        module.CompressionFlags |= compression_flag::MinSize;
    } else {
        Fail("Expected 'yes', 'no' or 'minsize'.  Refer to %s, line %d.");
    }
}

void ScriptParser::VendorIdKey(std::string_view key) {
    module_given_.vendorid = true;
    Current().Header.dest_offset = FourDigitHex(ReadKeyValue(key));
}

void ScriptParser::DeviceIdKey(std::string_view key) {
    module_given_.deviceid = true;
    Current().Header.dest_segment = FourDigitHex(ReadKeyValue(key));
}

void ScriptParser::LinkVenIdKey(std::string_view key) {
    module_given_.linkvenid = true;
    Current().LinkVendorId = FourDigitHex(ReadKeyValue(key));
}

void ScriptParser::LinkDevIdKey(std::string_view key) {
    module_given_.linkdevid = true;
    Current().LinkDeviceId = FourDigitHex(ReadKeyValue(key));
}

void ScriptParser::LinkKey(std::string_view key) {
    // Only the first link key of a section counts; a second one is read and checked
    // like the first and leaves the record as it is.
    const bool first = !module_given_.link;
    module_given_.link = true;
    const bool linked = YesNo(ReadKeyValue(key));
    if (first && linked) {
        ModuleEntry& module = Current();
        module.Header.attributes |= module_attr::LinkedRom;
    }
}

void ScriptParser::MaxModuleSizeKey(std::string_view key) {
    Current().MaxModuleSize = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::ContiguousKey(std::string_view key) {
    module_given_.contiguous = true;
    ModuleEntry& module = Current();
    if (YesNo(ReadKeyValue(key))) {
        module.Contiguous = 1;
        module.Header.attributes |= module_attr::ContiguousAttr;
    } else {
        module.Contiguous = 0;
    }
}

void ScriptParser::AlignmentKey(std::string_view key) {
    module_given_.alignment = true;
    std::uint8_t alignment = ByteHex(ReadKeyValue(key));
    if (alignment < kSmallestAlignment) alignment = 0;
    Current().Alignment = alignment;
    if (alignment != 0) ++desc_.ConstrainedModuleCount;
}

void ScriptParser::NowCompressedKey(std::string_view key) {
    if (YesNo(ReadKeyValue(key))) Current().CompressionFlags |= compression_flag::AlreadyCompressed;
}

void ScriptParser::RomRegionKey(std::string_view key) {
    module_given_.romregion = true;
    const std::string value = ReadKeyValue(key);
    if (value.size() > kMaxNameLength) {
        Fail("Name must be at most 63 characters.  Refer to %s, line %d.");
    }
    Current().RomRegion = UpperName(value);
}

void ScriptParser::ModuleStartAddressKey(std::string_view key) {
    module_given_.startaddress = true;
    const auto address = ScanHex(ReadKeyValue(key));
    if (!address) {
        Fail("Expected 8 digit hex number (i.e. 00000000 - FFFFFFFF).  Refer to %s, line %d.");
    }
    if (*address % 4 != 0)
        Fail("Module StartAddress must be DWORD aligned.  Refer to %s, line %d.");
    if (!ReserveStartAddress(desc_, static_cast<std::uint32_t>(*current_module_), *address)) {
        Fatal("Maximum number of ROMHOLEs, NCBs or MODULEs with StartAddress exceeded");
    }
}

// ----- end of the section -----

void ScriptParser::CheckModuleSection() {
    const ModuleKeysGiven& given = module_given_;
    ModuleEntry& module = Current();
    if (given.startaddress) {
        if (given.alignment) {
            Fail(
                "Alignment tag and StartAddress tag not mutually supported. "
                "Refer to %s, line %d.");
        }
        if (given.romregion) {
            Fail("StartAddress tag not supported for NCB module.  Refer to %s, line %d.");
        }
        if (given.link) {
            Fail("StartAddress tag not supported for Option Rom Link.  Refer to %s, line %d.");
        }
    }
    if (!given.contiguous && !given.startaddress) {
        module.Contiguous =
            (module.Header.attributes & module_attr::NotCompressed) != 0 ? 1 : 0;
    }
    if (given.alignment && given.romregion) {
        Fail(
            "Alignment tag not supported for Non-Critical Block modules. "
            "Refer to %s, line %d.");
    }
    if (module.Header.id == kAddonRomModuleId) {
        if (given.link) {
            if (!(given.moduleid && given.vendorid && given.deviceid && given.linkvenid &&
                  given.linkdevid)) {
                Fail(
                    "Expected one of the following keywords: ModuleId, VendorId, DeviceId, "
                    "LinkVenId, or LinkDevId. Refer to %s, line %d.");
            }
            InsertLinkedRom();
        } else if (!(given.file && given.moduleid && given.vendorid && given.deviceid)) {
            Fail(
                "Expected one of the following keywords: File, ModuleId, VendorId, or "
                "DeviceId. Refer to %s, line %d.");
        }
    } else if (!(given.file && given.moduleid && given.destn)) {
        Fail(
            "Expected one of the following keywords: File, ModuleId, or Destn. "
            "Refer to %s, line %d.");
    }

    // The record now in this slot is the section's own, or, after a link insertion,
    // the one moved up from the end of the table.
    switch (AddEbbModule(desc_, Current())) {
        case EbbOffer::Taken:
            return;  // the next [module] section reuses the slot
        case EbbOffer::ListFull:
            Fail("Maximum number of EBB modules exceeded.  Refer to %s, line %d.");
        case EbbOffer::NotTaken:
            break;
    }
    // The last record of the table belongs to the image information module.
    if (desc_.ModuleCount + 1 >= kModuleTableSize) {
        Fail("Maximum number of MODULEs exceeded.  Refer to %s, line %d.");
    }
    ++desc_.ModuleCount;
}

void ScriptParser::InsertLinkedRom() {
    std::vector<ModuleEntry>& table = desc_.ModuleTable;
    const std::size_t count = desc_.ModuleCount;
    const std::uint16_t vendor = table[count].LinkVendorId;
    const std::uint16_t device = table[count].LinkDeviceId;
    std::size_t parent = 0;
    while (parent < count && !(table[parent].Header.dest_offset == vendor &&
                               table[parent].Header.dest_segment == device)) {
        ++parent;
    }
    if (parent == count) {
        Fail("Cannot find parent of linked addon-rom. Refer to %s, line %d.");
    }
    // Each new link goes directly behind its parent, ahead of the links read before it.
    ModuleEntry link = std::move(table[count]);
    for (std::size_t k = count; k > parent + 1; --k) table[k] = std::move(table[k - 1]);
    table[parent + 1] = std::move(link);
}

}  // namespace fwforge::script
