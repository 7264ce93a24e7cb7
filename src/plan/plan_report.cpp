#include "plan/plan_report.h"

#include "image/module_data.h"
#include "present/report.h"
#include "platform/text_format.h"

namespace fwforge::plan {
namespace {

using Json = nlohmann::ordered_json;

std::string EditText(const ScriptEdit& e) {
    return StrFormat("[%s] %d: %s %s -> %s", e.section.c_str(), e.index, e.key.c_str(),
                     e.old_value ? e.old_value->c_str() : "(not given)",
                     e.new_value ? e.new_value->c_str() : "(removed)");
}

std::string FillText(const Region& r) {
    return r.takes_modules ? StrFormat("%.1f%%", r.Fill()) : std::string("-");
}

void FailureText(std::string& out, const Plan& plan) {
    // The encoder's out-of-memory stop is no fatal report; fwforge prints it alone.
    out += plan.build.fatal.empty() ? "\n" + plan.build.error_output + "\n"
                                    : "\nFATAL ERROR: " + plan.build.fatal + "\n";
    if (!plan.shortfall) return;
    const Shortfall& s = *plan.shortfall;
    const std::string what =
        s.module.empty() ? std::string("The main BIOS header")
                         : "Module " + s.module +
                               (s.section >= 0 ? StrFormat(" ([module] %d)", s.section) : "");
    out += StrFormat("%s needs %llx bytes in the %s; largest free range %llx, total free %llx: "
                     "%llx bytes short\n",
                     what.c_str(), static_cast<unsigned long long>(s.needed), s.region.c_str(),
                     static_cast<unsigned long long>(s.largest_free),
                     static_cast<unsigned long long>(s.total_free),
                     static_cast<unsigned long long>(s.bytes));
    if (plan.suggestions.empty()) {
        out += StrFormat("No change found that makes it fit (%d %s tried).\n", plan.trials,
                         plan.trials == 1 ? "build" : "builds");
        return;
    }
    out += StrFormat("\nChanges that make it fit, smallest first (each built: %d %s tried):\n",
                     plan.trials, plan.trials == 1 ? "build" : "builds");
    for (std::size_t i = 0; i < plan.suggestions.size(); ++i) {
        const Suggestion& g = plan.suggestions[i];
        out += StrFormat("  %zu. %s: %s\n     %s\n", i + 1, g.change.c_str(),
                         EditText(g.edit).c_str(), g.cost.c_str());
    }
}

Json OptionalText(const std::optional<std::string>& text) {
    return text ? inspect::JsonText(*text) : Json(nullptr);
}

}  // namespace

std::vector<std::string> OverBudget(const Plan& plan, double limit) {
    std::vector<std::string> out;
    for (const Region& r : plan.regions) {
        if (r.takes_modules && r.Fill() > limit) out.push_back(r.name);
    }
    return out;
}

std::string PlanText(const Plan& plan, std::optional<double> budget) {
    std::string out = "Plan of " + plan.script;
    if (!plan.Completed()) {
        FailureText(out, plan);
        return out;
    }
    const inspect::ImageModel& model = plan.model;
    out += StrFormat(": %s, %x bytes, %s placement, %s links\n", plan.rom_file.c_str(),
                     model.size, plan.gap_placement ? "gap" : "sequential",
                     model.links32 ? "32-bit" : "16-bit segment:offset");
    out += "\nRegions from the top down:\n"
           "  region               addresses      size      used      free      fill    "
           "headroom\n";
    for (const Region& r : plan.regions) {
        const std::string range =
            r.length ? StrFormat("%x-%x", model.Address(r.offset), model.Address(r.offset + r.length - 1))
                     : std::string("-");
        out += StrFormat("  %-20s %-14s %-9x %-9s %-9s %-7s %s\n", r.name.c_str(), range.c_str(),
                         r.length, r.takes_modules ? StrFormat("%x", r.used).c_str() : "-",
                         r.takes_modules ? StrFormat("%x", r.free).c_str() : "-",
                         FillText(r).c_str(),
                         r.takes_modules ? StrFormat("%x", r.headroom).c_str() : "-");
    }
    if (plan.gap_placement) {
        out += "\nGap map (gaps as laid out, bytes left after placement, what took them):\n";
        for (std::size_t g = 0; g < plan.gaps.size(); ++g) {
            const GapUse& u = plan.gaps[g];
            out += StrFormat("  gap %-3zu %x-%x (%x bytes), %x left", g, model.Address(u.offset),
                             model.Address(u.offset + (u.length ? u.length - 1 : 0)), u.length,
                             u.left);
            std::string taken;
            for (const std::string& t : u.taken_by) taken += (taken.empty() ? "" : ", ") + t;
            out += taken.empty() ? "\n" : ": " + taken + "\n";
        }
    }
    out += StrFormat("\nModules in build order (%zu):\n", plan.modules.size());
    out += "  #    file                  id  original  stored    ratio   room      header    "
           "placement\n";
    for (std::size_t i = 0; i < plan.modules.size(); ++i) {
        const PlannedModule& p = plan.modules[i];
        const inspect::ModuleSizes s = inspect::SizesOf(plan.image, p.module);
        out += StrFormat("  %-4zu %-21s %02X  %-9s %-9x %-7s %-9s %-9x %s\n", i,
                         p.file.empty() ? "-" : p.file.c_str(), p.module.header.id,
                         s.compressed ? StrFormat("%x", s.original).c_str() : "-", s.stored,
                         inspect::RatioText(s).c_str(),
                         p.room ? StrFormat("%x", p.room).c_str() : "-",
                         model.Address(p.module.header.offset), p.placement.c_str());
    }
    out += "\nfwforge builds this script";
    if (budget) {
        const std::vector<std::string> over = OverBudget(plan, *budget);
        if (over.empty()) {
            out += StrFormat("; every region is within the budget of %g%%.\n", *budget);
        } else {
            out += ", but over the budget:\n";
            for (const Region& r : plan.regions) {
                if (r.takes_modules && r.Fill() > *budget) {
                    out += StrFormat("  %s is %.1f%% full (%x of %x bytes), more than %g%%\n",
                                     r.name.c_str(), r.Fill(), r.used, r.length, *budget);
                }
            }
        }
    } else {
        out += ".\n";
    }
    return out;
}

std::string PlanJson(const Plan& plan, std::optional<double> budget, int status) {
    Json out = {{"schema_version", inspect::kJsonSchemaVersion},
                {"status", status},
                {"script", inspect::JsonText(plan.script)},
                {"completed", plan.Completed()}};
    if (!plan.Completed()) {
        out["fatal"] = inspect::JsonText(plan.build.fatal.empty() ? plan.build.error_output
                                                                  : plan.build.fatal);
        if (plan.shortfall) {
            const Shortfall& s = *plan.shortfall;
            out["shortfall"] = {{"module", inspect::JsonText(s.module)},
                                {"section", s.section},
                                {"region", s.region},
                                {"needed", s.needed},
                                {"largest_free", s.largest_free},
                                {"total_free", s.total_free},
                                {"bytes", s.bytes}};
        } else {
            out["shortfall"] = nullptr;
        }
        Json suggestions = Json::array();
        for (const Suggestion& g : plan.suggestions) {
            suggestions.push_back({{"change", inspect::JsonText(g.change)},
                                   {"cost", inspect::JsonText(g.cost)},
                                   {"edit",
                                    {{"section", g.edit.section},
                                     {"index", g.edit.index},
                                     {"key", g.edit.key},
                                     {"old", OptionalText(g.edit.old_value)},
                                     {"new", OptionalText(g.edit.new_value)}}}});
        }
        out["suggestions"] = std::move(suggestions);
        out["trials"] = plan.trials;
        return inspect::JsonDocument(out);
    }
    const inspect::ImageModel& model = plan.model;
    out["rom_file"] = inspect::JsonText(plan.rom_file);
    out["size"] = model.size;
    out["address_base"] = model.address_base;
    out["links"] = model.links32 ? 32 : 16;
    out["placement"] = plan.gap_placement ? "gap" : "sequential";
    Json regions = Json::array();
    for (const Region& r : plan.regions) {
        Json region = {{"name", inspect::JsonText(r.name)},
                       {"offset", r.offset},
                       {"length", r.length},
                       {"takes_modules", r.takes_modules}};
        if (r.takes_modules) {
            region["used"] = r.used;
            region["free"] = r.free;
            region["fill"] = r.Fill();
            region["headroom"] = r.headroom;
        }
        regions.push_back(std::move(region));
    }
    out["regions"] = std::move(regions);
    Json gaps = Json::array();
    for (const GapUse& u : plan.gaps) {
        Json taken = Json::array();
        for (const std::string& t : u.taken_by) taken.push_back(inspect::JsonText(t));
        gaps.push_back({{"offset", u.offset},
                        {"address", model.Address(u.offset)},
                        {"length", u.length},
                        {"left", u.left},
                        {"taken_by", std::move(taken)}});
    }
    out["gaps"] = std::move(gaps);
    Json modules = Json::array();
    for (const PlannedModule& p : plan.modules) {
        Json m = inspect::ListModuleJson(plan.image, model, p.module);
        m["file"] = inspect::JsonText(p.file);
        m["section"] = p.section;
        m["room"] = p.room;
        m["placement"] = inspect::JsonText(p.placement);
        modules.push_back(std::move(m));
    }
    out["modules"] = std::move(modules);
    if (budget) {
        Json over = Json::array();
        for (const std::string& name : OverBudget(plan, *budget)) over.push_back(inspect::JsonText(name));
        out["budget"] = {{"limit", *budget}, {"over", std::move(over)}};
    }
    return inspect::JsonDocument(out);
}

}  // namespace fwforge::plan
