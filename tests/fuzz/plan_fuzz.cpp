// Fuzzes plan on fuzzed scripts and small fuzzed input files, all in memory: the input
// is the script, optionally followed by "\n====\n" and the bytes of m1.bin, m2.bin and
// hole.bin, each after another separator (fixed patterns when absent). Planning, its
// suggestions' trial builds, both reports and the edits must never crash, hang or read
// out of bounds.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "context/build_context.h"
#include "plan/plan.h"
#include "plan/plan_report.h"
#include "plan/script_edit.h"
#include "platform/file_system.h"
#include "script/script_reader.h"

namespace {

// Images above this size only make the fuzzer slow; the reader is fuzzed on its own.
constexpr std::uint32_t kLargestImage = 8u << 20;
constexpr std::string_view kSeparator = "\n====\n";

std::vector<std::uint8_t> Pattern(std::size_t size, unsigned seed) {
    std::vector<std::uint8_t> bytes(size);
    unsigned x = seed;
    for (std::size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        bytes[i] = (i / 64) % 2 ? static_cast<std::uint8_t>(x >> 24)
                                : static_cast<std::uint8_t>('a' + i % 23);
    }
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string_view> parts;
    for (std::size_t from = 0;;) {
        const std::size_t at = input.find(kSeparator, from);
        parts.push_back(input.substr(from, at == std::string_view::npos ? at : at - from));
        if (at == std::string_view::npos || parts.size() == 4) break;
        from = at + kSeparator.size();
    }
    fwforge::platform::MemoryFileSystem files;
    files.Put("build.scr", parts[0]);
    files.Put("bb.bin", Pattern(0x10000, 1));
    const char* names[] = {"m1.bin", "m2.bin", "hole.bin"};
    const std::size_t sizes[] = {3000, 20000, 100};
    for (std::size_t i = 0; i < 3; ++i) {
        if (i + 1 < parts.size()) {
            files.Put(names[i], parts[i + 1]);
        } else {
            files.Put(names[i], Pattern(sizes[i], static_cast<unsigned>(i + 2)));
        }
    }
    {
        std::ostringstream console;
        fwforge::BuildContext probe(console, files);
        try {
            fwforge::ParseBuildScript(probe, "build.scr");
        } catch (const fwforge::FatalError&) {
        }
        if (probe.description.Bios.BiosSize > kLargestImage) return 0;
    }
    fwforge::plan::PlanRequest request;
    request.script = "build.scr";
    request.output_path = "out";
    const fwforge::plan::Plan plan = fwforge::plan::MakePlan(files, request);
    (void)fwforge::plan::PlanText(plan, 50.0);
    (void)fwforge::plan::PlanJson(plan, 50.0, 0);
    const std::string script(parts[0]);
    for (const fwforge::plan::Suggestion& s : plan.suggestions) {
        (void)fwforge::plan::ApplyEdit(script, s.edit);
    }
    // Edits of any section and key, found or not.
    (void)fwforge::plan::ApplyEdit(script, {"module", 1, "compressed", "no", "minsize"});
    (void)fwforge::plan::ApplyEdit(script, {"bios", 0, "size", std::nullopt, std::nullopt});
    (void)fwforge::plan::ReadSections(script);
    return 0;
}
