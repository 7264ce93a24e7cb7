#pragma once
// The build-script reader's inverse: any build description written out as a script that
// the reader takes back to an equal description (parse(write(d)) == d). Names come back
// as the reader keeps them (lower case), values in the forms the reader asks for.

#include <string>
#include <vector>

#include "script/build_description.h"

namespace fwforge {

// The script, CR LF line ends, with `comments` as "//" lines at its top.
std::string WriteBuildScript(const BuildDescription& description,
                             const std::vector<std::string>& comments = {});

}  // namespace fwforge
