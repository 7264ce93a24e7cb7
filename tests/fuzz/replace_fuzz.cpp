// Fuzzes replace on arbitrary images: each of a few module choices and new files (one
// to be compressed, an empty one, one taken as stored data as it is) must end in a new
// image or a refusal, never a crash, a hang or an out-of-bounds access; a new image is
// read back.

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "edit/replace.h"
#include "image/image_model.h"
#include "image/image_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> image(data, size);
    std::vector<std::uint8_t> text(300);
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = std::uint8_t("setup menu "[i % 11]);
    // Stored data as it is: whatever the image holds near its start.
    const std::vector<std::uint8_t> stored(image.begin(), image.begin() + std::min<std::size_t>(size, 64));
    struct Case {
        const char* selector;
        const std::vector<std::uint8_t>* file;
        bool as_is;
    };
    const std::vector<std::uint8_t> empty;
    for (const Case& c : {Case{"0", &text, false}, Case{"1", &empty, false},
                          Case{"ebb:0", &text, false}, Case{"id=80", &text, false},
                          Case{"0", &stored, true}}) {
        fwforge::edit::ReplaceRequest request;
        request.selector = c.selector;
        request.file_name = "new.bin";
        request.file = *c.file;
        request.as_is = c.as_is;
        const fwforge::edit::ReplaceOutcome outcome = fwforge::edit::ReplaceModule(image, request);
        if (!outcome.Done()) continue;
        (void)fwforge::inspect::ReadImage(outcome.image, request.options);
    }
    return 0;
}
