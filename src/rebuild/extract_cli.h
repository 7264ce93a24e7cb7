#pragma once
// fwforge-inspect extract IMAGE DIR: every module's data, the image information, the boot
// block, ROM-hole contents and DIR/rebuild.scr, the build that gives the image back, which
// extract builds in memory to say whether it gives back the image byte for byte.

#include <ostream>

#include "inspect/inspect_cli.h"

namespace fwforge::rebuild {

inspect::ExitStatus RunExtract(const inspect::Command& command, std::ostream& out);

}  // namespace fwforge::rebuild
