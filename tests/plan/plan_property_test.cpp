// Random build scripts of every kind, planned in memory and built by fwforge: where
// fwforge completes, every module of the plan carries the fields `list --json` gives the
// image fwforge wrote, with the same values; where it stops, the plan stops with the same
// message. Scripts made not to fit (a module grown, the image halved) name the module and
// the shortfall, and every change the plan suggests makes fwforge complete. --budget
// exits 4 exactly when a region is fuller than the limit.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <map>
#include <sstream>

#include "image/image_reader.h"
#include "plan/plan.h"
#include "plan/plan_cli.h"
#include "plan/plan_report.h"
#include "platform/text_format.h"
#include "present/report.h"
#include "support/random_script.h"
#include "support/sanitizer.h"

namespace fwforge::plan {
namespace {

using namespace fwforge::testing;
using Json = nlohmann::json;

// A sanitizer build runs each case many times slower; it takes every third seed.
constexpr std::uint32_t kSeedStep = kSanitized ? 3 : 1;

std::string FatalOf(const std::string& console) {
    const std::size_t at = console.rfind("FATAL ERROR: ");
    if (at == std::string::npos) return "";
    const std::size_t end = console.find('\n', at);
    return console.substr(at + 13, end == std::string::npos ? std::string::npos : end - at - 13);
}

std::vector<std::string> Args(const TempDir& dir, const std::string& script,
                              const RandomScript& random) {
    std::vector<std::string> args = {dir.path().string(), script};
    args.insert(args.end(), random.options.begin(), random.options.end());
    return args;
}

Plan PlanOf(const TempDir& dir, const RandomScript& script) {
    platform::MemoryFileSystem files;
    PutFolder(files, dir);
    PlanRequest request;
    request.script = script.path;
    request.output_path = dir.path().string();
    request.compatibility = !script.options.empty();
    return MakePlan(files, request);
}

// The modules of a `list --json` or plan document by the number `list` gives them.
std::map<std::string, Json> ByNumber(const Json& document) {
    std::map<std::string, Json> out;
    for (const Json& m : document["modules"]) out[m["number"].get<std::string>()] = m;
    return out;
}

TEST(PlanProperty, EveryModuleOfThePlanIsWhereFwforgePutsIt) {
    int completed = 0, gap = 0;
    for (std::uint32_t seed = 0; seed < 150; seed += kSeedStep) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        const Plan plan = PlanOf(dir, script);
        std::string console;
        const int status = RunFwforge(dir.path(), Args(dir, script.path, script), console);
        if (status != 0) {
            EXPECT_FALSE(plan.Completed());
            EXPECT_EQ(plan.build.fatal, FatalOf(console)) << console;
            continue;
        }
        ASSERT_TRUE(plan.Completed()) << plan.build.fatal << "\n" << script.text;
        ++completed;
        gap += plan.gap_placement;
        const std::vector<std::uint8_t> image = ReadBytes(script.rom);
        const inspect::ImageModel model = inspect::ReadImage(image, {});
        const auto listed = ByNumber(Json::parse(inspect::ListJson(image, model)));
        const auto planned = ByNumber(Json::parse(PlanJson(plan, std::nullopt, 0)));
        ASSERT_EQ(listed.size(), planned.size());
        for (const auto& [number, m] : listed) {
            SCOPED_TRACE("module " + number);
            ASSERT_TRUE(planned.count(number));
            for (const auto& [key, value] : m.items()) {
                EXPECT_EQ(planned.at(number).value(key, Json()), value) << key;
            }
        }
        // What the regions say adds up.
        for (const Region& r : plan.regions) {
            if (r.takes_modules) {
                EXPECT_EQ(r.used + r.free, r.length) << r.name;
            }
        }
    }
    EXPECT_GE(completed, static_cast<int>(120 / kSeedStep));
    EXPECT_GE(gap, static_cast<int>(40 / kSeedStep));
}

// The script with `key` of [bios] set to `value`.
std::string WithBiosKey(const std::string& text, const std::string& key, const std::string& value) {
    ScriptEdit edit{"bios", 0, key, std::nullopt, value};
    for (const ScriptSection& s : ReadSections(text)) {
        if (s.kind == "bios") {
            edit.old_value = s.Value(key);
            break;
        }
    }
    return ApplyEdit(text, edit).value_or(text);
}

TEST(PlanProperty, AScriptThatDoesNotFitGetsChangesThatMakeItFit) {
    int named = 0, suggested = 0, failing = 0;
    for (std::uint32_t seed = 0; seed < 48; seed += kSeedStep) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        TempDir dir;
        RandomScript script = MakeRandomScript(seed, dir);
        Random r(seed + 7);
        if (seed % 3 != 0 || script.gap) {
            // A module grows by incompressible bytes, a little more than its region (or
            // its maxmodulesize) has room for.
            const Plan before = PlanOf(dir, script);
            ASSERT_TRUE(before.Completed()) << before.build.fatal;
            std::vector<const PlannedModule*> files;
            for (const PlannedModule& p : before.modules) {
                if (p.section >= 0 && !p.module.Linked() && p.module.header.id != 0x80) {
                    files.push_back(&p);
                }
            }
            if (files.empty()) continue;
            const PlannedModule& grown = *files[r.Below(static_cast<std::uint32_t>(files.size()))];
            const std::vector<std::uint8_t> bytes = ReadBytes(script.path);
            const std::vector<ScriptSection> sections =
                ReadSections(std::string(bytes.begin(), bytes.end()));
            std::uint32_t free = 0;
            for (const Region& region : before.regions) {
                const bool in = grown.module.area == inspect::ModuleArea::Main
                                    ? region.name == "main BIOS"
                                : grown.module.area == inspect::ModuleArea::Ebb
                                    ? region.name == "Extended Boot Block"
                                    : region.offset == before.model.ncbs[grown.module.block].offset;
                if (in) free = region.free;
            }
            int k = 0;
            for (const ScriptSection& section : sections) {
                if (section.kind != "module" || k++ != grown.section) continue;
                if (const auto limit = section.Value("maxmodulesize")) {
                    free = static_cast<std::uint32_t>(std::stoul(*limit, nullptr, 16)) -
                           grown.module.header.data_size;
                }
            }
            // The build reads names in lower case; the script's module has them as written.
            std::string path = grown.file;
            for (const ScriptModule& m : script.modules) {
                std::string lower = m.file;
                for (char& c : lower) c = static_cast<char>(std::tolower(c));
                if (lower == grown.file) path = m.file;
            }
            WriteBytes(path, RandomBytes(grown.module.header.data_size + free + 4 +
                                                   r.Below(0x400),
                                               r.Next()));
        } else {
            // The image is halved (its fixed areas stay).
            const std::uint32_t half = script.bios_size / 2;
            if (half <= script.boot_block + script.ebb + script.nvram) continue;
            WriteText(script.path,
                      WithBiosKey(script.text, "size", StrFormat("%08x", half)));
        }
        const Plan plan = PlanOf(dir, script);
        std::string console;
        if (RunFwforge(dir.path(), Args(dir, script.path, script), console) == 0) {
            EXPECT_TRUE(plan.Completed());
            continue;
        }
        ++failing;
        ASSERT_FALSE(plan.Completed());
        EXPECT_EQ(plan.build.fatal, FatalOf(console));
        if (!plan.shortfall) continue;
        ++named;
        EXPECT_FALSE(plan.shortfall->module.empty() &&
                     plan.build.fatal != "Main BIOS header can not be placed");
        EXPECT_GT(plan.shortfall->bytes, 0u);
        suggested += !plan.suggestions.empty();
        const std::vector<std::uint8_t> bytes = ReadBytes(script.path);
        const std::string text(bytes.begin(), bytes.end());
        for (const Suggestion& s : plan.suggestions) {
            SCOPED_TRACE(s.change);
            const std::optional<std::string> edited = ApplyEdit(text, s.edit);
            ASSERT_TRUE(edited);
            const std::string path = dir.File("edited.scr");
            WriteText(path, *edited);
            EXPECT_EQ(RunFwforge(dir.path(), Args(dir, path, script), console), 0) << console;
        }
    }
    EXPECT_GE(failing, static_cast<int>(20 / kSeedStep));
    EXPECT_GE(named, failing * 3 / 4);
    EXPECT_GE(suggested, named * 3 / 4);
}

TEST(PlanProperty, BudgetExitsFourExactlyWhenARegionIsFuller) {
    for (std::uint32_t seed = 0; seed < 12; seed += kSeedStep) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        PlanCommand command;
        command.script = script.path;
        command.output_path = dir.path().string();
        command.compatibility = !script.options.empty();
        command.json = true;
        std::ostringstream out;
        ASSERT_EQ(RunPlan(command, out), inspect::ExitStatus::Ok) << out.str();
        double fullest = 0;
        const Json document = Json::parse(out.str());
        for (const Json& region : document["regions"]) {
            if (!region["takes_modules"].get<bool>()) continue;
            fullest = std::max(fullest, 100.0 * region["used"].get<double>() /
                                            region["length"].get<double>());
        }
        for (const double limit : {0.0, std::floor(fullest), fullest, 100.0}) {
            command.budget = limit;
            std::ostringstream ignored;
            EXPECT_EQ(RunPlan(command, ignored), fullest > limit ? inspect::ExitStatus::OverBudget
                                                                 : inspect::ExitStatus::Ok)
                << limit << " " << fullest;
        }
    }
}

}  // namespace
}  // namespace fwforge::plan
