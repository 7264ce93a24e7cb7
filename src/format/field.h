#pragma once
// A field of an on-disk structure: its offset from the structure's first byte and its
// width in bytes. Each structure in this folder names every field once in this form.

#include <cstddef>

namespace fwforge {

struct HeaderField {
    std::size_t offset;
    std::size_t width;

    constexpr std::size_t end() const { return offset + width; }
};

}  // namespace fwforge
