// The [romhole] and [noncriticalrom] sections: one RomHoleEntry per section. Only a
// Name makes the record a non-critical block, whichever header opened the section.

#include "script/hex_input.h"
#include "script/script_parser.h"

namespace fwforge::script {

void ScriptParser::ParseRomHoleSection(std::size_t index) {
    static constexpr KeyEntry kRomHoleKeyTable[] = {
        {"file", &ScriptParser::RomHoleFileKey},
        {"filler", &ScriptParser::FillerKey},
        {"startaddress", &ScriptParser::RomHoleStartAddressKey},
        {"size", &ScriptParser::RomHoleSizeKey},
        {"name", &ScriptParser::NameKey},
    };
    rom_hole_given_ = {};
    current_rom_hole_ = RomHoleEntry{};  // Filler 0xFF, OwnerModule 0xFF
    EnterSection(index);
    RunKeyLoop(kRomHoleKeyTable);
    CheckRomHoleSection();
}

void ScriptParser::RomHoleFileKey(std::string_view key) {
    rom_hole_given_.file = true;
    current_rom_hole_.FileName = ReadKeyValue(key);
}

void ScriptParser::FillerKey(std::string_view key) {
    const auto filler = ScanHex(ReadKeyValue(key));
    if (!filler || *filler > 0xFF) {
        Fail("Expected 2 digit hex number (i.e. 00 - FF).  Refer to %s, line %d.");
    }
    current_rom_hole_.Filler = static_cast<std::uint8_t>(*filler);
}

void ScriptParser::RomHoleStartAddressKey(std::string_view key) {
    rom_hole_given_.startaddress = true;
    const auto address = ScanHex(ReadKeyValue(key));
    if (!address) {
        Fail("Expected 8 digit hex number (i.e. 00000000 - FFFFFFFF).  Refer to %s, line %d.");
    }
    if (*address % 16 != 0) {
        Fail("StartAddress must me paragraph aligned.  Refer to %s, line %d.");
    }
    current_rom_hole_.StartAddress = *address;
}

void ScriptParser::RomHoleSizeKey(std::string_view key) {
    rom_hole_given_.size = true;
    const auto size = ScanHex(ReadKeyValue(key));
    if (!size) {
        Fail("Expected 8 digit hex number (i.e. 00000000 - FFFFFFFF).  Refer to %s, line %d.");
    }
    if (*size == 0) Fail("ROMHOLE.Size must be greater than zero.  Refer to %s, line %d.");
    // The zero test is on the value as written; from FFFFFFF1 on the rounding to whole
    // paragraphs wraps to a size of 0.
    current_rom_hole_.Size = (*size + 15u) & ~std::uint32_t{15};
}

void ScriptParser::NameKey(std::string_view key) {
    rom_hole_given_.name = true;
    const std::string value = ReadKeyValue(key);
    if (value.size() > kMaxNameLength) {
        Fail("Name must be at most 63 characters.  Refer to %s, line %d.");
    }
    current_rom_hole_.Name = UpperName(value);
}

void ScriptParser::CheckRomHoleSection() {
    const RomHoleKeysGiven& given = rom_hole_given_;
    if (given.file && given.name) {
        Fail("Files not allowed in Non-Critical Blocks. Use a ROMHOLE. Refer to %s, line %d.");
    }
    if (!(given.startaddress && given.size)) {
        Fail(
            "Expected one of the following keywords: StartAddres or Size. "
            "Refer to %s, line %d.");
    }
    desc_.RomImage.RomImageFlags |= rom_image_flag::HasRomHoles;
    // Module reservations count against the same 16 records.
    if (desc_.RomHoleCount >= kRomHoleTableSize) Fatal("Maximum number of ROMHOLES exceeded");
    desc_.RomHoleTable[desc_.RomHoleCount] = current_rom_hole_;
    ++desc_.RomHoleCount;
}

}  // namespace fwforge::script
