#pragma once
// The state of one build: run options, diagnostics, the build description, the image
// being built with its placement state, and the one encoder. Phases are functions that
// take it; nothing of a build lives outside it, so one process can run many builds.

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "compress/build_compressor.h"
#include "context/layout_state.h"
#include "diagnostics/diagnostics.h"
#include "platform/file_system.h"
#include "script/build_description.h"
#include "script/script_reader.h"

namespace fwforge {

inline constexpr const char* kToolVersion = "3.33";

struct RunOptions {
    bool VerboseMode = false;
    bool CompatibilityMode = false;
    std::string OutputPath;
    // Worker threads that compress announced modules ahead of the layout; below 2,
    // none. Results are the same bytes whatever the count.
    unsigned CompressionThreads = 1;
    // Whether a module compressed to size it gives the same result when it is placed
    // without being compressed again (again the same bytes either way).
    bool ReuseCompression = true;
    // What the encoder may allocate (tests make its allocations fail); none imposed.
    lzh::EncoderLimits EncoderLimits;
};

struct ImageState {
    std::vector<std::uint8_t> ImageBuffer;
    std::uint32_t PlacementCursor = 0;
    std::uint32_t AddressBase = 0;
};

class BuildContext {
  public:
    // A build reads and writes its files through `files`: the disk, or memory.
    explicit BuildContext(std::ostream& console, platform::FileSystem& files = platform::Disk())
        : diag(console), files(files) {}

    // The build's compression, as one encoder would give it run after run; created on
    // first use with the run options and kept for the rest of the build.
    lzh::BuildCompressor& Compressor() {
        if (!compressor_) {
            compressor_ = std::make_unique<lzh::BuildCompressor>(lzh::CompressorOptions{
                options.CompressionThreads, options.ReuseCompression, options.EncoderLimits});
        }
        return *compressor_;
    }
    // Stops the compression workers and frees the results they kept.
    void ReleaseCompression() {
        if (compressor_) compressor_->Release();
    }

    Diagnostics diag;
    platform::FileSystem& files;
    RunOptions options;
    BuildDescription description;
    ImageState image;
    LayoutState layout;

  private:
    std::unique_ptr<lzh::BuildCompressor> compressor_;
};

// Frees the image; a second call does nothing. The tables belong to the build
// description and go with the context. Phases call it before a fatal report, the
// pipeline once at its end.
inline void ReleaseImageBuffers(BuildContext& ctx) {
    ctx.ReleaseCompression();
    std::vector<std::uint8_t>().swap(ctx.image.ImageBuffer);
}

// Reads the build script into the context's description, with the run's verbosity.
inline void ParseBuildScript(BuildContext& ctx, const std::string& path) {
    ParseBuildScript(ctx.diag, ctx.files, ctx.description, path, ctx.options.VerboseMode);
}

}  // namespace fwforge
