#pragma once
// The boot block stamp that the file of module 1B carries: a segment table at the file's
// start, and in the data of the segment at 0xF0000 the stamp, at offset 0xF408.

#include <cstdint>
#include <span>

namespace fwforge::script {

struct StampSearch {
    enum Result { Found, NotFound, Unreadable } result = NotFound;
    std::uint32_t stamp = 0;  // when Found
};

// Walks the segment table of `file`. Unreadable: the table, or the stamp, lies beyond
// the end of the file; nothing outside it is read.
StampSearch FindBootBlockStamp(std::span<const std::uint8_t> file);

}  // namespace fwforge::script
