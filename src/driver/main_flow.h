#pragma once

#include <ostream>

namespace fwforge {

// The whole program: command line, banner, build script, image build, run summary.
// Console text goes to `out`; returns the exit status. The encoder's out-of-memory
// stop is left to the caller (it bypasses the console).
int RunMainFlow(int argc, const char* const* argv, std::ostream& out);

}  // namespace fwforge
