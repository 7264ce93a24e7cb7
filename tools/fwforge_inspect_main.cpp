// fwforge-inspect: reads ROM images back. The commands and their exit statuses:
//   list, verify, extract, map, diff  see inspect/inspect_cli.h
//   replace                           see edit/replace_cli.h
//   plan                              see plan/plan_cli.h
// A bad command line ends with status 2, as an image that cannot be read does.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "edit/replace_cli.h"
#include "inspect/inspect_cli.h"
#include "plan/plan_cli.h"
#include "platform/process_memory.h"
#include "rebuild/extract_cli.h"

namespace {

constexpr int kBadCommandLine = fwforge::inspect::ExitCode(fwforge::inspect::ExitStatus::Unusable);

std::optional<std::uint32_t> ParseHex(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// The options every command takes: how to read the image.
struct ReadingOptions {
    bool links16 = false;
    bool links32 = false;
    std::string bbsize;

    void AddTo(CLI::App& command) {
        CLI::Option* b16 =
            command.add_flag("--16", links16, "read module links as 16-bit (segment:offset)");
        CLI::Option* b32 = command.add_flag("--32", links32, "read module links as 32-bit");
        b16->excludes(b32);
        command.add_option("--bbsize", bbsize, "boot block size in hex, when the image cannot tell");
    }

    // False, with a message, when --bbsize is no hex number.
    bool Apply(fwforge::inspect::InspectOptions& options) const {
        if (links16) options.link_form = fwforge::inspect::LinkForm::Bits16;
        if (links32) options.link_form = fwforge::inspect::LinkForm::Bits32;
        if (!bbsize.empty()) {
            const auto size = ParseHex(bbsize);
            if (!size) {
                std::fprintf(stderr, "fwforge-inspect: --bbsize: \"%s\" is not a hex number\n",
                             bbsize.c_str());
                return false;
            }
            options.boot_block_size = *size;
        }
        return true;
    }
};

}  // namespace

int main(int argc, char** argv) {
    // plan, extract and replace build images in memory, as fwforge does.
    fwforge::platform::KeepFreedMemory();
    CLI::App app{"Reads FWFORGE ROM images back: lists, verifies, extracts, maps and compares "
                 "them,\nand changes one module of a finished image; plans a build before it runs.\n"
                 "Exit status: 0 all in order; 1 problems found (diff: differences; replace: "
                 "refused;\nplan: the build stops); 2 a bad command line or a file that cannot "
                 "be read; 3 (verify,\nextract) intact as built, but some compressed modules "
                 "cannot be unpacked; 4 (plan)\na region fuller than --budget.",
                 "fwforge-inspect"};
    app.set_version_flag("--version", "fwforge-inspect " FWFORGE_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "fwforge-inspect: " + std::string(e.what()) +
               "\nRun with --help for more information.\n";
    });

    fwforge::inspect::Command inspect;
    ReadingOptions reading;
    auto add = [&](const char* name, const char* about) {
        CLI::App* command = app.add_subcommand(name, about);
        command->add_option("IMAGE", inspect.image, "the ROM image")->required();
        reading.AddTo(*command);
        return command;
    };
    add("list", "regions, main BIOS header, modules and free space")
        ->add_flag("--json", inspect.json, "as JSON (schema_version 1)");
    add("verify", "check every checksum, link, overlap and compressed module")
        ->add_flag("--json", inspect.json, "as JSON (schema_version 1)");
    add("extract", "write every module and DIR/rebuild.scr")
        ->add_option("DIR", inspect.argument, "folder to write to")
        ->required();
    add("map", "map of the image by address")
        ->add_option("--html", inspect.html, "write a zoomable HTML page to this file");
    add("diff", "module-by-module differences to a second image")
        ->add_option("IMAGE2", inspect.argument, "the other ROM image")
        ->required();

    fwforge::edit::ReplaceCommand replace;
    CLI::App* edit = app.add_subcommand(
        "replace", "write OUT: IMAGE with one module holding new data (IMAGE is never written)");
    edit->add_option("IMAGE", replace.image, "the ROM image")->required();
    edit->add_option("OUT", replace.out, "the image to write")->required();
    edit->add_option("--module", replace.selector,
                     "the module: its number in list (3, ebb:1), id=XX, or pci=VVVV:DDDD")
        ->required();
    edit->add_option("--file", replace.file,
                     "its new data, compressed as the build does when the module is stored "
                     "compressed")
        ->required();
    edit->add_flag("--as-is", replace.as_is, "FILE holds the stored (compressed) data already");
    reading.AddTo(*edit);

    fwforge::plan::PlanCommand plan;
    CLI::App* planning = app.add_subcommand(
        "plan", "build SCRIPT in memory (nothing is written): regions, gaps, modules, headroom; "
                "when it does not fit, by how much and what makes it fit");
    planning->add_option("SCRIPT", plan.script, "the build script")->required();
    planning->add_option("--out", plan.output_path,
                         "fwforge's OutputPath, where the .int and .inf files would go (default .)");
    planning->add_flag("-c", plan.compatibility, "as fwforge -c (compatibility mode header)");
    planning->add_flag("--json", plan.json, "as JSON (schema_version 1)");
    planning->add_option("--budget", plan.budget,
                         "exit status 4 when a region is fuller than this many percent")
        ->check(CLI::Range(0.0, 100.0));

    const auto commands = app.get_subcommands({});
    const bool known = argc > 1 && std::any_of(commands.begin(), commands.end(),
                                               [&](const CLI::App* c) {
                                                   return c->get_name() == argv[1];
                                               });
    if (argc > 1 && argv[1][0] != '-' && !known) {
        std::fprintf(stderr,
                     "fwforge-inspect: unknown command %s (list, verify, extract, map, diff, "
                     "replace or plan)\nRun with --help for more information.\n",
                     argv[1]);
        return kBadCommandLine;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and version are answers (status 0); a mistake is a bad command line.
        return app.exit(e) == 0 ? 0 : kBadCommandLine;
    }

    int status = kBadCommandLine;
    if (app.got_subcommand(planning)) {
        plan.compression_threads = std::max(1u, std::thread::hardware_concurrency());
        status = fwforge::inspect::ExitCode(fwforge::plan::RunPlan(plan, std::cout));
    } else if (app.got_subcommand(edit)) {
        if (reading.Apply(replace.options)) {
            status = fwforge::inspect::ExitCode(fwforge::edit::RunReplace(replace, std::cout));
        }
    } else {
        inspect.command = app.get_subcommands().front()->get_name();
        if (reading.Apply(inspect.options)) {
            const fwforge::inspect::ExitStatus done =
                inspect.command == "extract" ? fwforge::rebuild::RunExtract(inspect, std::cout)
                                             : fwforge::inspect::RunCommand(inspect, std::cout);
            status = fwforge::inspect::ExitCode(done);
        }
    }
    std::cout.flush();
    return status;
}
