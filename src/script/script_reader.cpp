#include "script/script_reader.h"

namespace fwforge {

void ParseBuildScript(BuildContext&, const std::string&) {}

}  // namespace fwforge
