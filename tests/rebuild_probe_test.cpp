#include <gtest/gtest.h>
#include <iostream>
#include "rebuild/rebuild.h"
#include "inspect/image_model.h"
#include "platform/text_format.h"
#include "support/random_script.h"
namespace fwforge {
using namespace fwforge::testing;
TEST(Probe, GapRebuild) {
    int gap = 0, exact_gap = 0, seq = 0, exact_seq = 0;
    for (std::uint32_t seed = 1; seed <= 150; ++seed) {
        TempDir dir;
        const RandomScript script = MakeRandomScript(seed, dir);
        std::vector<std::string> args = {dir.path().string(), script.path};
        args.insert(args.end(), script.options.begin(), script.options.end());
        std::string console;
        if (RunFwforge(dir.path(), args, console) != 0) { std::cout << seed << " refused\n"; continue; }
        const std::vector<std::uint8_t> rom = ReadBytes(script.rom);
        const inspect::ImageModel model = inspect::ReadImage(rom, {});
        const rebuild::Reconstruction r = rebuild::Reconstruct(rom, model);
        (script.gap ? gap : seq)++;
        (script.gap ? exact_gap : exact_seq) += r.exact;
        if (!r.exact) {
            std::cout << seed << (script.gap ? " gap: " : " seq: ") << r.difference << " tried " << r.candidates_tried << " open " << r.plan.open_choices.size() << "\n";
            const rebuild::Built b = rebuild::BuildInMemory(r.plan, r.plan.description);
            if (b.image.empty()) continue;
            const inspect::ImageModel m2 = inspect::ReadImage(b.image, {});
            for (std::size_t i = 0; i < std::max(model.modules.size(), m2.modules.size()); ++i) {
                auto show = [&](const inspect::ImageModel& mm, const std::vector<std::uint8_t>&) {
                    if (i >= mm.modules.size()) return std::string("-");
                    const auto& m = mm.modules[i];
                    std::string t = StrFormat("%d/%02x@%x ds%x a%02x", int(m.area), m.header.id, m.header.offset, m.header.data_size, m.header.attributes);
                    for (auto& p : m.pieces) t += StrFormat(" [%x+%x]", p.offset, p.length);
                    return t;
                };
                std::string a = show(model, rom), c = show(m2, b.image);
                std::cout << (a == c ? "   " : " * ") << a << "  |  " << c << "\n";
            }
            if (seed == 147 || seed == 56) std::cout << script.text << "\n";
        }
    }
    std::cout << "seq " << exact_seq << "/" << seq << " gap " << exact_gap << "/" << gap << "\n";
}
}
