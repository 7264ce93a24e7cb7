#pragma once
// The build-script parser: the reader state of one parse, the grammar shared by all
// sections, and the section and key parsers. Internal to src/script; the rest of the
// system calls ParseBuildScript (script_reader.h).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/diagnostics.h"
#include "platform/file_system.h"
#include "script/build_description.h"

namespace fwforge::script {

class ScriptParser;

// One entry of a keyword table. Entries are tried in table order and match by prefix,
// so the order decides which key a line is (e.g. "linkvenid" before "link").
struct KeyEntry {
    std::string_view text;
    void (ScriptParser::*parse)(std::string_view key);
};

// The most bytes a value token holds; the rest of a longer value is read as the next key.
inline constexpr std::size_t kMaxTokenLength = 260;
inline constexpr std::size_t kMaxBiosTagLength = 11;
inline constexpr std::size_t kMaxNameLength = 63;

class ScriptParser {
  public:
    ScriptParser(Diagnostics& diag, platform::FileSystem& files, BuildDescription& description,
                 std::string path, bool verbose);

    // Reads the file, walks it and runs the end-of-script check.
    void Run();

  private:
    // --- reader (script_reader.cpp) ---
    void ReadScriptFile();
    void TopLevelLoop();
    void ParseCommentLine(std::size_t index);
    std::uint8_t Byte(std::size_t pos) const { return pos < text_.size() ? text_[pos] : 0; }
    bool AtEnd() const { return pos_ >= size_; }
    bool AtLineEnd() const;
    bool TextStartsWith(std::string_view keyword) const;
    void SkipBlanks();
    void ExpectEndOfLine();
    void EnterSection(std::size_t section_index);
    void RunKeyLoop(std::span<const KeyEntry> table);
    // Steps over the key, "=" and blanks and returns the value as a C string would hold
    // it (cut at a zero byte).
    std::string ReadKeyValue(std::string_view key);
    void ReadToken();

    // A fatal report of a message whose format ends in "Refer to %s, line %d.".
    [[noreturn]] void Fail(const char* format_with_tail);
    [[noreturn]] void Fatal(const std::string& message) { diag_.Fatal(message); }

    // --- [init], [bios], [romimage] (settings_sections.cpp) ---
    void ParseInitSection(std::size_t index);
    void ParseBiosSection(std::size_t index);
    void ParseRomImageSection(std::size_t index);
    void InitFileKey(std::string_view key);
    void ChecksumOffsetKey(std::string_view key);
    void BiosTagOffsetKey(std::string_view key);
    void BiosFileKey(std::string_view key);
    void NvramSizeKey(std::string_view key);
    void BbSizeKey(std::string_view key);
    void MaxEbbSizeKey(std::string_view key);
    void BiosSizeKey(std::string_view key);
    void TagKey(std::string_view key);
    void VersionKey(std::string_view key);
    void Force32Key(std::string_view key);
    std::uint32_t EightDigitHex(const std::string& value);
    void CheckBuildScript();
    void ReadBootBlockStamp();

    // --- [module] (module_section.cpp) ---
    void ParseModuleSection(std::size_t index);
    ModuleEntry& Current() { return desc_.ModuleTable[desc_.ModuleCount]; }
    void ModuleIdKey(std::string_view key);
    void ModuleFileKey(std::string_view key);
    void DestnKey(std::string_view key);
    void CompressedKey(std::string_view key);
    void VendorIdKey(std::string_view key);
    void DeviceIdKey(std::string_view key);
    void LinkVenIdKey(std::string_view key);
    void LinkDevIdKey(std::string_view key);
    void LinkKey(std::string_view key);
    void MaxModuleSizeKey(std::string_view key);
    void ContiguousKey(std::string_view key);
    void AlignmentKey(std::string_view key);
    void NowCompressedKey(std::string_view key);
    void RomRegionKey(std::string_view key);
    void ModuleStartAddressKey(std::string_view key);
    std::uint8_t ByteHex(const std::string& value);
    std::uint16_t FourDigitHex(const std::string& value);
    bool YesNo(const std::string& value);
    std::string UpperName(const std::string& value);
    void CheckModuleSection();
    void InsertLinkedRom();

    // --- [romhole], [noncriticalrom] (romhole_section.cpp) ---
    void ParseRomHoleSection(std::size_t index);
    void RomHoleFileKey(std::string_view key);
    void FillerKey(std::string_view key);
    void RomHoleStartAddressKey(std::string_view key);
    void RomHoleSizeKey(std::string_view key);
    void NameKey(std::string_view key);
    void CheckRomHoleSection();

    Diagnostics& diag_;
    platform::FileSystem& files_;
    BuildDescription& desc_;
    const bool verbose_;  // VerboseMode of the run

    // Reader state of this parse.
    std::string script_file_name_;    // as given; the "%s" of every "Refer to" tail
    std::vector<std::uint8_t> text_;  // the file, lower-cased, and one zero byte
    std::size_t size_ = 0;
    std::size_t pos_ = 0;
    int line_ = 1;
    std::string token_;  // the last value as read, at most kMaxTokenLength bytes

    // Given-flags of the settings sections.
    bool init_file_given_ = false;
    bool bios_file_given_ = false;
    bool bios_size_given_ = false;
    bool bios_tag_given_ = false;
    bool bios_bbsize_given_ = false;     // counts from any earlier [bios] section
    bool bios_nvramsize_given_ = false;  // counts from any earlier [bios] section
    bool version_given_ = false;         // of the last [romimage] section
    bool bios_seen_ = false;
    bool module_seen_ = false;

    // The slot of the last [module] section; it keeps pointing at that slot afterwards.
    std::optional<std::size_t> current_module_;
    struct ModuleKeysGiven {
        bool file = false, moduleid = false, destn = false, vendorid = false, deviceid = false,
             linkvenid = false, linkdevid = false, link = false, contiguous = false,
             alignment = false, romregion = false, startaddress = false;
    } module_given_;

    // The ROM-hole section being read; it enters RomHoleTable only when it is complete,
    // so a section beyond the table's capacity never touches the table.
    RomHoleEntry current_rom_hole_;
    struct RomHoleKeysGiven {
        bool file = false, startaddress = false, size = false, name = false;
    } rom_hole_given_;
};

}  // namespace fwforge::script
