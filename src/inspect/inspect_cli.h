#pragma once
// fwforge-inspect COMMAND IMAGE [options]: list, verify, extract, map and diff a ROM
// image. Exit status 0 when the command found everything in order, 1 when the image
// has problems (or differs, for diff), 2 for a bad command line or an image that
// cannot be read at all (for verify: a file that cannot be read), 3 from verify and
// extract for an image that is intact as built but holds compressed modules that
// cannot be unpacked.

#include <ostream>

namespace fwforge::inspect {

int RunInspect(int argc, const char* const* argv, std::ostream& out);

}  // namespace fwforge::inspect
