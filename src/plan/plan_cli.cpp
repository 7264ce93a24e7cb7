#include "plan/plan_cli.h"

#include "plan/plan.h"
#include "plan/plan_report.h"

namespace fwforge::plan {

inspect::ExitStatus RunPlan(const PlanCommand& command, std::ostream& out) {
    PlanRequest request;
    request.script = command.script;
    request.output_path = command.output_path;
    request.compatibility = command.compatibility;
    request.compression_threads = command.compression_threads;
    request.on_disk = true;
    const bool readable = static_cast<bool>(platform::Disk().Open(command.script));
    const Plan plan = MakePlan(platform::Disk(), request);
    inspect::ExitStatus status = inspect::ExitStatus::Ok;
    if (!plan.Completed()) {
        status = readable ? inspect::ExitStatus::Problems : inspect::ExitStatus::Unusable;
    } else if (command.budget && !OverBudget(plan, *command.budget).empty()) {
        status = inspect::ExitStatus::OverBudget;
    }
    out << (command.json ? PlanJson(plan, command.budget, inspect::ExitCode(status))
                         : PlanText(plan, command.budget));
    return status;
}

}  // namespace fwforge::plan
