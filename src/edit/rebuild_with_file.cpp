#include "edit/rebuild_with_file.h"

#include <filesystem>
#include <random>
#include <sstream>

#include "compress/module_compressor.h"
#include "driver/main_flow.h"
#include "platform/file_io.h"
#include "platform/text_format.h"

namespace fwforge::edit {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNewFile = "replacement.bin";
constexpr const char* kScript = "rebuild.scr";
constexpr const char* kRom = "rebuilt.rom";  // as rebuild.scr names it
constexpr const char* kLineEnd = "\r\n";

// A folder of its own below the system's temporary folder, removed with everything in it.
class ScratchFolder {
  public:
    ScratchFolder() {
        std::random_device random;
        const fs::path base = fs::temp_directory_path();
        for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
            const fs::path candidate =
                base / StrFormat("fwforge-replace-%08x%08x", random(), random());
            if (fs::create_directory(candidate)) path_ = candidate;
        }
        if (path_.empty()) throw fs::filesystem_error("no scratch folder", base, {});
    }
    ~ScratchFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

// The build finds the files that a script names from the current folder, as fwforge does
// when it is run where rebuild.scr lies; names in a script are tokens of at most 260
// characters without blanks, which a scratch folder's full path need not be.
class WorkingFolder {
  public:
    explicit WorkingFolder(const fs::path& folder) : before_(fs::current_path()) {
        fs::current_path(folder);
    }
    ~WorkingFolder() {
        std::error_code ignored;
        fs::current_path(before_, ignored);
    }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

  private:
    fs::path before_;
};

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

bool Write(const fs::path& path, std::span<const std::uint8_t> bytes) {
    auto file = platform::OutputFile::Create(path.string());
    return file && file->Write(bytes);
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
    try {
        ScratchFolder scratch;
        for (const inspect::ExtractedFile& f : plan.files) {
            if (f.name != kScript && !Write(scratch.path() / f.name, f.bytes)) {
                out.error = "cannot write " + (scratch.path() / f.name).string();
                return out;
            }
        }
        if (!Write(scratch.path() / kNewFile, file) ||
            !Write(scratch.path() / kScript,
                   std::span(reinterpret_cast<const std::uint8_t*>(script.data()), script.size()))) {
            out.error = "cannot write into " + scratch.path().string();
            return out;
        }
        std::vector<const char*> argv = {"fwforge", ".", kScript};
        if (plan.compatibility_form) argv.push_back("-c");
        std::ostringstream console;
        int status = 1;
        {
            WorkingFolder in(scratch.path());
            try {
                status = RunMainFlow(static_cast<int>(argv.size()), argv.data(), console);
            } catch (const lzh::OutOfMemory& e) {
                console << "FATAL ERROR: " << e.what() << "\n";
            }
        }
        if (status != 0) {
            const std::string text = console.str();
            const std::string mark = "FATAL ERROR: ";
            const std::size_t at = text.rfind(mark);
            out.error = at == std::string::npos
                            ? "the build stopped"
                            : "the build stops with \"" +
                                  text.substr(at + mark.size(),
                                              text.find('\n', at) - at - mark.size()) +
                                  "\"";
            return out;
        }
        platform::WholeFile rom = platform::ReadWholeFile((scratch.path() / kRom).string());
        out.image = std::move(rom.bytes);
        if (rom.failure != platform::WholeFile::Failure::None) {
            out.error = "cannot read the rebuilt image";
        }
    } catch (const fs::filesystem_error& e) {
        out.error = std::string("no scratch folder for the rebuild: ") + e.what();
    }
    return out;
}

}  // namespace fwforge::edit
