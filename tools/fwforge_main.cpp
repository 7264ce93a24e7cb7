#include <cstdio>
#include <iostream>

#include "compress/module_compressor.h"
#include "driver/main_flow.h"

int main(int argc, char** argv) {
    try {
        return fwforge::RunMainFlow(argc, argv, std::cout);
    } catch (const fwforge::lzh::OutOfMemory& e) {
        std::cout.flush();
        // No line break before or after it, and no run summary.
        std::fputs(e.what(), stderr);
        return 1;
    }
}
