#include "support/random_script.h"

#include <algorithm>
#include <sstream>

#include "compress/module_compressor.h"
#include "driver/main_flow.h"
#include "platform/text_format.h"

namespace fwforge::testing {
namespace {

std::uint32_t Round4(std::uint64_t v) {
    return static_cast<std::uint32_t>((v + 3) & ~3ull);
}

// What the caller lets one [module] section be.
struct ModuleSpec {
    std::uint32_t largest = 0x1000;  // largest file
    std::uint32_t smallest = 0;      // not 0: a file this large at least, of poor compressibility
    std::string region;              // romregion, or empty
    std::uint32_t start = 0;         // startaddress, or 0
    std::string contiguous;          // "yes", "no", or "" for a random choice or none
    bool may_align = false;
    bool may_be_addon = false;  // an add-on ROM, maybe with linked ones
};

class ScriptMaker {
  public:
    ScriptMaker(std::uint32_t seed, const TempDir& dir) : r_(seed), dir_(dir) {}

    RandomScript Make();

  private:
    std::string File(const std::vector<std::uint8_t>& bytes) {
        const std::string name = dir_.File(StrFormat("f%d.bin", files_++));
        WriteBytes(name, bytes);
        return name;
    }
    // Text-like bytes with one in `noise` random, all random for 1.
    std::vector<std::uint8_t> Content(std::uint32_t size, std::uint32_t noise) {
        std::vector<std::uint8_t> bytes(size);
        for (std::uint32_t i = 0; i < size; ++i) {
            bytes[i] = r_.OneIn(noise) ? static_cast<std::uint8_t>(r_.Next()) : "fwforge "[i % 8];
        }
        return bytes;
    }
    std::uint32_t AddModule(const ModuleSpec& spec);
    void AddRanges(std::uint32_t base, std::uint32_t top, std::uint32_t stride,
                   std::uint32_t& reserved);

    Random r_;
    const TempDir& dir_;
    std::ostringstream s_;
    RandomScript out_;
    int files_ = 0;
    std::uint32_t next_id_ = 0x30;
    std::uint32_t addons_ = 0;
    bool packable_ = false;  // every compressed module unpacks
};

// One [module] section (and the sections of its linked add-on ROMs); returns the most
// bytes it can take in the image: headers, data, the alignment reserve.
std::uint32_t ScriptMaker::AddModule(const ModuleSpec& spec) {
    ScriptModule m;
    const bool tiny = !spec.smallest && r_.OneIn(8);
    const std::uint32_t noise = r_.OneIn(4) ? 1 : r_.OneIn(2) || spec.smallest ? 2 : 8;
    // Noise past the encoder's first read (0x2100 bytes) can stop it before the end.
    const std::uint32_t largest =
        noise == 1 ? std::min(spec.largest, r_.OneIn(4) ? 0x5000u : 0x2000u) : spec.largest;
    const std::uint32_t low =
        tiny ? 0 : std::max(std::min(spec.smallest, largest), r_.OneIn(2) ? largest / 3 : 0);
    const std::uint32_t size = low + r_.Below((tiny ? 15 : largest) - low + 1);
    const std::uint32_t pick = r_.Below(20);
    m.storage = pick < 6    ? Storage::Compressed
                : pick < 9  ? Storage::MinSize
                : pick < 12 ? Storage::AsIs
                : pick < 18 ? Storage::NowCompressed
                            : Storage::Junk;
    // Data that does not compress, compressed all the same, cannot be unpacked: half
    // of the scripts have none of it.
    if (packable_ && (tiny || noise == 1 || m.storage == Storage::Junk) &&
        m.storage != Storage::MinSize && m.storage != Storage::AsIs) {
        m.storage = spec.region == "ebb" ? Storage::AsIs : Storage::MinSize;
    }
    std::vector<std::uint8_t> bytes = Content(size, noise);
    if (m.storage == Storage::NowCompressed) {
        m.original = bytes;
        bytes.assign(size + 9, 0);
        bytes.resize(lzh::Encoder().CompressModule(m.original, bytes).total);
    }
    m.file = File(bytes);
    const bool addon = spec.may_be_addon && r_.OneIn(3);
    const std::uint16_t vendor = static_cast<std::uint16_t>(0x1000 + addons_);
    if (addon) {
        m.key = KeyOf(0x20, vendor, 1);
        s_ << StrFormat("[module]\nmoduleid = 20\nvendorid = %04x\ndeviceid = 0001\n", vendor);
    } else {
        m.key = KeyOf(static_cast<std::uint8_t>(next_id_), 0, 0);
        s_ << StrFormat("[module]\nmoduleid = %02x\ndestn = %04x:0000\n", next_id_++,
                        0x1000 * r_.Below(16));
    }
    s_ << "file = " << m.file << "\n";
    static const char* const kStorage[] = {"compressed = yes\n", "compressed = minsize\n",
                                           "compressed = no\n", "nowcompressed = yes\n",
                                           "nowcompressed = yes\n"};
    if (m.storage != Storage::Compressed || r_.OneIn(2))
        s_ << kStorage[static_cast<int>(m.storage)];
    std::uint32_t data =
        std::max<std::uint32_t>(static_cast<std::uint32_t>(bytes.size()), size) + 11;
    if (r_.OneIn(6)) {
        data += r_.Below(0x40);
        s_ << StrFormat("maxmodulesize = %08x\n", data);
    }
    std::string contiguous = spec.contiguous;
    if (contiguous.empty() && r_.OneIn(3)) contiguous = r_.OneIn(2) ? "yes" : "no";
    if (!contiguous.empty()) s_ << "contiguous = " << contiguous << "\n";
    std::uint32_t cost = Round4(data) + 20;
    if (spec.may_align && (r_.OneIn(3) || (spec.contiguous == "yes" && r_.OneIn(2)))) {
        static const std::uint32_t kAlign[] = {0x10, 0x20, 0x40, 0x80, 0x15, 0x05, 0x07, 0xFF};
        m.alignment = r_.OneIn(2) ? 5 + r_.Below(0xFB) : kAlign[r_.Below(8)];
        s_ << StrFormat("alignment = %x\n", m.alignment);
        cost += m.alignment;
    }
    if (!spec.region.empty()) s_ << "romregion = " << spec.region << "\n";
    if (spec.start) s_ << StrFormat("startaddress = %08x\n", spec.start);
    m.placed = spec.region != "nosuchblock";
    out_.modules.push_back(std::move(m));
    if (!addon) return cost;

    // Linked add-on ROMs: headers only, next to their parent.
    for (std::uint32_t l = 0, links = r_.Below(3); l < links; ++l) {
        const std::uint16_t own = static_cast<std::uint16_t>(0x2000 + addons_);
        s_ << StrFormat(
            "[module]\nmoduleid = 20\nvendorid = %04x\ndeviceid = %04x\n"
            "linkvenid = %04x\nlinkdevid = 0001\nlink = %s\n",
            own, l, vendor, r_.OneIn(2) ? "no" : "yes");
        ScriptModule& link = out_.modules.emplace_back();
        link.key = KeyOf(0x20, own, static_cast<std::uint16_t>(l));
        link.storage = Storage::Link;
        link.placed = spec.region != "nosuchblock";
        cost += 20;
    }
    ++addons_;
    return cost;
}

// Reserved ranges in slots of `stride` (0x4000 bytes or more) from image offset 0x1000
// up: each at a paragraph inside its slot and shorter than 0x3000 bytes, so that no two
// touch and the gaps between them are about as long as the slots.
void ScriptMaker::AddRanges(std::uint32_t base, std::uint32_t top, std::uint32_t stride,
                            std::uint32_t& reserved) {
    const std::uint32_t slots = (top - 0x2000) / stride;
    int ranges = 0;
    for (std::uint32_t slot = 0; slot < slots && ranges < 14; ++slot) {
        if (r_.OneIn(4)) continue;
        ++ranges;
        const std::uint32_t at = 0x1000 + slot * stride + r_.Below(0x100) * 0x10;
        switch (r_.Below(4)) {
            case 0: {  // module at a start address
                ModuleSpec spec;
                spec.largest = 0x1800;
                spec.start = base + at + 0x100 + 4 * r_.Below(0x10);
                spec.may_be_addon = true;
                reserved += AddModule(spec);
                break;
            }
            case 1: {  // non-critical block with its modules
                const std::string name = StrFormat("blk%u", slot);
                std::uint32_t used = 24;
                ModuleSpec spec;
                spec.largest = 0x600;
                spec.region = name;
                spec.may_be_addon = true;
                for (std::uint32_t k = 0, count = r_.Below(3); k < count; ++k)
                    used += AddModule(spec);
                const std::uint32_t size = used + r_.Below(0x200);
                s_ << StrFormat("[noncriticalrom]\nname = %s\nstartaddress = %08x\nsize = %x\n",
                                name.c_str(), base + at, size);
                reserved += size;
                break;
            }
            default: {  // ROM hole, maybe with a file
                ScriptHole& hole = out_.holes.emplace_back();
                const std::uint32_t size = 0x10 + r_.Below(0x2FE0);
                hole.range = {at, size};
                hole.filler = static_cast<std::uint8_t>(r_.Below(0x100));
                s_ << StrFormat("[romhole]\nstartaddress = %08x\nsize = %x\nfiller = %02x\n",
                                base + at, size, hole.filler);
                if (r_.OneIn(2)) {
                    hole.file = RandomBytes(1 + r_.Below(size), r_.Next());
                    s_ << "file = " << File(hole.file) << "\n";
                }
                reserved += size;
                break;
            }
        }
    }
    if (ranges == 0) {
        s_ << StrFormat("[romhole]\nstartaddress = %08x\nsize = 100\n", base + 0x2000);
        out_.holes.push_back({{0x2000, 0x100}, 0xFF, {}});
    }
}

RandomScript ScriptMaker::Make() {
    packable_ = r_.OneIn(2);
    out_.gap = r_.OneIn(2);
    const bool big = r_.OneIn(16);
    // 1 MB is the largest image whose links can be either form, so that where the main
    // BIOS header does not say (-c), a link can lead to something like a header in both.
    static const std::uint32_t kSizes[] = {0x20000, 0x40000, 0x40000, 0x80000, 0x100000};
    out_.bios_size = big ? 0x200000 : kSizes[r_.Below(5)];
    const bool force32 = !big && r_.OneIn(4);
    out_.boot_block = 0x2000u << r_.Below(4);
    out_.nvram = r_.OneIn(3) ? 0 : 0x100 * (1 + r_.Below(0x40));
    if (r_.OneIn(force32 ? 3 : 10)) out_.options.push_back("-c");

    // Modules of the Extended Boot Block, in a script of their own until their place
    // among the others is chosen.
    std::vector<std::string> ebb_sections;
    if (r_.OneIn(3)) {
        out_.ebb = 24;
        for (std::uint32_t k = 0, count = r_.Below(4); k < count; ++k) {
            const std::string before = s_.str();
            ModuleSpec spec;
            spec.largest = 0x400;
            spec.region = "ebb";
            out_.ebb += AddModule(spec);
            ebb_sections.push_back(s_.str().substr(before.size()));
        }
        s_.str("");
        out_.ebb = (out_.ebb + 0xFF + 0x100 * r_.Below(4)) & ~0xFFu;
    }
    const std::uint32_t top = out_.bios_size - out_.boot_block - out_.ebb - out_.nvram;
    const std::uint32_t base = force32 || big ? 0 : 0x100000 - out_.bios_size;

    std::uint32_t reserved = 0;
    const std::uint32_t stride = std::max(0x4000u, ((top - 0x2000) / 14) & ~0xFFFu);
    if (out_.gap) AddRanges(base, top, stride, reserved);
    // Main BIOS modules, as many as a third of the free room surely holds (with the
    // headers and the scraps of split modules).
    const std::uint32_t budget = (top - reserved) / 3;
    std::uint32_t used = 0;
    for (std::uint32_t k = 0, count = 1 + r_.Below(10); k < count && used < budget;) {
        if (!ebb_sections.empty() && r_.OneIn(3)) {
            s_ << ebb_sections.back();
            ebb_sections.pop_back();
            continue;
        }
        ModuleSpec spec;
        spec.largest = std::min<std::uint32_t>(budget - used, 0x6000);
        spec.may_align = true;
        spec.may_be_addon = true;
        if (out_.gap) {
            // Modules that may be split are often larger than every gap.
            const bool contiguous = r_.OneIn(4);
            spec.contiguous = contiguous ? "yes" : "no";
            spec.largest =
                contiguous ? std::min(spec.largest, 0x1000u) : std::min(budget - used, 4 * stride);
            if (!contiguous && r_.OneIn(2)) spec.smallest = 2 * stride;
            if (r_.OneIn(12)) {  // no alignment: it would conflict with the region
                spec.region = "nosuchblock";
                spec.may_align = false;
            }
        }
        used += AddModule(spec);
        ++k;
    }
    for (const std::string& section : ebb_sections) s_ << section;

    out_.rom = dir_.File("out.rom");
    std::ostringstream head;
    WriteBytes(dir_.File("bb.bin"), RandomBytes(0x10000, r_.Next()));
    head << "[init]\nfile = " << dir_.File("bb.bin") << "\n[bios]\nfile = " << out_.rom
         << StrFormat("\nsize = %08x\nbbsize = %08x\nnvramsize = %08x\n", out_.bios_size,
                      out_.boot_block, out_.nvram);
    if (out_.ebb) head << StrFormat("maxebbsize = %08x\n", out_.ebb);
    head << "tag = rnd" << r_.Below(1000) << "\n";
    if (big || force32 || r_.OneIn(3)) {
        head << StrFormat("[romimage]\nversion = %x\n", r_.Below(4))
             << (force32 ? "force32 = yes\n" : "");
    }
    out_.text = WithCrLf(head.str() + s_.str());
    out_.path = dir_.File("random.scr");
    WriteText(out_.path, out_.text);
    return std::move(out_);
}

}  // namespace

std::string KeyOf(std::uint8_t id, std::uint16_t vendor, std::uint16_t device) {
    return id == 0x20 ? StrFormat("20:%04x:%04x", vendor, device) : StrFormat("%02x", id);
}

RandomScript MakeRandomScript(std::uint32_t seed, const TempDir& dir) {
    return ScriptMaker(seed, dir).Make();
}

int RunFwforge(const std::filesystem::path& folder, const std::vector<std::string>& args,
               std::string& console, unsigned threads, bool reuse) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    std::vector<const char*> argv = {"fwforge"};
    for (const std::string& a : args) argv.push_back(a.c_str());
    std::ostringstream out;
    const int status = RunMainFlow(static_cast<int>(argv.size()), argv.data(), out, threads, reuse);
    std::filesystem::current_path(before);
    console = out.str();
    return status;
}

}  // namespace fwforge::testing
