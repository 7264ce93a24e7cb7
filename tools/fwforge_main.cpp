#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "compress/module_compressor.h"
#include "driver/main_flow.h"
#include "platform/process_memory.h"

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

}  // namespace

int main(int argc, char** argv) {
    fwforge::platform::KeepFreedMemory();
    try {
        return fwforge::RunMainFlow(argc, argv, std::cout, CompressionThreads());
    } catch (const fwforge::lzh::OutOfMemory& e) {
        std::cout.flush();
        // No line break before or after it, and no run summary.
        std::fputs(e.what(), stderr);
        return 1;
    }
}
