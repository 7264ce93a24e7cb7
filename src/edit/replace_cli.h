#pragma once
// fwforge-inspect replace IMAGE OUT --module SELECTOR --file FILE [--as-is]: writes OUT,
// a copy of IMAGE in which one module holds the data of FILE. Exit status 0 when OUT is
// written, 1 when the module cannot take the data (OUT is then not written), 2 for a bad
// command line or a file that cannot be read or written.

#include <ostream>
#include <string>

#include "image/image_model.h"
#include "image/outcome.h"

namespace fwforge::edit {

// The replace command as the command line gives it.
struct ReplaceCommand {
    std::string image, out, selector, file;
    bool as_is = false;
    inspect::InspectOptions options;
};

inspect::ExitStatus RunReplace(const ReplaceCommand& command, std::ostream& out);

}  // namespace fwforge::edit
