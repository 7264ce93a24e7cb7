#pragma once

#include <string>

#include "diagnostics/diagnostics.h"
#include "platform/file_system.h"
#include "script/build_description.h"

namespace fwforge {

// Reads and checks the whole build script `path` from `files` into `description`,
// printing through `diag`; `verbose` traces every section. Returns only on success; every
// failure is a fatal report.
void ParseBuildScript(Diagnostics& diag, platform::FileSystem& files, BuildDescription& description,
                      const std::string& path, bool verbose);

}  // namespace fwforge
