#pragma once

#include "context/build_context.h"

namespace fwforge {

// Tells the build's compression which module files it will be asked to compress, in
// the order the build asks: the Extended Boot Block's modules, then every module the
// build compresses to size it (once more to place it). Only a guess that lets the
// work start early on other threads; the bytes never depend on it.
void AnnounceModuleCompressions(BuildContext& ctx);

}  // namespace fwforge
