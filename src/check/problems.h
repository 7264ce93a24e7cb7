#pragma once
// The one way a problem of an image is written for people: "PROBLEM: where: what", one
// line each, by list, verify, map, extract and diff alike.

#include <string>
#include <vector>

#include "image/image_model.h"

namespace fwforge::inspect {

// "PROBLEM: " + `prefix` + where + ": " + what; `prefix` names the image where a command
// reads two.
std::string ProblemText(const Finding& finding, const std::string& prefix = "");
// The same with a line end.
std::string ProblemLine(const Finding& finding, const std::string& prefix = "");

// The lines of every finding, in order.
std::string ProblemLines(const std::vector<Finding>& findings, const std::string& prefix = "");

}  // namespace fwforge::inspect
