#include "plan/plan.h"

#include <algorithm>
#include <map>

#include "context/build_context.h"
#include "format/block_header.h"
#include "format/module_header.h"
#include "image/image_reader.h"
#include "layout/module_chain.h"
#include "plan/overlay_files.h"
#include "plan/plan_build.h"
#include "plan/suggestions.h"
#include "platform/text_format.h"

namespace fwforge::plan {
namespace {

constexpr std::uint32_t kHeader = module_header::kSize;

std::string Lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// The largest module's data that a free range of `free` bytes holds whole beside its
// header: a multiple of 4, as stored sizes are.
std::uint32_t Headroom(std::uint64_t free) {
    return free < kHeader ? 0 : static_cast<std::uint32_t>((free - kHeader) & ~std::uint64_t{3});
}

std::uint32_t MainLength(const BiosSettings& bios) {
    return bios.BiosSize - bios.BootBlockSize - bios.MaxEbbSize - bios.NvramSize;
}

// Bytes of the Extended Boot Block in use: its header and every module placed so far.
std::uint64_t EbbUsed(const BuildDescription& d) {
    std::uint64_t used = block_header::kSize;
    for (const EbbModuleRecord& r : d.EbbModuleList) {
        if (r.Header.data_size == 0 && r.EbbOffset == 0) break;  // not placed
        used = std::max<std::uint64_t>(used, std::uint64_t{r.EbbOffset} + kHeader +
                                                 r.Header.data_size);
    }
    return used;
}

// Free bytes of the main BIOS and the largest free range, as the layout engine holds them.
std::pair<std::uint64_t, std::uint64_t> MainFree(const BuildState& st) {
    if (st.description.RomHoleCount == 0) return {st.cursor, st.cursor};
    std::uint64_t total = 0, largest = 0;
    for (std::uint32_t i = 0; i < st.layout.gaps.GapCount && i < st.layout.gaps.GapTable.size();
         ++i) {
        total += st.layout.gaps.GapTable[i].Size;
        largest = std::max<std::uint64_t>(largest, st.layout.gaps.GapTable[i].Size);
    }
    return {total, largest};
}

bool PlacedInImage(const BuildDescription& d, const ModuleEntry& m) {
    if (m.RomRegion.empty()) return true;
    for (std::uint32_t r = 0; r < d.RomHoleCount && r < d.RomHoleTable.size(); ++r) {
        if (d.RomHoleTable[r].Name == m.RomRegion) return true;
    }
    return false;
}

void DescribeRegions(Plan& plan, const BuildState& st) {
    const BuildDescription& d = st.description;
    const BiosSettings& bios = d.Bios;
    std::uint32_t top = bios.BiosSize;
    auto fixed = [&](const char* name, std::uint32_t length) {
        top -= length;
        plan.regions.push_back({name, top, length, false, length, 0, 0});
    };
    fixed("boot block", bios.BootBlockSize);
    if (bios.MaxEbbSize != 0) {
        top -= bios.MaxEbbSize;
        const auto used = static_cast<std::uint32_t>(std::min<std::uint64_t>(EbbUsed(d), bios.MaxEbbSize));
        const std::uint32_t free = bios.MaxEbbSize - used;
        plan.regions.push_back(
            {"Extended Boot Block", top, bios.MaxEbbSize, true, used, free, Headroom(free)});
    }
    fixed("NVRAM area", bios.NvramSize);
    const auto [free, largest] = MainFree(st);
    const std::uint32_t length = MainLength(bios);
    const auto free32 = static_cast<std::uint32_t>(std::min<std::uint64_t>(free, length));
    plan.regions.push_back({"main BIOS", 0, length, true, length - free32, free32, Headroom(largest)});
    // Each block keeps in its record the room that its modules left: its end is where it
    // was reserved, its header (in the image) gives its start and length.
    for (std::uint32_t r = 0; r < d.RomHoleCount && r < d.RomHoleTable.size(); ++r) {
        const RomHoleEntry& block = d.RomHoleTable[r];
        if (block.Name.empty()) continue;
        for (const inspect::Block& b : plan.model.ncbs) {
            if (std::uint64_t{b.offset} + b.length != std::uint64_t{block.StartAddress} + block.Size) {
                continue;
            }
            const std::uint32_t left = std::min(block.Size, b.length);
            plan.regions.push_back({"block " + Lower(block.Name), b.offset, b.length, true,
                                    b.length - left, left, Headroom(left)});
            break;
        }
    }
}

std::string PlacementOf(const Plan& plan, const BuildDescription& d, const ModuleEntry& e,
                        const inspect::Module& m) {
    if (m.Linked()) return "linked behind its add-on ROM";
    std::string where;
    if (m.area == inspect::ModuleArea::Ncb) where = " in block " + Lower(e.RomRegion);
    if (e.StartAddress != kNoStartAddress) return "fixed address" + where;
    if (m.Split()) {
        std::string out = StrFormat("split into %zu pieces at", m.pieces.size());
        for (std::size_t i = 0; i < m.pieces.size(); ++i) {
            out += StrFormat("%s %x", i ? "," : "", plan.model.Address(m.pieces[i].offset));
        }
        return out;
    }
    if (d.RomHoleCount != 0 && e.Contiguous && m.area == inspect::ModuleArea::Main) {
        return "must not be split";
    }
    return "whole" + where;
}

void DescribeModules(Plan& plan, const BuildState& st, const SectionRefs& refs) {
    const BuildDescription& d = st.description;
    // The Extended Boot Block is built first, in list order.
    const auto ebb = plan.model.ModulesIn(inspect::ModuleArea::Ebb);
    for (std::size_t i = 0; i < ebb.size(); ++i) {
        PlannedModule p{*ebb[i], "", -1, ebb[i]->header.data_size + kHeader,
                        "whole in the Extended Boot Block"};
        if (i < d.EbbModuleList.size() &&
            d.EbbModuleList[i].Header.id == ebb[i]->header.id) {
            p.file = d.EbbModuleList[i].FileName;
            p.section = i < refs.ebb.size() ? refs.ebb[i] : -1;
        }
        plan.modules.push_back(std::move(p));
    }
    // Then the main BIOS and the blocks: each chain holds its modules in the order they
    // were inserted.
    std::vector<std::uint32_t> order;
    const std::uint32_t count = std::min<std::uint32_t>(d.ModuleCount + 1, kModuleTableSize);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (PlacedInImage(d, d.ModuleTable[i])) order.push_back(i);
    }
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return d.ModuleTable[a].InsertionIndex < d.ModuleTable[b].InsertionIndex;
    });
    std::map<std::string, std::vector<std::uint32_t>> by_region;
    for (std::uint32_t i : order) by_region[d.ModuleTable[i].RomRegion].push_back(i);
    std::map<int, std::string> block_names;
    for (std::uint32_t r = 0; r < d.RomHoleCount && r < d.RomHoleTable.size(); ++r) {
        const RomHoleEntry& block = d.RomHoleTable[r];
        if (block.Name.empty()) continue;
        for (std::size_t b = 0; b < plan.model.ncbs.size(); ++b) {
            const inspect::Block& found = plan.model.ncbs[b];
            if (std::uint64_t{found.offset} + found.length ==
                std::uint64_t{block.StartAddress} + block.Size) {
                block_names[static_cast<int>(b)] = block.Name;
            }
        }
    }
    std::map<std::string, std::size_t> next;
    std::vector<PlannedModule> main, blocks;
    for (const inspect::Module& m : plan.model.modules) {
        if (m.area == inspect::ModuleArea::Ebb) continue;
        const std::string region = m.area == inspect::ModuleArea::Main ? "" : block_names[m.block];
        PlannedModule p{m, "", -1, 0, ""};
        const std::vector<std::uint32_t>& queue = by_region[region];
        std::size_t& at = next[region];
        if (at < queue.size() && d.ModuleTable[queue[at]].Header.id == m.header.id) {
            const std::uint32_t i = queue[at++];
            const ModuleEntry& e = d.ModuleTable[i];
            p.file = e.FileName;
            p.section = i < refs.table.size() ? refs.table[i] : -1;
            p.room = m.Linked() ? 0 : e.PlacedSize;
            p.placement = PlacementOf(plan, d, e, m);
        }
        (m.area == inspect::ModuleArea::Main ? main : blocks).push_back(std::move(p));
    }
    for (auto* list : {&main, &blocks}) {
        for (PlannedModule& p : *list) plan.modules.push_back(std::move(p));
    }
}

void DescribeGaps(Plan& plan, const BuildState& st) {
    const std::vector<GapEntry>& built = st.layout.GapsAsBuilt;
    const std::vector<GapEntry>& now = st.layout.gaps.GapTable;
    for (std::size_t g = 0; g < built.size(); ++g) {
        GapUse use{built[g].Start, built[g].Size, g < now.size() ? now[g].Size : 0, {}};
        const std::uint32_t end = built[g].End;
        auto inside = [&](std::uint32_t offset) {
            return offset >= built[g].Start && offset < end;
        };
        if (plan.model.main && inside(plan.model.main->BlockStart())) {
            use.taken_by.push_back("main BIOS header");
        }
        for (const PlannedModule& p : plan.modules) {
            const inspect::Module& m = p.module;
            if (m.area != inspect::ModuleArea::Main) continue;
            std::size_t pieces = 0;
            for (const inspect::Piece& piece : m.pieces) pieces += inside(piece.offset);
            if (pieces == 0 && !(m.pieces.empty() && inside(m.header.offset))) continue;
            std::string name = p.file.empty() ? StrFormat("module id %02X", m.header.id) : p.file;
            if (m.Split()) name += StrFormat(" (%zu of %zu pieces)", pieces, m.pieces.size());
            use.taken_by.push_back(name);
        }
        plan.gaps.push_back(std::move(use));
    }
}

std::uint64_t Minus(std::uint64_t a, std::uint64_t b) {
    return a > b ? a - b : 0;
}

// The figures behind a message of want of room, from the layout engine's last request.
std::optional<Shortfall> FindShortfall(const std::string& fatal, const BuildState& st,
                                       const SectionRefs& refs) {
    const BuildDescription& d = st.description;
    const RoomRequest& q = st.layout.LastRequest;
    Shortfall s;
    if (fatal == "Main BIOS header can not be placed") {
        const auto [free, largest] = MainFree(st);
        s.region = "main BIOS";
        s.needed = main_header::kBlockSize;
        s.total_free = free;
        s.largest_free = largest;
        s.bytes = Minus(s.needed, largest);
        return s;
    }
    const bool main = fatal == "Out of ROM space!" ||
                      fatal == "NON-SPLITTABLE module can not be placed" ||
                      fatal == "Not enough free space in ROM file to insert module" ||
                      fatal.starts_with("No Space left for module: ");
    if (main && q.region == RoomRegion::Main && q.module < d.ModuleTable.size()) {
        const auto [free, largest] = MainFree(st);
        s.region = "main BIOS";
        s.module = d.ModuleTable[q.module].FileName;
        s.section = q.module < refs.table.size() ? refs.table[q.module] : -1;
        s.needed = q.needed;
        s.total_free = free;
        s.largest_free = largest;
        // Split, a module needs the total; whole, the largest gap.
        s.bytes = fatal.starts_with("No Space") ? std::max<std::uint64_t>(Minus(q.needed, free), 1)
                                                : Minus(q.needed, largest);
        return s;
    }
    if (fatal == "Out of EBB space!" && q.region == RoomRegion::Ebb &&
        q.module < d.EbbModuleList.size()) {
        s.region = "Extended Boot Block";
        s.module = d.EbbModuleList[q.module].FileName;
        s.section = q.module < refs.ebb.size() ? refs.ebb[q.module] : -1;
        s.needed = q.needed;
        s.total_free = s.largest_free = q.offered;
        s.bytes = Minus(q.needed, q.offered);
        return s;
    }
    if (fatal == "MaxModuleSize is too small for this module" &&
        (q.region == RoomRegion::ModuleLimit || q.region == RoomRegion::EbbModuleLimit)) {
        const bool ebb = q.region == RoomRegion::EbbModuleLimit;
        if (ebb ? q.module >= d.EbbModuleList.size() : q.module >= d.ModuleTable.size()) {
            return std::nullopt;
        }
        s.region = "maxmodulesize";
        s.module = ebb ? d.EbbModuleList[q.module].FileName : d.ModuleTable[q.module].FileName;
        const std::vector<int>& sections = ebb ? refs.ebb : refs.table;
        s.section = q.module < sections.size() ? sections[q.module] : -1;
        s.needed = q.needed;
        s.total_free = s.largest_free = q.offered;
        s.bytes = Minus(q.needed, q.offered);
        return s;
    }
    if (fatal == "Non-critical block too small for module." && q.region == RoomRegion::Block &&
        q.module < d.ModuleTable.size()) {
        const ModuleEntry& m = d.ModuleTable[q.module];
        s.region = "block " + Lower(m.RomRegion);
        s.module = m.FileName;
        s.section = q.module < refs.table.size() ? refs.table[q.module] : -1;
        s.needed = q.needed;
        s.total_free = s.largest_free = q.offered;
        s.bytes = Minus(q.needed, q.offered);
        return s;
    }
    return std::nullopt;
}

}  // namespace

BuildResult BuildWith(platform::FileSystem& files, const PlanRequest& request,
                      const std::string* script_text, BuildState* state) {
    OverlayFileSystem overlay(files, request.on_disk);
    if (script_text) overlay.written().Put(request.script, *script_text);
    BuildRequest build;
    build.script = request.script;
    build.output_path = request.output_path;
    build.compatibility = request.compatibility;
    build.compression_threads = request.compression_threads;
    build.reuse_compression = true;
    if (state) {
        build.observe = [&](const BuildContext& ctx) {
            state->description = ctx.description;
            state->layout = ctx.layout;
            state->cursor = ctx.image.PlacementCursor;
        };
    }
    BuildResult result = RunBuild(overlay, build);
    if (state && result.Completed()) {
        if (const std::vector<std::uint8_t>* rom = overlay.written().Find(result.rom_file)) {
            state->image = *rom;
        }
    }
    return result;
}

SectionRefs MapSections(const std::string& text, const BuildDescription& d) {
    SectionRefs refs;
    // [module] sections with a file outside the Extended Boot Block, in script order;
    // the table keeps them in that order but for linked add-on ROMs, which move.
    std::vector<std::pair<int, std::string>> with_file;
    int k = 0;
    for (const ScriptSection& s : ReadSections(text)) {
        if (s.kind != "module") continue;
        if (s.Value("romregion") == "ebb") {
            refs.ebb.push_back(k);
        } else if (const auto file = s.Value("file")) {
            with_file.push_back({k, *file});
        }
        ++k;
    }
    refs.table.assign(kModuleTableSize, -1);
    std::vector<bool> used(with_file.size());
    for (std::uint32_t i = 0; i < d.ModuleCount && i < d.ModuleTable.size(); ++i) {
        const std::string& name = d.ModuleTable[i].FileName;
        if (name.empty()) continue;
        for (std::size_t j = 0; j < with_file.size(); ++j) {
            if (used[j] || with_file[j].second != Lower(name)) continue;
            used[j] = true;
            refs.table[i] = with_file[j].first;
            break;
        }
    }
    return refs;
}

Plan MakePlan(platform::FileSystem& files, const PlanRequest& request) {
    Plan plan;
    plan.script = request.script;
    const platform::WholeFile script = platform::ReadWholeFile(files, request.script);
    const std::string text(script.bytes.begin(), script.bytes.end());
    BuildState st;
    plan.build = BuildWith(files, request, nullptr, &st);
    plan.rom_file = plan.build.rom_file;
    plan.gap_placement = st.description.RomHoleCount != 0;
    const SectionRefs refs = MapSections(text, st.description);
    if (plan.Completed()) {
        plan.image = std::move(st.image);
        plan.model = inspect::ReadImage(plan.image, {});
        DescribeRegions(plan, st);
        DescribeModules(plan, st, refs);
        DescribeGaps(plan, st);
        return plan;
    }
    plan.shortfall = FindShortfall(plan.build.fatal, st, refs);
    if (plan.shortfall && request.suggest && script.failure == platform::WholeFile::Failure::None) {
        FindSuggestions(plan, files, request, text, st, refs);
    }
    return plan;
}

}  // namespace fwforge::plan
