#pragma once
// Changes of a script that stopped for want of room: candidates from the figures of the
// stop, each built in memory and kept when the build then completes, smallest change
// first.

#include <string>

#include "plan/plan.h"
#include "plan/plan_build.h"

namespace fwforge::plan {

void FindSuggestions(Plan& plan, platform::FileSystem& files, const PlanRequest& request,
                     const std::string& script_text, const BuildState& state,
                     const SectionRefs& refs);

}  // namespace fwforge::plan
