#include <iostream>
#include <string_view>

#include "edit/replace_cli.h"
#include "inspect/inspect_cli.h"

int main(int argc, char** argv) {
    // replace builds images and so lies above the reader; the reader's commands stay
    // below the builder.
    const bool replace = argc > 1 && std::string_view(argv[1]) == "replace";
    const int status = replace ? fwforge::edit::RunReplace(argc, argv, std::cout)
                               : fwforge::inspect::RunInspect(argc, argv, std::cout);
    std::cout.flush();
    return status;
}
