#include "edit/rebuild_with_file.h"

#include "driver/build_run.h"
#include "platform/file_system.h"

namespace fwforge::edit {
namespace {

constexpr const char* kNewFile = "replacement.bin";
constexpr const char* kScript = "rebuild.scr";
constexpr const char* kLineEnd = "\r\n";

// rebuild.scr with the [module] section that names `old_name` taking the new file:
// compressed by the build, or stored as it is (nowcompressed) when the module is
// compressed and the file holds its stored data. Empty when no section names it.
std::string EditScript(std::string script, const std::string& old_name, bool compressed_module,
                       bool compress) {
    const std::string file_line = std::string("file = ") + old_name + kLineEnd;
    const std::size_t at = script.find(file_line);
    if (at == std::string::npos) return {};
    std::size_t end = script.find(std::string(kLineEnd) + kLineEnd, at);
    end = end == std::string::npos ? script.size() : end + 2;
    std::string section = script.substr(at, end - at);
    const std::string now = std::string("nowcompressed = yes") + kLineEnd;
    if (const std::size_t n = section.find(now); n != std::string::npos) section.erase(n, now.size());
    const std::string new_line = std::string("file = ") + kNewFile + kLineEnd;
    section.replace(0, file_line.size(), new_line);
    if (compressed_module && !compress) section.insert(new_line.size(), now);
    return script.replace(at, end - at, section);
}

}  // namespace

Rebuild RebuildWithFile(const inspect::ImageModel& model, const inspect::ExtractPlan& plan,
                        const inspect::Module& module, std::span<const std::uint8_t> file,
                        bool compress) {
    const std::size_t k = static_cast<std::size_t>(&module - model.modules.data());
    const std::string& old_name = plan.module_files[k];
    Rebuild out;
    std::string script;
    for (const inspect::ExtractedFile& f : plan.files) {
        if (f.name == kScript) script.assign(f.bytes.begin(), f.bytes.end());
    }
    script = old_name.empty() ? std::string() : EditScript(script, old_name, module.Compressed(), compress);
    if (script.empty()) {
        out.error = "the rebuild script names no file for " +
                    inspect::DescribeModule(model, module);
        return out;
    }
    platform::MemoryFileSystem files;
    for (const inspect::ExtractedFile& f : plan.files) {
        if (f.name != kScript) files.Put(f.name, f.bytes);
    }
    files.Put(kNewFile, std::vector<std::uint8_t>(file.begin(), file.end()));
    files.Put(kScript, script);
    BuildRequest request;
    request.script = kScript;
    request.output_path = ".";
    request.compatibility = plan.compatibility_form;
    const BuildResult built = RunBuild(files, request);
    if (!built.Completed()) {
        out.error = built.fatal.empty() ? "the build stopped: " + built.error_output
                                        : "the build stops with \"" + built.fatal + "\"";
        return out;
    }
    if (const std::vector<std::uint8_t>* rom = files.Find(built.rom_file)) out.image = *rom;
    else out.error = "the rebuild wrote no image";
    return out;
}

}  // namespace fwforge::edit
