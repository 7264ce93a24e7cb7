// The [init], [bios] and [romimage] sections, the end-of-script check and the boot
// block stamp.

#include <cinttypes>

#include "platform/byte_order.h"
#include "platform/file_io.h"
#include "script/boot_block_stamp.h"
#include "script/hex_input.h"
#include "script/script_parser.h"

namespace fwforge::script {
namespace {

// Room the end-of-script check keeps free below the top areas for the main BIOS.
constexpr std::uint32_t kMainBiosReserve = 40;
// Above this size the image is addressed with 32-bit offsets.
constexpr std::uint32_t kOneMegabyte = 0x100000;

}  // namespace

std::uint32_t ScriptParser::EightDigitHex(const std::string& value) {
    const auto number = ScanHex(value, 8);
    if (!number) {
        Fail(
            "Expected eight digit hex number (i.e. 00000000 - FFFFFFFF).  "
            "Refer to %s, line %d.");
    }
    return *number;
}

// ----- [init] -----

void ScriptParser::ParseInitSection(std::size_t index) {
    static constexpr KeyEntry kInitKeyTable[] = {
        {"file", &ScriptParser::InitFileKey},
        {"checksumoffset", &ScriptParser::ChecksumOffsetKey},
        {"biostagoffset", &ScriptParser::BiosTagOffsetKey},
    };
    init_file_given_ = false;
    EnterSection(index);
    RunKeyLoop(kInitKeyTable);
    if (!init_file_given_) {
        Fail("Expected one of the following keywords: File. Refer to %s, line %d.");
    }
}

void ScriptParser::InitFileKey(std::string_view key) {
    init_file_given_ = true;
    desc_.Init.BootBlockFile = ReadKeyValue(key);
}

void ScriptParser::ChecksumOffsetKey(std::string_view key) {
    desc_.Init.ChecksumOffset = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::BiosTagOffsetKey(std::string_view key) {
    desc_.Init.BiosTagOffset = EightDigitHex(ReadKeyValue(key));
}

// ----- [bios] -----

void ScriptParser::ParseBiosSection(std::size_t index) {
    static constexpr KeyEntry kBiosKeyTable[] = {
        {"file", &ScriptParser::BiosFileKey}, {"nvramsize", &ScriptParser::NvramSizeKey},
        {"bbsize", &ScriptParser::BbSizeKey}, {"maxebbsize", &ScriptParser::MaxEbbSizeKey},
        {"size", &ScriptParser::BiosSizeKey}, {"tag", &ScriptParser::TagKey},
    };
    bios_seen_ = true;
    bios_file_given_ = bios_size_given_ = bios_tag_given_ = false;
    EnterSection(index);
    RunKeyLoop(kBiosKeyTable);
    if (!(bios_size_given_ && bios_bbsize_given_ && bios_nvramsize_given_ && bios_file_given_ &&
          bios_tag_given_)) {
        Fail(
            "Expected one of the following keywords: File, Size, BBSize, NVRAMSize, or Tag. "
            "Refer to %s, line %d.");
    }
}

void ScriptParser::BiosFileKey(std::string_view key) {
    bios_file_given_ = true;
    desc_.Bios.RomFile = ReadKeyValue(key);
}

void ScriptParser::NvramSizeKey(std::string_view key) {
    bios_nvramsize_given_ = true;
    desc_.Bios.NvramSize = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::BbSizeKey(std::string_view key) {
    bios_bbsize_given_ = true;
    desc_.Bios.BootBlockSize = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::MaxEbbSizeKey(std::string_view key) {
    desc_.Bios.MaxEbbSize = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::BiosSizeKey(std::string_view key) {
    bios_size_given_ = true;
    desc_.Bios.BiosSize = EightDigitHex(ReadKeyValue(key));
}

void ScriptParser::TagKey(std::string_view key) {
    bios_tag_given_ = true;
    const std::string value = ReadKeyValue(key);
    // The tag is stamped into the boot block in a field of 11 characters.
    if (value.size() > kMaxBiosTagLength) {
        Fail("BIOS tag must be at most 11 characters.  Refer to %s, line %d.");
    }
    desc_.Bios.BiosTag = UpperName(value);
}

// ----- [romimage] -----

void ScriptParser::ParseRomImageSection(std::size_t index) {
    static constexpr KeyEntry kRomImageKeyTable[] = {
        {"version", &ScriptParser::VersionKey},
        {"force32", &ScriptParser::Force32Key},
    };
    version_given_ = false;
    EnterSection(index);
    RunKeyLoop(kRomImageKeyTable);
}

void ScriptParser::VersionKey(std::string_view key) {
    version_given_ = true;
    const auto number = ScanHex(ReadKeyValue(key));
    if (!number) Fail("Expected 0 or 1 value.  Refer to %s, line %d.");
    // Only the low byte is kept and no range is tested: "101" is version 1.
    desc_.RomImage.RomImageVersion = static_cast<std::uint8_t>(*number);
    diag_.Printf("ROM Image Version: %x\n", desc_.RomImage.RomImageVersion);
}

void ScriptParser::Force32Key(std::string_view key) {
    if (YesNo(ReadKeyValue(key))) {
        diag_.Print("\nFORCING 32BIT OPERATION\n");
        desc_.RomImage.RomImageFlags |= rom_image_flag::Mode32Bit;
        desc_.RomImage.Use32BitMode = true;
    }
}

// ----- end of the script -----

void ScriptParser::CheckBuildScript() {
    if (!bios_seen_ || !module_seen_) {
        --line_;
        Fail(
            "Expected one of the following keywords: [INIT], [BIOS], or [MODULE]. "
            "Refer to %s, line %d.");
    }
    const BiosSettings& bios = desc_.Bios;
    // Both sides wrap in 32 bits, so a sum past 4 GB or a size below the reserve can
    // pass; the phases that lay the areas out test them again (the NVRAM phase without
    // overflow).
    const std::uint32_t top_areas = bios.BootBlockSize + bios.MaxEbbSize + bios.NvramSize;
    if (top_areas >= bios.BiosSize - kMainBiosReserve) {
        Fatal("Sum of Nvram and Boot Block must be smaller than total BIOS size");
    }
    if (bios.BiosSize > kOneMegabyte) {
        if (!version_given_) {
            Fatal("[ROMIMAGE] keyword tag VERSION required for BIOS greater than 1MB");
        }
        desc_.RomImage.Use32BitMode = true;
        desc_.RomImage.RomImageFlags |= rom_image_flag::Mode32Bit;
        diag_.Print("\nUsing 32-bit 1MB+ mode\n");
    }
}

// ----- boot block stamp -----

void ScriptParser::ReadBootBlockStamp() {
    const std::string& name = desc_.ModuleTable[*current_module_].FileName;
    auto file = files_.Open(name);
    if (!file) Fatal("Cannot open boot block file");
    const auto size = file->Size();
    if (!size) Fatal("Cannot read from boot block file");
    std::vector<std::uint8_t> data;
    try {
        data.resize(static_cast<std::size_t>(*size));
    } catch (const std::exception&) {
        Fatal("Out of memory");
    }
    if (!file->ReadExactly(data)) Fatal("Cannot read from boot block file");
    const StampSearch search = FindBootBlockStamp(data);
    if (search.result == StampSearch::Unreadable) Fatal("Cannot read from boot block file");
    if (search.result == StampSearch::Found) desc_.BootBlockStamp = search.stamp;
}

}  // namespace fwforge::script
