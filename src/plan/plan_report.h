#pragma once
// A plan as text for people and as JSON for scripts. The JSON's modules carry the fields
// of `list --json` with the same names and meanings, so that a plan and the image built
// from it compare field by field; its schema_version follows the same rules.

#include <optional>
#include <string>
#include <vector>

#include "plan/plan.h"

namespace fwforge::plan {

// The regions that take modules and are fuller than `limit` percent, by name.
std::vector<std::string> OverBudget(const Plan& plan, double limit);

std::string PlanText(const Plan& plan, std::optional<double> budget);
std::string PlanJson(const Plan& plan, std::optional<double> budget, int status);

}  // namespace fwforge::plan
