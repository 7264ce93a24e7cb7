#pragma once
// Which module of an image a `replace` means: its number as `list` shows it, or its
// module id, with the PCI ids for an add-on ROM.

#include <string>
#include <string_view>

#include "image/image_model.h"

namespace fwforge::edit {

struct Selection {
    const inspect::Module* module = nullptr;
    std::string error;  // why nothing was selected
};

// "3", "ebb:1", "id=12", "pci=8086:0166", "id=20,pci=8086:0166". An id or
// PCI pair that names more than one module selects none; the error lists their numbers.
Selection SelectModule(const inspect::ImageModel& model, std::string_view selector);

}  // namespace fwforge::edit
