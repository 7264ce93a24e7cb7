#pragma once
// A build context set up the way the image build pipeline leaves it before its fixed
// phases run: an erased image of BiosSize bytes, the cursor at its end, output into a
// temporary folder, and the console captured.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "context/build_context.h"
#include "format/checksum.h"
#include "support/test_files.h"

namespace fwforge::testing {

struct RegionBuild {
    explicit RegionBuild(std::uint32_t bios_size) : ctx(console) {
        ctx.options.OutputPath = dir.path().string();
        ctx.description.Bios.BiosSize = bios_size;
        ctx.description.Bios.BiosTag = "X1234";
        StartImage();
    }

    void StartImage() {
        const std::uint32_t size = ctx.description.Bios.BiosSize;
        ctx.image.ImageBuffer.assign(size, 0xFF);
        ctx.image.PlacementCursor = size;
        ctx.image.AddressBase = ctx.description.RomImage.Use32BitMode ? 0 : 0x100000 - size;
    }

    // Runs a phase; returns the fatal message, or "" when the phase returned.
    std::string Run(const std::function<void(BuildContext&)>& phase) {
        try {
            phase(ctx);
        } catch (const FatalError& e) {
            return e.what();
        }
        return "";
    }

    std::vector<std::uint8_t> Image(std::size_t offset, std::size_t length) const {
        const auto& image = ctx.image.ImageBuffer;
        return {image.begin() + offset, image.begin() + offset + length};
    }

    std::ostringstream console;
    BuildContext ctx;
    TempDir dir;
};

inline bool AllBytesAre(const std::vector<std::uint8_t>& bytes, std::size_t from, std::size_t to,
                        std::uint8_t value) {
    for (std::size_t i = from; i < to; ++i) {
        if (bytes[i] != value) return false;
    }
    return true;
}

inline std::uint32_t SumOf(const std::vector<std::uint8_t>& bytes) {
    return DwordSum(bytes, 0, bytes.size());
}

}  // namespace fwforge::testing
