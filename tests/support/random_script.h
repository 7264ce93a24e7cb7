#pragma once
// Random valid build scripts from a seed, with every file they name: sequential and gap
// placement, 16- and 32-bit images (forced, and above 1 MB), an Extended Boot Block,
// ROM holes with and without files, non-critical blocks, modules at start addresses,
// add-on ROMs with linked ones (also in the `link = no` form), alignments (also ones
// that are not multiples of 4), minsize, maxmodulesize, nowcompressed files with real
// and with junk data, tiny and incompressible modules. Property tests build them and
// read the images back.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace fwforge::testing {

class Random {
  public:
    explicit Random(std::uint32_t seed) : state_(seed * 2654435761u + 1) {}
    std::uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    std::uint32_t Below(std::uint32_t n) { return Next() % n; }
    bool OneIn(std::uint32_t n) { return Below(n) == 0; }

  private:
    std::uint32_t state_;
};

// How the script has a module's file stored.
enum class Storage {
    Compressed,     // compressed by the build
    MinSize,        // compressed unless that does not make it smaller
    AsIs,           // compressed = no
    NowCompressed,  // nowcompressed = yes, the file made by the encoder
    Junk,           // nowcompressed = yes, the file holding no compressed data
    Link,           // a linked add-on ROM: no file
};

struct ScriptModule {
    std::string key;   // module id in hex, or "20:vendor:device" for an add-on ROM
    std::string file;  // empty for a linked add-on ROM
    Storage storage = Storage::Compressed;
    std::vector<std::uint8_t> original;  // what a NowCompressed file decodes to
    std::uint32_t alignment = 0;
    bool placed = true;  // false when its region names no block
};

// A range of image offsets.
struct ByteRange {
    std::uint32_t start = 0;
    std::uint32_t size = 0;
};

// A ROM hole as the script reserves it: the file's bytes, then the filler.
struct ScriptHole {
    ByteRange range;
    std::uint8_t filler = 0xFF;
    std::vector<std::uint8_t> file;
};

struct RandomScript {
    std::string path;  // the script file, CR LF line ends
    std::string text;
    std::string rom;                   // the ROM file it builds
    std::vector<std::string> options;  // fwforge options after the script ("-c")
    std::vector<ScriptModule> modules;
    bool gap = false;
    std::uint32_t bios_size = 0, boot_block = 0, ebb = 0, nvram = 0;
    std::vector<ScriptHole> holes;  // ROM holes as image offsets
};

std::string KeyOf(std::uint8_t id, std::uint16_t vendor, std::uint16_t device);

// Writes the script and its files into `dir`.
RandomScript MakeRandomScript(std::uint32_t seed, const TempDir& dir);

// Runs fwforge with `args` (output path, script, options) in `folder`, where relative
// names in the script are found; returns its exit status, its console text in `console`.
// `threads` and `reuse` tune how the build compresses, never what it writes.
int RunFwforge(const std::filesystem::path& folder, const std::vector<std::string>& args,
               std::string& console, unsigned threads = 1, bool reuse = true);

}  // namespace fwforge::testing
