#pragma once
// What fwforge-inspect knows about a ROM image after reading it: the regions from the
// top down, the module chains (main BIOS, Extended Boot Block, non-critical blocks),
// the image information records, and every problem met while reading. The reader
// (image_reader.h) fills it from the image bytes alone, through the structures of
// src/format/; the checks, the presentations, extract and replace only read it.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "format/main_header_block.h"
#include "format/module_header.h"

namespace fwforge::inspect {

enum class LinkForm { Auto, Bits16, Bits32 };

struct InspectOptions {
    LinkForm link_form = LinkForm::Auto;
    std::optional<std::uint32_t> boot_block_size;  // --bbsize
};

// One problem found in the image: what part of the image, and what is wrong with it.
struct Finding {
    std::string where;
    std::string what;
};

// One 20-byte module header as it stands in the image: its fields, and where it is.
struct HeaderView : ModuleHeader {
    std::uint32_t offset = 0;  // image offset of the header's first byte
};

// A range of data bytes in the image.
struct Piece {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
};

enum class ModuleArea { Main, Ebb, Ncb };

// One module: a header with its data, a linked add-on ROM header, or a split module
// (its SplitPiece headers and the last piece, which carries the module's full header).
struct Module {
    ModuleArea area = ModuleArea::Main;
    int block = -1;                         // index into ImageModel::ncbs for ModuleArea::Ncb
    int index = 0;                          // position in its chain, counting a split module once
    HeaderView header;                      // the full header (the last piece's for a split)
    std::vector<HeaderView> piece_headers;  // SplitPiece headers, in chain order
    std::vector<Piece> pieces;              // data of the module, in order
    bool truncated = false;                 // data would run past its area; cut
    // A linked add-on ROM header without the LinkedRom bit, as `link = no` in a section
    // with both link ids writes it: its checksum covers DataSize bytes after it, that is
    // its parent's header and data, as a module's would.
    bool link_without_bit = false;

    bool Compressed() const;
    bool Linked() const;  // a linked add-on ROM header, with the LinkedRom bit or without
    bool Split() const { return !piece_headers.empty(); }
    bool Contiguous() const;
    std::uint32_t StoredLength() const;  // sum of the piece lengths
    // The module's stored bytes, pieces joined.
    std::vector<std::uint8_t> StoredData(std::span<const std::uint8_t> image) const;
};

// A region found by its signature: the Extended Boot Block or a non-critical block.
struct Block {
    std::uint32_t offset = 0;
    std::uint32_t length = 0;  // BlockLength, cut to the image
    std::uint16_t header_checksum = 0;
    std::uint32_t block_checksum = 0;
    std::uint32_t first_module = 0;
};

struct ImageInfoItemConstrained {  // record 0x40
    std::uint8_t insertion_index = 0;
    std::uint8_t alignment = 0;
    std::uint32_t start_address = 0;
};

struct ImageInfoItemHole {  // record 0x50
    std::uint8_t kind = 0;  // image_info_record::kFillerHole, kFileHole, kNonCriticalBlock
    std::uint8_t filler = 0;
    std::uint32_t start = 0;  // image offset
    std::uint32_t size = 0;
};

struct ImageInfo {
    int module = -1;  // index into ImageModel::modules
    std::string tool_version;
    std::size_t data_length = 0;  // end of the last record: the data without padding
    std::optional<std::uint8_t> rom_image_version, rom_image_flags;
    std::optional<std::uint32_t> bios_tag_offset, checksum_offset;
    std::optional<std::uint32_t> boot_area_size, nvram_size;  // BootBlockSize + MaxEbbSize
    std::vector<ImageInfoItemConstrained> constrained;
    std::vector<ImageInfoItemHole> holes;
};

struct MainHeader {
    std::uint32_t signature = 0;  // image offset of the signature
    std::uint8_t version = 0, flags = 0;
    std::uint8_t module_extension = 0, main_extension = 0;
    std::uint32_t stamp = 0;
    std::uint16_t length = 0;
    std::uint32_t checksum = 0;
    std::uint32_t link = 0;
    std::uint32_t End() const { return signature + std::uint32_t(main_header::kSize); }
    std::uint32_t BlockStart() const {
        return signature - std::uint32_t(main_header::kExtensionSize);
    }
};

struct ImageModel {
    std::uint32_t size = 0;
    std::uint32_t address_base = 0;  // ROM address of image offset 0 (main chain form)
    bool links32 = false;
    std::optional<MainHeader> main;
    std::vector<Module> modules;  // main chain, then the EBB's, then each block's
    std::optional<Block> ebb;
    std::vector<Block> ncbs;
    ImageInfo info;
    std::optional<std::uint32_t> boot_block_size;
    std::optional<std::uint32_t> nvram_offset, nvram_size;
    bool gap_placement = false;
    std::vector<Finding> problems;   // structural problems met while reading
    std::vector<std::string> notes;  // how the reader decided what it could not see
    // Set when the main BIOS header does not say the link form and the chain decided
    // it against the first link's guess: list and verify say so.
    std::string link_form_note;

    std::uint32_t Address(std::uint32_t offset) const { return offset + address_base; }
    std::vector<const Module*> ModulesIn(ModuleArea area, int block = -1) const;
};

// How many module bytes the checks of one image may read or write in all. A built
// image's modules never overlap, so their data fits the image; a crafted chain of
// headers that all claim the rest of the image would otherwise cost its size squared.
inline std::uint64_t ModuleByteBudget(const ImageModel& model) {
    return 8ull * model.size + (std::uint64_t(16) << 20);
}

// "module #3 (id 12)" and the like, for messages.
std::string DescribeModule(const ImageModel& model, const Module& module);

// The module's number as `list` shows it, in a form that tells one module from all
// others: "3" in the main BIOS and in non-critical blocks (whose modules number on from
// the main BIOS), "ebb:3" in the Extended Boot Block (whose modules number from 0).
std::string ModuleNumber(const Module& module);

}  // namespace fwforge::inspect
