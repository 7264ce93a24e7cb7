// Makes the input files of the second example firmware: a 64 KB boot block, the modules
// and the ROM-hole file that firmware2.scr names, all generated from fixed seeds so every
// run gives the same bytes. Usage: make_inputs2 <folder>

#include "../common/input_patterns.h"

namespace {

using namespace example_inputs;

InputFiles Files() {
    return {
        {"bootblk.bin", BootBlock()},
        {"post.bin", Code(0x9000, 21)},
        {"setup.bin", Text(0x6000, 22)},
        {"video.rom", OptionRom(0x8000, 23)},
        {"resume.bin", Code(0x700, 24)},
        {"firmware_volume.bin", Noise(0x24000, 25)},
        {"smm.bin", Code(0x4000, 26)},
        {"setup_strings.bin", Text(0x1800, 27)},
        {"setup_defaults.bin", Text(0x900, 28)},
        {"oemlogo.bin", Picture(120, 75, 29)},
    };
}

}  // namespace

int main(int argc, char** argv) {
    return WriteInputs(argc, argv, "make_inputs2", Files);
}
