#include "check/problems.h"

namespace fwforge::inspect {

std::string ProblemText(const Finding& finding, const std::string& prefix) {
    return "PROBLEM: " + prefix + finding.where + ": " + finding.what;
}

std::string ProblemLine(const Finding& finding, const std::string& prefix) {
    return ProblemText(finding, prefix) + "\n";
}

std::string ProblemLines(const std::vector<Finding>& findings, const std::string& prefix) {
    std::string out;
    for (const Finding& f : findings) out += ProblemLine(f, prefix);
    return out;
}

}  // namespace fwforge::inspect
