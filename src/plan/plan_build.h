#pragma once
// The pieces a plan shares with its search for suggestions: one build in memory with the
// state the builder left, and where the script's sections are in the build description.

#include <cstdint>
#include <string>
#include <vector>

#include "context/layout_state.h"
#include "driver/build_run.h"
#include "plan/plan.h"
#include "script/build_description.h"

namespace fwforge::plan {

// What the build left: its description (sizes, placement states, the block records),
// its layout state and its placement cursor; the image when it completed.
struct BuildState {
    BuildDescription description;
    LayoutState layout;
    std::uint32_t cursor = 0;
    std::vector<std::uint8_t> image;
};

// The [module] section (its position among the script's [module] sections) of each
// ModuleTable entry and of each Extended Boot Block module; -1 where there is none.
struct SectionRefs {
    std::vector<int> table;
    std::vector<int> ebb;
};

// Builds `request` on `files` in memory, with `script_text` in place of the script when
// given; fills `state` when given.
BuildResult BuildWith(platform::FileSystem& files, const PlanRequest& request,
                      const std::string* script_text, BuildState* state);

SectionRefs MapSections(const std::string& text, const BuildDescription& description);

}  // namespace fwforge::plan
