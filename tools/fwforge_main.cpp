#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "compress/module_compressor.h"
#include "driver/main_flow.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

// FWFORGE_THREADS=N sets how many threads compress modules (1: all on the main
// thread); by default one per core. The image is the same for any count.
unsigned CompressionThreads() {
    if (const char* text = std::getenv("FWFORGE_THREADS")) {
        try {
            const unsigned long n = std::stoul(text);
            if (n >= 1 && n <= 256) return static_cast<unsigned>(n);
        } catch (const std::exception&) {
        }
        std::fprintf(stderr, "FWFORGE_THREADS=%s is not a thread count from 1 to 256; ignored\n",
                     text);
    }
    const unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : cores;
}

// A build allocates buffers of a module's size several times for each module. Kept by
// the allocator for the next ones instead of being mapped afresh each time, their pages
// are faulted in once: on large modules the faults otherwise cost about a third as much
// as the compression.
void KeepFreedMemory() {
#if defined(__GLIBC__)
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest that the allocator accepts
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    KeepFreedMemory();
    try {
        return fwforge::RunMainFlow(argc, argv, std::cout, CompressionThreads());
    } catch (const fwforge::lzh::OutOfMemory& e) {
        std::cout.flush();
        // No line break before or after it, and no run summary.
        std::fputs(e.what(), stderr);
        return 1;
    }
}
