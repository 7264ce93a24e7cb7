// Fuzzes the image reader of fwforge-inspect on arbitrary bytes: reading, verifying,
// listing and mapping any image must end in a report, never a crash, a hang or an
// out-of-bounds access.

#include <cstddef>
#include <cstdint>
#include <span>

#include "check/verify.h"
#include "image/image_model.h"
#include "image/image_reader.h"
#include "present/map.h"
#include "present/report.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> image(data, size);
    using fwforge::inspect::LinkForm;
    for (LinkForm form : {LinkForm::Auto, LinkForm::Bits16, LinkForm::Bits32}) {
        fwforge::inspect::InspectOptions options;
        options.link_form = form;
        const auto model = fwforge::inspect::ReadImage(image, options);
        const auto report = fwforge::inspect::Verify(image, model);
        (void)fwforge::inspect::VerifyJson(report);
        (void)fwforge::inspect::ListText(image, model);
        (void)fwforge::inspect::MapHtml(image, model, "map");
    }
    return 0;
}
