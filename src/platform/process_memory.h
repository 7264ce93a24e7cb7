#pragma once
// How the process's allocator treats freed memory.

namespace fwforge::platform {

// A build allocates buffers of a module's size several times for each module. Kept by
// the allocator for the next ones instead of being mapped afresh each time, their pages
// are faulted in once: on large modules the faults otherwise cost about a third as much
// as the compression. Called once, first thing, by the programs that build.
void KeepFreedMemory();

}  // namespace fwforge::platform
