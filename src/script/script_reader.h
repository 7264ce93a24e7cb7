#pragma once

#include <string>

#include "driver/build_context.h"

namespace fwforge {

// Reads and checks the whole build script into ctx.description. Returns only on
// success; every failure is a fatal report.
void ParseBuildScript(BuildContext& ctx, const std::string& path);

}  // namespace fwforge
