#include "script/script_writer.h"

#include <algorithm>

#include "platform/text_format.h"

namespace fwforge {
namespace {

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// A module that the layout links behind an add-on ROM with its ids.
bool HasParentIds(const ModuleEntry& m) {
    return m.Header.id == kAddonRomModuleId && m.LinkVendorId != 0xFFFF &&
           m.LinkDeviceId != 0xFFFF;
}

// The first module of the table that carries a link's parent ids, as the reader finds it.
std::size_t ParentOf(const BuildDescription& d, std::size_t link) {
    for (std::size_t p = 0; p < link; ++p) {
        const ModuleHeader& h = d.ModuleTable[p].Header;
        if (h.dest_offset == d.ModuleTable[link].LinkVendorId &&
            h.dest_segment == d.ModuleTable[link].LinkDeviceId) {
            return p;
        }
    }
    return link;
}

class Writer {
  public:
    void Line(const std::string& text) { text_ += text + "\r\n"; }
    void Key(const char* key, const std::string& value) { Line(std::string(key) + " = " + value); }
    void Hex8(const char* key, std::uint32_t value) { Key(key, StrFormat("%08x", value)); }
    std::string Take() { return std::move(text_); }

  private:
    std::string text_;
};

// What the attributes and the compression flags of a module say, in keys.
void CompressionKeys(Writer& w, std::uint8_t attributes, std::uint8_t flags) {
    if (attributes & module_attr::NotCompressed) w.Key("compressed", "no");
    if (flags & compression_flag::MinSize) w.Key("compressed", "minsize");
    if (flags & compression_flag::AlreadyCompressed) w.Key("nowcompressed", "yes");
}

void DestinationKeys(Writer& w, const ModuleHeader& h) {
    w.Key("moduleid", StrFormat("%02x", h.id));
    if (h.id == kAddonRomModuleId) {
        w.Key("vendorid", StrFormat("%04x", h.dest_offset));
        w.Key("deviceid", StrFormat("%04x", h.dest_segment));
    } else {
        w.Key("destn", StrFormat("%04x:%04x", h.dest_segment, h.dest_offset));
    }
}

void WriteEbbModule(Writer& w, const EbbModuleRecord& m) {
    w.Line("[module]");
    w.Key("file", m.FileName);
    DestinationKeys(w, m.Header);
    CompressionKeys(w, m.Header.attributes, m.CompressionFlags);
    if (m.MaxModuleSize) w.Hex8("maxmodulesize", m.MaxModuleSize);
    if (m.Header.attributes & module_attr::ContiguousAttr) w.Key("contiguous", "yes");
    w.Key("romregion", "ebb");
    w.Line("");
}

// `link_key`: the module is read as a link and moved behind its parent.
void WriteModule(Writer& w, const ModuleEntry& m, bool link_key) {
    const std::uint8_t attributes = m.Header.attributes;
    w.Line("[module]");
    if (!m.FileName.empty()) w.Key("file", m.FileName);
    DestinationKeys(w, m.Header);
    if (link_key) w.Key("link", attributes & module_attr::LinkedRom ? "yes" : "no");
    if (m.LinkVendorId != 0xFFFF) w.Key("linkvenid", StrFormat("%04x", m.LinkVendorId));
    if (m.LinkDeviceId != 0xFFFF) w.Key("linkdevid", StrFormat("%04x", m.LinkDeviceId));
    CompressionKeys(w, attributes, m.CompressionFlags);
    if (m.MaxModuleSize) w.Hex8("maxmodulesize", m.MaxModuleSize);
    if (m.Alignment) w.Key("alignment", StrFormat("%02x", m.Alignment));
    if (!m.RomRegion.empty()) w.Key("romregion", Lower(m.RomRegion));
    const bool fixed = m.StartAddress != kNoStartAddress;
    if (fixed) w.Hex8("startaddress", m.StartAddress);
    // Without a contiguous key a module is contiguous when it is stored as it is or has
    // a start address; "yes" sets the attribute as well, "no" clears only the choice.
    const bool by_default = fixed || (attributes & module_attr::NotCompressed);
    const bool attribute = attributes & module_attr::ContiguousAttr;
    if (attribute) w.Key("contiguous", "yes");
    if ((attribute ? 1 : by_default) != (m.Contiguous != 0)) {
        w.Key("contiguous", m.Contiguous ? "yes" : "no");
    }
    w.Line("");
}

void WriteRomHole(Writer& w, const RomHoleEntry& hole) {
    w.Line(hole.Name.empty() ? "[romhole]" : "[noncriticalrom]");
    if (!hole.Name.empty()) w.Key("name", Lower(hole.Name));
    if (!hole.FileName.empty()) w.Key("file", hole.FileName);
    if (hole.Filler != 0xFF) w.Key("filler", StrFormat("%02x", hole.Filler));
    w.Hex8("startaddress", hole.StartAddress);
    // A size that rounded to whole paragraphs past 32 bits is 0; the reader takes one of
    // those back only as written, not as 0.
    w.Hex8("size", hole.Size == 0 ? 0xFFFFFFFFu : hole.Size);
    w.Line("");
}

}  // namespace

std::string WriteBuildScript(const BuildDescription& d, const std::vector<std::string>& comments) {
    Writer w;
    for (const std::string& comment : comments) w.Line("// " + comment);
    if (!comments.empty()) w.Line("");

    w.Line("[init]");
    w.Key("file", d.Init.BootBlockFile);
    w.Hex8("checksumoffset", d.Init.ChecksumOffset);
    w.Hex8("biostagoffset", d.Init.BiosTagOffset);
    w.Line("");

    w.Line("[bios]");
    w.Key("file", d.Bios.RomFile);
    w.Hex8("size", d.Bios.BiosSize);
    w.Hex8("bbsize", d.Bios.BootBlockSize);
    w.Hex8("nvramsize", d.Bios.NvramSize);
    if (d.Bios.MaxEbbSize) w.Hex8("maxebbsize", d.Bios.MaxEbbSize);
    w.Key("tag", Lower(d.Bios.BiosTag));
    w.Line("");

    const bool above_1mb = d.Bios.BiosSize > 0x100000;
    if (d.RomImage.RomImageVersion != 0 || above_1mb || d.RomImage.Use32BitMode) {
        w.Line("[romimage]");
        w.Key("version", StrFormat("%x", d.RomImage.RomImageVersion));
        if (d.RomImage.Use32BitMode && !above_1mb) w.Key("force32", "yes");
        w.Line("");
    }

    for (const EbbModuleRecord& m : d.EbbModuleList) WriteEbbModule(w, m);

    // ROM holes and module reservations share one table in script order: each hole is
    // written before the first module whose reservation comes after it.
    std::size_t next_hole = 0;
    auto holes_before = [&](std::size_t index) {
        for (; next_hole < index && next_hole < d.RomHoleCount; ++next_hole) {
            if (d.RomHoleTable[next_hole].OwnerModule == kNoIndex) {
                WriteRomHole(w, d.RomHoleTable[next_hole]);
            }
        }
    };
    const std::size_t count = std::min<std::size_t>(d.ModuleCount, d.ModuleTable.size());
    for (std::size_t i = 0; i < count;) {
        const ModuleEntry& m = d.ModuleTable[i];
        if (m.RomHoleIndex != kNoIndex) holes_before(m.RomHoleIndex);
        // The reader puts each link directly behind its parent, ahead of the links read
        // before it: the links behind a module are written after it in reverse order.
        std::size_t j = i + 1;
        while (j < count && HasParentIds(d.ModuleTable[j]) && ParentOf(d, j) == i) ++j;
        WriteModule(w, m, HasParentIds(m) && m.FileName.empty());
        for (std::size_t k = j; k > i + 1; --k) WriteModule(w, d.ModuleTable[k - 1], true);
        i = j;
    }
    holes_before(d.RomHoleCount);
    return w.Take();
}

}  // namespace fwforge
