#include <iostream>

#include "inspect/inspect_cli.h"

int main(int argc, char** argv) {
    const int status = fwforge::inspect::RunInspect(argc, argv, std::cout);
    std::cout.flush();
    return status;
}
