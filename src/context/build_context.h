#pragma once
// The state of one build: run options, diagnostics, the build description, the image
// being built with its placement state, and the one encoder. Phases are functions that
// take it; nothing of a build lives outside it, so one process can run many builds.

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "compress/module_compressor.h"
#include "context/layout_state.h"
#include "diagnostics/diagnostics.h"
#include "script/build_description.h"
#include "script/script_reader.h"

namespace fwforge {

inline constexpr const char* kToolVersion = "3.33";

struct RunOptions {
    bool VerboseMode = false;
    bool CompatibilityMode = false;
    std::string OutputPath;
};

struct ImageState {
    std::vector<std::uint8_t> ImageBuffer;
    std::uint32_t PlacementCursor = 0;
    std::uint32_t AddressBase = 0;
};

class BuildContext {
  public:
    explicit BuildContext(std::ostream& console) : diag(console) {}

    // The build's encoder, created on first use and kept for the rest of the build.
    lzh::Encoder& Encoder() {
        if (!encoder_) encoder_ = std::make_unique<lzh::Encoder>();
        return *encoder_;
    }

    Diagnostics diag;
    RunOptions options;
    BuildDescription description;
    ImageState image;
    LayoutState layout;

  private:
    std::unique_ptr<lzh::Encoder> encoder_;
};

// Frees the image; a second call does nothing. The tables belong to the build
// description and go with the context. Phases call it before a fatal report, the
// pipeline once at its end.
inline void ReleaseImageBuffers(BuildContext& ctx) {
    std::vector<std::uint8_t>().swap(ctx.image.ImageBuffer);
}

// Reads the build script into the context's description, with the run's verbosity.
inline void ParseBuildScript(BuildContext& ctx, const std::string& path) {
    ParseBuildScript(ctx.diag, ctx.description, path, ctx.options.VerboseMode);
}

}  // namespace fwforge
