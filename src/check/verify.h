#pragma once
// Every check that an image built by fwforge must pass: checksums of module headers
// (split modules with the data of all their pieces), of the main BIOS header's region,
// of the EBB and non-critical block headers and of the boot block; links in range;
// no overlapping items. Apart from these, whether every compressed module decodes
// completely: an image can be exactly as built and still hold a module that the
// firmware cannot unpack.

#include <span>
#include <string>
#include <vector>

#include "image/image_model.h"
#include "image/module_data.h"
#include "image/outcome.h"

namespace fwforge::inspect {

// A compressed module of an intact image that does not decode: why, and what to change
// in the build script.
struct CannotUnpack {
    std::string module;
    std::string reason;
    std::string change;
};

struct VerifyReport {
    std::vector<Finding> problems;  // the reader's problems first
    std::vector<CannotUnpack> cannot_unpack;
    std::vector<std::string> notes;  // checks that could not be made, and why
    int checks = 0;                  // checks made
    bool Clean() const { return problems.empty(); }
    // The exit status of `verify`: damaged, intact but not all unpackable, or intact.
    ExitStatus Status() const {
        return !problems.empty()        ? ExitStatus::Problems
               : !cannot_unpack.empty() ? ExitStatus::CannotUnpack
                                        : ExitStatus::Ok;
    }
};

// Why a compressed module's stored data does not unpack, and what to change in the
// build script, when it does not; nothing when it does. Shared by verify and extract.
bool DescribeCannotUnpack(const ImageModel& model, const Module& m, const DecodeResult& decoded,
                          CannotUnpack& out);

VerifyReport Verify(std::span<const std::uint8_t> image, const ImageModel& model);

}  // namespace fwforge::inspect
