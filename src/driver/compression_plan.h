#pragma once

#include "context/build_context.h"

namespace fwforge {

// Tells the build's compression which module files it will be asked to compress, in
// the order the build asks: the Extended Boot Block's modules, then every module the
// build compresses to size it (once more to place it). Only a guess that lets the
// work start early on other threads; the bytes never depend on it.
void AnnounceModuleCompressions(BuildContext& ctx);

// Gap placement, once every module is sized: tells the build's compression the order in
// which the placement passes are likely to compress the modules again (fixed locations,
// then the modules that must not be split and the rest, each largest first, then the
// non-critical blocks' modules). A module of 8448 bytes or more gives what its sizing
// gave; a shorter one reads bytes that the runs before it left in the window, so it is
// computed again ahead of the placement, from the window that order predicts.
void AnnouncePlacementCompressions(BuildContext& ctx);

}  // namespace fwforge
