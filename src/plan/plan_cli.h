#pragma once
// fwforge-inspect plan SCRIPT: the build of SCRIPT run in memory on the files it names
// (nothing is written), and its plan. Exit status (image/outcome.h): Ok when fwforge
// builds the script; Problems when the build stops (its message, and for want of room
// the figures and the changes that make it fit); Unusable when the script cannot be read;
// OverBudget when it builds but a region is fuller than --budget.

#include <optional>
#include <ostream>
#include <string>

#include "image/outcome.h"

namespace fwforge::plan {

struct PlanCommand {
    std::string script;
    std::string output_path = ".";
    bool compatibility = false;
    bool json = false;
    std::optional<double> budget;  // percent
    unsigned compression_threads = 1;
};

inspect::ExitStatus RunPlan(const PlanCommand& command, std::ostream& out);

}  // namespace fwforge::plan
