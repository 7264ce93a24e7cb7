// Random valid build scripts of every kind, built by fwforge and read back by the
// inspector: verify never calls a built image damaged, and calls it damaged after any
// flipped byte that a checksum covers; extract gives back every module, or names the
// compressed ones that cannot be unpacked, and why; rebuild.scr rebuilds every image of
// sequential placement byte for byte; replace gives every module its own stored data
// back without a change, and other data as fwforge would build it.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "compress/module_compressor.h"
#include "edit/replace.h"
#include "image/image_reader.h"
#include "image/module_data.h"
#include "inspect/extract.h"
#include "rebuild/rebuild.h"
#include "inspect/inspect_cli.h"
#include "platform/byte_order.h"
#include "platform/text_format.h"
#include "present/report.h"
#include "support/random_script.h"

namespace fwforge::inspect {
namespace {

namespace fs = std::filesystem;
using namespace fwforge::testing;

// A sanitizer build runs each case many times slower; it takes every third seed, and
// the least counts below scale with it.
#if defined(__SANITIZE_ADDRESS__)
#define FWFORGE_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FWFORGE_ASAN 1
#endif
#endif
#ifdef FWFORGE_ASAN
constexpr std::uint32_t kSeedStep = 3;
#else
constexpr std::uint32_t kSeedStep = 1;
#endif
constexpr std::uint32_t kSeeds = 210;
constexpr int kFlipsPerImage = 3;
// How often the seeds reach each kind of item at least, so that a change of the
// generator cannot quietly stop covering one.
// clang-format off
const std::pair<const char*, int> kLeast[] = {
    {"sequential placement", 80}, {"gap placement", 80}, {"32-bit links", 40},
    {"EBB modules", 30}, {"block modules", 50}, {"ROM hole file", 120}, {"start address", 120},
    {"alignment", 200}, {"alignment not a multiple of 4", 120}, {"split", 25},
    {"link = yes", 80}, {"link = no", 120}, {"maxmodulesize", 80},
    {"minsize", 100}, {"nowcompressed", 200}, {"junk named", 40}, {"tiny module", 100},
    {"cut off named", 100}, {"cannot unpack", 60}, {"force32", 25}, {"-c", 15},
    {"replaced in place", 50}, {"replaced in a block", 12}, {"replaced by a rebuild", 70},
    {"replace refused", 25}, {"32-bit links, -c, 1 MB", 2}};
// clang-format on

// What some checksum covers: the boot block, the EBB and the main BIOS header's region
// (with the non-critical blocks in it, which have checksums of their own), not the ROM
// holes, which are filled after the region is sealed, nor the NVRAM area.
std::vector<ByteRange> Covered(const MainHeader& main, const RandomScript& script) {
    std::vector<ByteRange> out = {{script.bios_size - script.boot_block, script.boot_block}};
    if (script.ebb) out.push_back({script.bios_size - script.boot_block - script.ebb, script.ebb});
    const std::uint32_t end = main.End();
    std::uint32_t from = end - (main.length == 0xFFFF ? 0x7FFF8 : main.length * 8u);
    for (const ScriptHole& hole : script.holes) {  // in address order
        const std::uint32_t start = hole.range.start, size = (hole.range.size + 15) & ~15u;
        if (start + size <= from || start >= end) continue;
        if (start > from) out.push_back({from, start - from});
        from = start + size;
    }
    if (from < end) out.push_back({from, end - from});
    return out;
}

std::uint32_t Pick(const std::vector<ByteRange>& ranges, Random& r) {
    std::uint32_t total = 0;
    for (const ByteRange& range : ranges) total += range.size;
    std::uint32_t at = r.Below(total);
    for (const ByteRange& range : ranges) {
        if (at < range.size) return range.start + at;
        at -= range.size;
    }
    return ranges.front().start;
}

const CannotUnpack* Named(const std::vector<CannotUnpack>& list, const std::string& module) {
    for (const CannotUnpack& c : list) {
        if (c.module.starts_with(module)) return &c;
    }
    return nullptr;
}

// Every module of the script comes back from extract: stored as its file is, or
// decompressed; a compressed one that does not is named by verify and extract alike,
// because its file does not compress (an encoder run on it stops) or because its file
// was marked nowcompressed and holds no compressed data.
void CheckModulesComeBack(const RandomScript& script, const ImageModel& model,
                          const VerifyReport& report, const ExtractPlan& plan,
                          std::map<std::string, int>& seen) {
    std::map<std::string, const Module*> by_key;
    for (const Module& m : model.modules) {
        by_key[KeyOf(m.header.id, m.header.dest_offset, m.header.dest_segment)] = &m;
    }
    std::size_t named = 0;
    for (const ScriptModule& w : script.modules) {
        SCOPED_TRACE(w.key + " " + w.file);
        const auto found = by_key.find(w.key);
        if (!w.placed) {
            EXPECT_EQ(found, by_key.end());
            continue;
        }
        ASSERT_NE(found, by_key.end());
        const Module& m = *found->second;
        seen["link = no"] += m.link_without_bit;
        if (w.storage == Storage::Link) {
            EXPECT_TRUE(m.Linked());
            continue;
        }
        const std::vector<std::uint8_t> file = ReadBytes(w.file);
        seen["tiny module"] += file.size() < 16;
        seen["nowcompressed"] += w.storage == Storage::NowCompressed;
        const std::string name = DescribeModule(model, m);
        const CannotUnpack* verified = Named(report.cannot_unpack, name);
        EXPECT_EQ(verified != nullptr, Named(plan.cannot_unpack, name) != nullptr);
        const auto bin = std::find_if(plan.files.begin(), plan.files.end(), [&](const auto& f) {
            return f.name == ModuleFileName(model, m, ".bin");
        });
        if (!m.Compressed()) {
            ASSERT_NE(bin, plan.files.end());
            ASSERT_GE(bin->bytes.size(), file.size());
            EXPECT_TRUE(std::equal(file.begin(), file.end(), bin->bytes.begin()));
            EXPECT_TRUE(std::all_of(bin->bytes.begin() + file.size(), bin->bytes.end(),
                                    [](std::uint8_t b) { return b == 0xFF; }));
            continue;
        }
        if (w.storage == Storage::Junk) {
            ++named;
            ++seen["junk named"];
            ASSERT_NE(verified, nullptr);
            EXPECT_NE(verified->reason.find("holds no compressed data"), std::string::npos);
            EXPECT_NE(verified->change.find("nowcompressed"), std::string::npos);
            continue;
        }
        const std::vector<std::uint8_t>& original =
            w.storage == Storage::NowCompressed ? w.original : file;
        if (verified == nullptr) {
            ASSERT_NE(bin, plan.files.end());
            EXPECT_TRUE(bin->bytes == original);
            continue;
        }
        ++named;
        ++seen["cut off named"];
        std::vector<std::uint8_t> out(original.size() + 9);
        EXPECT_TRUE(lzh::Encoder().CompressModule(original, out).stopped);
        EXPECT_NE(verified->reason.find("cut off by the encoder's output bound"),
                  std::string::npos);
        EXPECT_NE(verified->change.find(m.area == ModuleArea::Ebb ? "`compressed = no`"
                                                                  : "`compressed = minsize`"),
                  std::string::npos);
    }
    EXPECT_EQ(report.cannot_unpack.size(), named);
}

// What the image cannot tell the inspector: ROM holes hold their file and then their
// filler, a module's data lies at its start address or at an image offset that its
// alignment divides (links move an add-on ROM's data up by their headers), and a module
// whose region names no block is not announced.
void CheckReservations(const RandomScript& script, std::span<const std::uint8_t> rom,
                       const ImageModel& model, const std::string& console) {
    for (const ScriptHole& hole : script.holes) {
        for (std::uint32_t i = 0; i < hole.range.size; ++i) {
            if (rom[hole.range.start + i] != (i < hole.file.size() ? hole.file[i] : hole.filler)) {
                ADD_FAILURE() << StrFormat("ROM hole at %x differs at %x", hole.range.start, i);
                break;
            }
        }
    }
    for (const ImageInfoItemConstrained& c : model.info.constrained) {
        const auto main = model.ModulesIn(ModuleArea::Main);
        ASSERT_LT(c.insertion_index, main.size());
        const Module& m = *main[c.insertion_index];
        const std::uint32_t data = m.pieces.front().offset;
        if (c.start_address != kEndOfChain) {
            EXPECT_EQ(model.Address(data), c.start_address);
        }
        if (c.alignment && !m.Split() && m.header.id != kAddonRomModuleId) {
            EXPECT_EQ(data % c.alignment, 0u) << DescribeModule(model, m);
        }
    }
    for (const ScriptModule& w : script.modules) {
        if (!w.placed && !w.file.empty()) {
            EXPECT_EQ(console.find(w.file), std::string::npos);
        }
    }
}

const std::vector<std::uint8_t>& FileOf(const ExtractPlan& plan, const std::string& name) {
    static const std::vector<std::uint8_t> none;
    for (const ExtractedFile& f : plan.files) {
        if (f.name == name) return f.bytes;
    }
    return none;
}

// Every module that has data of its own takes its own stored data back (as extract
// writes it for rebuild.scr) and the image stays byte for byte what it was (in
// sequential placement, where each is a build, a third of them). One module takes other
// data: in sequential placement the result is what fwforge builds from rebuild.scr with
// that one file changed, or a refusal when that build fails or leaves the module unable
// to unpack; in gap placement it verifies with every other module in its place, or, when
// it outgrows its room, is built again, or is refused because the data would not unpack.
void CheckReplace(const RandomScript& script, const std::vector<std::uint8_t>& rom,
                  const ImageModel& model, const ExtractPlan& plan, const fs::path& dir, Random& r,
                  std::map<std::string, int>& seen) {
    std::vector<const Module*> candidates;
    for (const Module& m : model.modules) {
        if (!m.Linked() && !m.Split() && &m - model.modules.data() != model.info.module)
            candidates.push_back(&m);
    }
    ASSERT_FALSE(candidates.empty());
    auto file_of = [&](const Module& m) { return plan.module_files[&m - model.modules.data()]; };
    for (const Module* m : candidates) {
        if (!model.gap_placement && !r.OneIn(3)) continue;
        edit::ReplaceRequest own{ModuleNumber(*m), "own", FileOf(plan, file_of(*m)),
                                 file_of(*m).ends_with(".lh5"), {}};
        if (model.gap_placement) {
            own.file = m->StoredData(rom);
            own.as_is = m->Compressed();
        }
        const edit::ReplaceOutcome same = edit::ReplaceModule(rom, own);
        EXPECT_TRUE(same.image == rom) << DescribeModule(model, *m) << ": " << same.error;
    }

    const Module& m = *candidates[r.Below(static_cast<std::uint32_t>(candidates.size()))];
    SCOPED_TRACE(DescribeModule(model, m));
    const std::uint32_t size = 1 + r.Below(2 * std::max(m.header.data_size, 64u));
    std::vector<std::uint8_t> content(size);
    const std::uint32_t noise = r.OneIn(4) ? 1 : 8;
    for (std::uint32_t i = 0; i < size; ++i)
        content[i] = r.OneIn(noise) ? static_cast<std::uint8_t>(r.Next()) : "replaced"[i % 8];
    edit::ReplaceRequest request{ModuleNumber(m), "new", content, false, {}};
    request.as_is = m.Compressed() && (model.gap_placement ? r.OneIn(2)
                                                           : file_of(m).ends_with(".lh5"));
    if (request.as_is) {
        request.file.resize(size + 9);
        request.file.resize(lzh::Encoder().CompressModule(content, request.file).total);
    }
    const edit::ReplaceOutcome outcome = edit::ReplaceModule(rom, request);
    const bool rebuilt = std::any_of(outcome.report.begin(), outcome.report.end(),
                                     [](const std::string& line) {
                                         return line.find("built again") != std::string::npos;
                                     });

    if (!model.gap_placement) {
        const fs::path x = dir / "replaced";
        fs::create_directories(x / "o");
        for (const ExtractedFile& f : plan.files)
            WriteBytes((x / f.name).string(), f.name == file_of(m) ? request.file : f.bytes);
        std::vector<std::string> args = {"o", "rebuild.scr"};
        args.insert(args.end(), script.options.begin(), script.options.end());
        std::string console;
        bool unpacks = RunFwforge(x, args, console) == 0;
        const std::vector<std::uint8_t> rebuilt =
            unpacks ? ReadBytes((x / "rebuilt.rom").string()) : std::vector<std::uint8_t>();
        if (unpacks && m.Compressed()) {
            const ImageModel built = ReadImage(rebuilt, {});
            const auto chain = built.ModulesIn(m.area);
            unpacks = DecodeStoredData(chain.at(m.index)->StoredData(rebuilt)).status ==
                      DecodeStatus::Ok;
        }
        EXPECT_EQ(outcome.Done(), unpacks) << outcome.error << console;
        EXPECT_TRUE(outcome.image == (unpacks ? rebuilt : std::vector<std::uint8_t>()));
    } else if (outcome.Done() && !rebuilt) {
        const ImageModel after = ReadImage(outcome.image, {});
        for (const Module& o : model.modules) {
            const Module& n = after.modules.at(&o - model.modules.data());
            if (&o == &m) continue;
            EXPECT_EQ(n.header.offset, o.header.offset);
            EXPECT_TRUE(n.StoredData(outcome.image) == o.StoredData(rom)) << DescribeModule(model, o);
        }
    } else if (!outcome.Done()) {
        EXPECT_TRUE(outcome.error.find("unpack") != std::string::npos ||
                    outcome.error.find("the build stops") != std::string::npos)
            << outcome.error;
    }
    seen[!outcome.Done() ? "replace refused" : rebuilt ? "replaced by a rebuild"
                                                       : "replaced in place"]++;
    if (!outcome.Done()) return;
    seen["replaced in a block"] += model.gap_placement && m.area != ModuleArea::Main;
    const ImageModel after = ReadImage(outcome.image, {});
    const VerifyReport report = Verify(outcome.image, after);
    // Only modules that could not be unpacked before may keep the image from verify's 0.
    EXPECT_TRUE(report.Status() == ExitStatus::Ok ||
                (report.Clean() && Verify(rom, model).Status() == ExitStatus::CannotUnpack))
        << VerifyText(report);
    if (m.header.id == kDescriptorModuleId) return;  // patched with its place
    const Module* now = &after.modules.at(&m - model.modules.data());
    for (const Module& n : after.modules) {  // a rebuild may place it elsewhere
        if (rebuilt && n.header.id == m.header.id && n.header.dest_offset == m.header.dest_offset &&
            n.header.dest_segment == m.header.dest_segment && n.area == m.area && !n.Linked()) {
            now = &n;
            break;
        }
    }
    const std::vector<std::uint8_t> stored = now->StoredData(outcome.image);
    if (m.Compressed() && !request.as_is) {
        EXPECT_TRUE(DecodeStoredData(stored).bytes == content);
    } else {
        EXPECT_TRUE(stored.size() >= request.file.size() &&
                    std::equal(request.file.begin(), request.file.end(), stored.begin()));
    }
}

// What scripts read from the JSON: it parses, carries its schema version, and says of
// every module what `replace` needs, as the inspector's own model has it.
void CheckJson(const std::vector<std::uint8_t>& rom, const ImageModel& model,
               const VerifyReport& report) {
    const auto list = nlohmann::json::parse(ListJson(rom, model));
    EXPECT_EQ(list.at("schema_version"), kJsonSchemaVersion);
    ASSERT_EQ(list.at("modules").size(), model.modules.size());
    for (std::size_t i = 0; i < model.modules.size(); ++i) {
        const Module& m = model.modules[i];
        const auto& j = list["modules"][i];
        EXPECT_EQ(j.at("number"), ModuleNumber(m));
        EXPECT_EQ(j.at("compressed"), m.Compressed());
        EXPECT_EQ(j.contains("compressed_total"), SizesOf(rom, m).compressed);
        ASSERT_EQ(j.at("pieces").size(), m.pieces.size());
        for (std::size_t k = 0; k < m.pieces.size(); ++k) {
            EXPECT_EQ(j["pieces"][k].at("offset"), m.pieces[k].offset);
            EXPECT_EQ(j["pieces"][k].at("length"), m.pieces[k].length);
        }
    }
    const auto verify = nlohmann::json::parse(VerifyJson(report));
    EXPECT_EQ(verify.at("schema_version"), kJsonSchemaVersion);
    EXPECT_EQ(verify.at("status"), ExitCode(report.Status()));
    EXPECT_EQ(verify.at("problems").size(), report.problems.size());
}

TEST(RandomBuildProperty, InspectorReadsBackEveryBuiltImage) {
    int built = 0;
    std::map<std::string, int> seen;
    for (std::uint32_t seed = 1; seed <= kSeeds; seed += kSeedStep) {
        SCOPED_TRACE(StrFormat("seed %u", seed));
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        std::vector<std::string> args = {dir.path().string(), script.path};
        args.insert(args.end(), script.options.begin(), script.options.end());
        std::string console;
        ASSERT_EQ(RunFwforge(dir.path(), args, console), 0) << console << script.text;
        ++built;
        const std::vector<std::uint8_t> rom = ReadBytes(script.rom);
        Command verify;
        verify.command = "verify";
        verify.image = script.rom;
        std::ostringstream verify_out;
        const ExitStatus status = RunCommand(verify, verify_out);
        ASSERT_TRUE(status == ExitStatus::Ok || status == ExitStatus::CannotUnpack)
            << verify_out.str() << script.text;
        const ImageModel model = ReadImage(rom, {});
        const VerifyReport report = Verify(rom, model);
        EXPECT_EQ(report.Status(), status);
        CheckJson(rom, model, report);
        ASSERT_TRUE(model.main);
        CheckReservations(script, rom, model, console);

        Random r(seed);
        for (int i = 0; i < kFlipsPerImage; ++i) {
            std::vector<std::uint8_t> flipped = rom;
            const std::uint32_t at = Pick(Covered(*model.main, script), r);
            flipped[at] ^= static_cast<std::uint8_t>(1 + r.Below(255));
            EXPECT_EQ(Verify(flipped, ReadImage(flipped, {})).Status(), ExitStatus::Problems)
                << StrFormat("byte %x flipped", at) << "\n"
                << script.text;
        }

        // rebuild.scr, written out and built by fwforge, gives back every image of
        // sequential placement and nearly every one of gap placement, and extract says
        // truly which.
        const rebuild::Reconstruction reconstruction = rebuild::Reconstruct(rom, model);
        const ExtractPlan& plan = reconstruction.plan;
        EXPECT_TRUE(plan.problems.empty());
        CheckModulesComeBack(script, model, report, plan, seen);
        const fs::path x = dir.path() / "x";
        fs::create_directories(x / "o");
        for (const ExtractedFile& f : plan.files) WriteBytes((x / f.name).string(), f.bytes);
        std::vector<std::string> rebuild = {"o", "rebuild.scr"};
        if (plan.compatibility_form) rebuild.push_back("-c");
        const bool exact = RunFwforge(x, rebuild, console) == 0 &&
                           ReadBytes((x / "rebuilt.rom").string()) == rom;
        EXPECT_EQ(reconstruction.exact, exact) << reconstruction.difference;
        EXPECT_TRUE(exact || script.gap) << script.text;
        seen[exact ? "rebuilt exactly" : "not rebuilt exactly"]++;
        CheckReplace(script, rom, model, plan, dir.path(), r, seen);

        seen[script.gap ? "gap placement" : "sequential placement"]++;
        seen["32-bit links"] += model.links32;
        seen["EBB modules"] += !model.ModulesIn(ModuleArea::Ebb).empty();
        seen["block modules"] +=
            std::any_of(model.modules.begin(), model.modules.end(),
                        [](const Module& m) { return m.area == ModuleArea::Ncb; });
        seen["cannot unpack"] += status == ExitStatus::CannotUnpack;
        for (const ImageInfoItemHole& hole : model.info.holes)
            seen["ROM hole file"] += hole.kind == 1;
        for (const ImageInfoItemConstrained& c : model.info.constrained) {
            seen["start address"] += c.start_address != kEndOfChain;
            seen[c.alignment % 4 ? "alignment not a multiple of 4" : "alignment"]++;
        }
        for (const Module& m : model.modules) {
            const bool uneven = std::any_of(m.pieces.begin(), m.pieces.end() - m.Split(),
                                            [](const Piece& p) { return p.length % 4 != 0; });
            seen["split"] += m.Split();
            seen["split, uneven pieces"] += m.Split() && uneven;
        }
        for (const char* key : {"maxmodulesize", "minsize", "link = yes", "force32"}) {
            seen[key] += script.text.find(key) != std::string::npos;
        }
        seen["-c"] += !script.options.empty();
        seen["32-bit links, -c, 1 MB"] +=
            model.links32 && !script.options.empty() && model.size == 0x100000;
    }
    EXPECT_GE(built, 200 / kSeedStep);
    // Gap placement leaves open what the image cannot tell (whether a compressed module
    // was compressed by the build, which encoder window a short one met, the lost end of
    // a stream cut off before its code tables): 95 in 100 come back (the sanitizer
    // build's third of the seeds: 15 in 16).
    EXPECT_LE(seen["not rebuilt exactly"] * (kSeedStep == 1 ? 20 : 16), seen["gap placement"]);
    for (const auto& [kind, least] : kLeast) {
        EXPECT_GE(seen[kind], least / kSeedStep) << kind;
    }
}

}  // namespace
}  // namespace fwforge::inspect
