#include "plan/suggestions.h"

#include <algorithm>

#include "format/block_header.h"
#include "format/module_header.h"
#include "platform/text_format.h"

namespace fwforge::plan {
namespace {

// Kinds of change, smallest first: a module's own options, then the room of a reserved
// range, then where a module goes, then the size of the image.
enum Rank { kOwnOption = 0, kCompress = 1, kRange = 2, kMove = 3, kImage = 4 };

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

std::uint64_t FileSize(platform::FileSystem& files, const std::string& name) {
    auto file = files.Open(name);
    if (!file) return 0;
    return file->Size().value_or(0);
}

std::string Hex8(std::uint64_t value) {
    return StrFormat("%08x", static_cast<unsigned>(value));
}

class Candidates {
  public:
    Candidates(const Plan& plan, platform::FileSystem& files, const std::string& text,
               const BuildState& state, const SectionRefs& refs)
        : shortfall_(*plan.shortfall),
          files_(files),
          sections_(ReadSections(text)),
          d_(state.description),
          state_(state),
          refs_(refs),
          whole_(plan.build.fatal == "NON-SPLITTABLE module can not be placed" ||
                 plan.build.fatal == "Out of ROM space!") {}

    std::vector<Suggestion> Make() {
        if (shortfall_.region == "main BIOS") {
            LetSplit();
            CompressMain();
            ShrinkRomHoles();
            MoveToEbb();
            NextSizeUp();
        } else if (shortfall_.region == "Extended Boot Block") {
            CompressEbb();
            GrowEbb();
            MoveOutOf("ebb");
        } else if (shortfall_.region == "maxmodulesize") {
            RaiseMaxSize();
        } else {
            GrowBlock();
            MoveOutOf("block");
        }
        std::stable_sort(out_.begin(), out_.end(), [](const Suggestion& a, const Suggestion& b) {
            return a.rank != b.rank ? a.rank < b.rank : a.amount < b.amount;
        });
        return std::move(out_);
    }

  private:
    // The Nth section of `kind`; null when the script has fewer.
    const ScriptSection* Section(const std::string& kind, int index) const {
        int seen = 0;
        for (const ScriptSection& s : sections_) {
            if (s.kind == kind && seen++ == index) return &s;
        }
        return nullptr;
    }

    void Add(Rank rank, std::uint64_t amount, std::string change, std::string cost,
             const std::string& kind, int index, const std::string& key,
             std::optional<std::string> new_value) {
        const ScriptSection* s = Section(kind, index);
        if (!s) return;
        out_.push_back({std::move(change), std::move(cost),
                        ScriptEdit{kind, index, key, s->Value(key), std::move(new_value)},
                        rank, amount});
    }

    // The named module, when the build stopped because no gap held it whole.
    void LetSplit() {
        const RoomRequest& q = state_.layout.LastRequest;
        if (d_.RomHoleCount == 0 || q.module >= d_.ModuleCount) return;
        const ModuleEntry& m = d_.ModuleTable[q.module];
        if (!m.Contiguous || m.StartAddress != kNoStartAddress || refs_.table[q.module] < 0) {
            return;
        }
        if (shortfall_.total_free < shortfall_.needed) return;
        Add(kOwnOption, 0, "let " + m.FileName + " be split",
            m.FileName + " is stored in pieces across the gaps", "module",
            refs_.table[q.module], "contiguous", "no");
    }

    // Modules stored as they are, largest first, that could save the shortfall.
    void CompressMain() {
        std::vector<std::pair<std::uint64_t, std::uint32_t>> found;
        for (std::uint32_t i = 0; i < d_.ModuleCount && i < d_.ModuleTable.size(); ++i) {
            const ModuleEntry& m = d_.ModuleTable[i];
            const int section = refs_.table[i];
            if (section < 0 || !m.RomRegion.empty()) continue;
            const ScriptSection* s = Section("module", section);
            if (!s || s->Value("compressed") != "no" || s->Value("nowcompressed") == "yes") continue;
            const std::uint64_t size = FileSize(files_, m.FileName);
            if (size > shortfall_.bytes) found.push_back({size, i});
        }
        std::sort(found.rbegin(), found.rend());
        for (std::size_t k = 0; k < found.size() && k < 2; ++k) {
            const ModuleEntry& m = d_.ModuleTable[found[k].second];
            Add(kCompress, found[k].first, "compress " + m.FileName + " where that makes it smaller",
                StrFormat("%s (%llx bytes) is unpacked at boot", m.FileName.c_str(),
                          static_cast<unsigned long long>(found[k].first)),
                "module", refs_.table[found[k].second], "compressed", "minsize");
        }
    }

    void CompressEbb() {
        for (std::size_t i = 0; i < d_.EbbModuleList.size() && i < refs_.ebb.size(); ++i) {
            const ScriptSection* s = Section("module", refs_.ebb[i]);
            if (!s || s->Value("compressed") != "no" || s->Value("nowcompressed") == "yes") continue;
            const std::string& file = d_.EbbModuleList[i].FileName;
            const std::uint64_t size = FileSize(files_, file);
            if (size <= shortfall_.bytes) continue;
            Add(kCompress, size, "compress " + file,
                StrFormat("%s (%llx bytes) is unpacked at boot", file.c_str(),
                          static_cast<unsigned long long>(size)),
                "module", refs_.ebb[i], "compressed", std::nullopt);
        }
    }

    // A ROM hole or a non-critical block loses bytes at its top, where the gap above it
    // gains them; a hole keeps its file, a block its header and its modules' rooms.
    void ShrinkRomHoles() {
        if (d_.RomHoleCount == 0) return;
        std::vector<Suggestion> found;
        int holes = -1, blocks = -1;
        for (std::uint32_t r = 0; r < d_.RomHoleCount && r < d_.RomHoleTable.size(); ++r) {
            const RomHoleEntry& hole = d_.RomHoleTable[r];
            if (hole.OwnerModule != kNoIndex) continue;
            const bool block = !hole.Name.empty();
            const int index = block ? ++blocks : ++holes;
            const std::uint64_t end = std::uint64_t{hole.StartAddress} + hole.Size;
            // The gap that begins where the range ends gains what the range gives up.
            std::uint64_t above = 0;
            const std::vector<GapEntry>& built = state_.layout.GapsAsBuilt;
            for (std::size_t g = 0; g < built.size() && g < state_.layout.gaps.GapTable.size(); ++g) {
                if (built[g].Start == end) above = state_.layout.gaps.GapTable[g].Size;
            }
            // A module that must stay whole needs it all in one gap; split, in any.
            const std::uint64_t want = RoundUp(
                whole_ && shortfall_.needed > above ? shortfall_.needed - above : shortfall_.bytes,
                16);
            std::uint64_t keep = hole.FileName.empty() ? 16 : FileSize(files_, hole.FileName);
            if (block) {
                keep = block_header::kSize;
                for (std::uint32_t i = 0; i < d_.ModuleCount && i < d_.ModuleTable.size(); ++i) {
                    if (d_.ModuleTable[i].RomRegion == hole.Name) keep += d_.ModuleTable[i].PlacedSize;
                }
            }
            if (hole.Size < want + keep || want == 0) continue;
            const char* kind = block ? "noncriticalrom" : "romhole";
            const ScriptSection* s = Section(kind, index);
            if (!s || !s->Value("size")) continue;
            const std::string name = block ? "block " + s->Value("name").value_or("")
                                           : StrFormat("ROM hole %d", index);
            Suggestion g{StrFormat("shrink %s by %llx bytes", name.c_str(),
                                   static_cast<unsigned long long>(want)),
                         StrFormat("%s keeps %llx of its %x bytes", name.c_str(),
                                   static_cast<unsigned long long>(hole.Size - want), hole.Size),
                         ScriptEdit{kind, index, "size", s->Value("size"), Hex8(hole.Size - want)},
                         kRange, want};
            found.push_back(std::move(g));
        }
        std::stable_sort(found.begin(), found.end(),
                         [](const Suggestion& a, const Suggestion& b) { return a.amount < b.amount; });
        for (std::size_t k = 0; k < found.size() && k < 2; ++k) out_.push_back(found[k]);
    }

    // The smallest module that covers the shortfall and that the Extended Boot Block holds.
    void MoveToEbb() {
        if (d_.Bios.MaxEbbSize == 0 || d_.EbbModuleList.size() >= kMaxEbbModules) return;
        std::uint64_t used = block_header::kSize;
        for (const EbbModuleRecord& r : d_.EbbModuleList) {
            used = std::max<std::uint64_t>(used, std::uint64_t{r.EbbOffset} + module_header::kSize +
                                                     r.Header.data_size);
        }
        const std::uint64_t free = d_.Bios.MaxEbbSize > used ? d_.Bios.MaxEbbSize - used : 0;
        std::optional<std::uint32_t> best;
        for (std::uint32_t i = 0; i < d_.ModuleCount && i < d_.ModuleTable.size(); ++i) {
            const ModuleEntry& m = d_.ModuleTable[i];
            if (refs_.table[i] < 0 || !m.RomRegion.empty() || m.StartAddress != kNoStartAddress ||
                m.Header.id == kAddonRomModuleId || m.Alignment != 0 || m.PlacedSize == 0 ||
                m.PlacedSize < shortfall_.bytes || m.PlacedSize > free) {
                continue;
            }
            if (!best || m.PlacedSize < d_.ModuleTable[*best].PlacedSize) best = i;
        }
        if (!best) return;
        const ModuleEntry& m = d_.ModuleTable[*best];
        Add(kMove, m.PlacedSize, "move " + m.FileName + " to the Extended Boot Block",
            StrFormat("it takes about %x of the block's %llx free bytes", m.PlacedSize,
                      static_cast<unsigned long long>(free)),
            "module", refs_.table[*best], "romregion", "ebb");
    }

    void NextSizeUp() {
        const std::uint64_t size = d_.Bios.BiosSize;
        if (size == 0 || size * 2 > 0x80000000u) return;
        Add(kImage, size, StrFormat("give the image the next size up, %llx bytes",
                                    static_cast<unsigned long long>(size * 2)),
            StrFormat("the image grows from %llx to %llx bytes",
                      static_cast<unsigned long long>(size),
                      static_cast<unsigned long long>(size * 2)),
            "bios", 0, "size", Hex8(size * 2));
    }

    void GrowEbb() {
        const std::uint64_t grow = RoundUp(shortfall_.bytes, 16);
        const std::uint64_t now = d_.Bios.MaxEbbSize;
        if (grow == 0 || now + grow > 0xFFFFFFFFu) return;
        Add(kRange, grow, StrFormat("grow the Extended Boot Block by %llx bytes",
                                    static_cast<unsigned long long>(grow)),
            StrFormat("the main BIOS loses %llx bytes", static_cast<unsigned long long>(grow)),
            "bios", 0, "maxebbsize", Hex8(now + grow));
    }

    // The module's own limit, to what it needs, or none.
    void RaiseMaxSize() {
        const int section = shortfall_.section;
        if (section < 0) return;
        const std::uint64_t size = RoundUp(shortfall_.needed, 4);
        if (size > 0xFFFFFFFFu) return;
        Add(kOwnOption, size - shortfall_.largest_free,
            StrFormat("raise the maxmodulesize of %s to %llx", shortfall_.module.c_str(),
                      static_cast<unsigned long long>(size)),
            StrFormat("%s takes %llx bytes more", shortfall_.module.c_str(),
                      static_cast<unsigned long long>(size - shortfall_.largest_free)),
            "module", section, "maxmodulesize", Hex8(size));
        Add(kOwnOption, size, "drop the maxmodulesize of " + shortfall_.module,
            shortfall_.module + " takes the room of its data, whatever that is", "module", section,
            "maxmodulesize", std::nullopt);
    }

    void GrowBlock() {
        const RoomRequest& q = state_.layout.LastRequest;
        if (q.module >= d_.ModuleTable.size()) return;
        const std::string& name = d_.ModuleTable[q.module].RomRegion;
        int index = -1;
        for (std::uint32_t r = 0; r < d_.RomHoleCount && r < d_.RomHoleTable.size(); ++r) {
            const RomHoleEntry& block = d_.RomHoleTable[r];
            if (block.Name.empty()) continue;
            ++index;
            if (block.Name != name) continue;
            const ScriptSection* s = Section("noncriticalrom", index);
            if (!s || !s->Value("size")) return;
            const std::uint64_t grow = RoundUp(shortfall_.bytes, 16);
            const std::optional<std::uint64_t> old = ParseHex(*s->Value("size"));
            if (!old) return;
            Add(kRange, grow, StrFormat("grow block %s by %llx bytes", s->Value("name").value_or("").c_str(),
                                        static_cast<unsigned long long>(grow)),
                StrFormat("the main BIOS loses %llx bytes", static_cast<unsigned long long>(grow)),
                "noncriticalrom", index, "size", Hex8(*old + grow));
            return;
        }
    }

    // The stopped module out of its Extended Boot Block or block, into the main BIOS.
    void MoveOutOf(const char* what) {
        const int section = shortfall_.section;
        if (section < 0) return;
        Add(kMove, shortfall_.needed,
            "move " + shortfall_.module + " out of the " +
                (std::string(what) == "ebb" ? "Extended Boot Block" : shortfall_.region),
            shortfall_.module + " is placed in the main BIOS", "module", section, "romregion",
            std::nullopt);
    }

    static std::optional<std::uint64_t> ParseHex(const std::string& text) {
        if (text.empty() || text.size() > 8) return std::nullopt;
        std::uint64_t v = 0;
        for (char c : text) {
            const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
            if (digit < 0) return std::nullopt;
            v = v * 16 + static_cast<unsigned>(digit);
        }
        return v;
    }

    const Shortfall& shortfall_;
    platform::FileSystem& files_;
    std::vector<ScriptSection> sections_;
    const BuildDescription& d_;
    const BuildState& state_;
    const SectionRefs& refs_;
    bool whole_;
    std::vector<Suggestion> out_;
};

}  // namespace

void FindSuggestions(Plan& plan, platform::FileSystem& files, const PlanRequest& request,
                     const std::string& script_text, const BuildState& state,
                     const SectionRefs& refs) {
    std::vector<Suggestion> candidates = Candidates(plan, files, script_text, state, refs).Make();
    // The larger image is the change most likely to work: it is always among the trials,
    // whatever comes before it.
    std::vector<std::size_t> trials;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (static_cast<int>(trials.size()) + 1 >= request.most_trials) break;
        if (candidates[i].rank != kImage) trials.push_back(i);
    }
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (candidates[i].rank == kImage && static_cast<int>(trials.size()) < request.most_trials) {
            trials.push_back(i);
        }
    }
    std::sort(trials.begin(), trials.end());
    for (const std::size_t i : trials) {
        const std::optional<std::string> edited = ApplyEdit(script_text, candidates[i].edit);
        if (!edited) continue;
        ++plan.trials;
        if (BuildWith(files, request, &*edited, nullptr).Completed()) {
            plan.suggestions.push_back(candidates[i]);
        }
    }
}

}  // namespace fwforge::plan
