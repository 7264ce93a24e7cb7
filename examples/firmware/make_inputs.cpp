// Makes the input files of the example firmware: a 64 KB boot block and the modules
// that firmware.scr names, all generated from fixed seeds so every run gives the same
// bytes. Usage: make_inputs <folder>

#include "../common/input_patterns.h"

namespace {

using namespace example_inputs;

void Put16(Bytes& b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::uint8_t>(v);
    b[at + 1] = static_cast<std::uint8_t>(v >> 8);
}

// The protected-mode entry module: its descriptor table is patched by the build, so it
// names it at the start: table offset at 4, pointer at 6, base at 8.
Bytes ProtectedModeEntry() {
    Bytes out = Code(0x600, 15);
    Put16(out, 4, 0x0020);  // descriptor table, relative to the base
    Put16(out, 6, 0x0010);  // the base address is stored at 0x12
    Put16(out, 8, 0x0040);  // base: descriptors at 0x60 and 0x68
    return out;
}

InputFiles Files() {
    return {
        {"bootblk.bin", BootBlock()},        {"early_init.bin", Code(0x1800, 2)},
        {"recovery.bin", Code(0x900, 3)},    {"post.bin", Code(0x9000, 4)},
        {"setup.bin", Text(0x6000, 5)},      {"strings.bin", Text(0x1234, 6)},
        {"microcode.bin", Noise(0x2400, 7)}, {"video.rom", OptionRom(0x8000, 8)},
        {"pmode.bin", ProtectedModeEntry()}, {"acpi.bin", Text(0x1100, 9)},
        {"logo.bin", Picture(160, 100, 10)}, {"smm.bin", Code(0x4000, 11)},
    };
}

}  // namespace

int main(int argc, char** argv) {
    return WriteInputs(argc, argv, "make_inputs", Files);
}
