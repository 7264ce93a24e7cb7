#pragma once

#include <ostream>

namespace fwforge {

// The whole program: command line, banner, build script, image build, run summary.
// Console text goes to `out`; returns the exit status. The encoder's out-of-memory
// stop is left to the caller (it bypasses the console). `compression_threads` is how
// many threads compress modules ahead of the layout, `reuse_compression` whether a
// module's second compression reuses the first; the output is the same either way.
int RunMainFlow(int argc, const char* const* argv, std::ostream& out,
                unsigned compression_threads = 1, bool reuse_compression = true);

}  // namespace fwforge
