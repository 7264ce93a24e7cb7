// Builds 16 MB images (32-bit mode) from several mixes of modules made of real data
// gathered from the system at run time (programs, libraries, headers, licence texts), in
// sequential and in gap placement, with the real fwforge, and times each build against
// one `fwforge-lzh c` pass over the concatenation of the same module files, measured in
// the same run: everything alternates, three rounds, and the medians are compared. The
// mixes:
// - "today": 200 modules of 1 KB to 300 KB, most of them small, one in five stored;
// - "system files": about 200 whole files of 2 KB to 600 KB (about 10 MB, a quarter of
//   them under 8448 bytes), as a new user would pick them;
// - "many small": 250 whole files of 2 KB to 8 KB;
// - "few large": 8 modules of 0.4 MB to 2.5 MB;
// - "with EBB": "system files" with 10 more modules in an Extended Boot Block;
// - "split": "few large" in gap placement with 15 ROM holes, whose gaps are too small
//   for the largest modules, so they are split.
// When the system has too few files, modules are generated data of a similar kind.
// Also some builds on one thread, and the peak memory of every build.
// Targets: a build takes at most 0.6 times one compression pass over its input; peak
// memory stays under 3 x BiosSize + 16 MB; fwforge-inspect plan of today's mix costs at
// most 1.2 times its build, a plan that fails (and searches for changes) at most 5 times.
// Usage: image_build_bench [BIN_DIR [MIX]]   (where fwforge and fwforge-lzh are; MIX
// builds only the mix of that name); ROUNDS=n sets the rounds, KEEP=1 keeps the inputs.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

extern char** environ;

namespace {

constexpr std::uint32_t kBiosSize = 16 * 1024 * 1024;
constexpr std::size_t kModules = 200;
constexpr int kRounds = 3;

// The regular files under `roots` with their sizes, sorted by size, then name.
std::vector<std::pair<std::uintmax_t, fs::path>> FilesUnder(
    std::initializer_list<const char*> roots) {
    std::vector<std::pair<std::uintmax_t, fs::path>> found;
    for (const char* root : roots) {
        std::error_code ec;
        fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied,
                                            ec);
        for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            std::error_code sec;
            if (!it->is_regular_file(sec) || it->is_symlink(sec)) continue;
            const std::uintmax_t size = it->file_size(sec);
            if (!sec) found.emplace_back(size, it->path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

// Regular files of at least 1 KB under the usual system folders, in a stable order.
std::vector<fs::path> GatherSources() {
    std::vector<fs::path> found;
    for (const auto& [size, path] : FilesUnder({"/usr/bin", "/usr/lib", "/usr/share/doc",
                                                "/usr/share/common-licenses", "/usr/include"})) {
        if (size >= 1024) found.push_back(path);
    }
    std::sort(found.begin(), found.end());
    // Spread the picks over everything found, so programs, libraries and text all come in.
    std::vector<fs::path> picked;
    const std::size_t step = std::max<std::size_t>(1, found.size() / (kModules * 4));
    for (std::size_t i = 0; i < found.size() && picked.size() < kModules * 4; i += step) {
        picked.push_back(found[i]);
    }
    return picked;
}

// `size` bytes taken from the sources in turn, starting at `next`: whole files, the
// last one cut off, as a module made of real data of that size.
std::vector<char> TakeFrom(const std::vector<fs::path>& sources, std::size_t& next,
                           std::size_t size) {
    std::vector<char> bytes;
    bytes.reserve(size);
    for (std::size_t tries = 0; bytes.size() < size && tries < sources.size(); ++tries) {
        std::ifstream in(sources[next++ % sources.size()], std::ios::binary);
        std::vector<char> chunk(size - bytes.size());
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + in.gcount());
    }
    return bytes;
}

void Write(const fs::path& to, const std::vector<char>& bytes) {
    std::ofstream(to, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct Measure {
    double seconds = 0;
    double cpu_seconds = 0;
    double peak_mb = 0;
};

// Runs a program in `dir` and returns its wall time and peak memory; exits when it
// fails or ends with another status than `expected`.
Measure Run(const fs::path& dir, std::vector<std::string> args,
            const std::vector<std::string>& extra_env, int expected = 0) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_text(extra_env);
    for (char** e = environ; *e; ++e) env_text.emplace_back(*e);
    std::vector<char*> envp;
    for (std::string& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);

    const fs::path here = fs::current_path();
    fs::current_path(dir);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    fs::current_path(here);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage usage{};
    if (spawned != 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != expected) {
        std::fprintf(stderr, "failed: %s %s in %s\n", args[0].c_str(), args[1].c_str(),
                     dir.c_str());
        std::exit(1);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const auto cpu = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return {seconds, cpu(usage.ru_utime) + cpu(usage.ru_stime), usage.ru_maxrss / 1024.0};
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Whole regular files of 2 KB to 600 KB under the usual system folders, by size.
std::vector<std::pair<std::uintmax_t, fs::path>> GatherWholeFiles() {
    std::vector<std::pair<std::uintmax_t, fs::path>> found =
        FilesUnder({"/usr/lib", "/usr/bin", "/usr/include", "/usr/share/common-licenses"});
    std::erase_if(found, [](const auto& f) { return f.first < 2048 || f.first > 600 * 1024; });
    return found;
}

// Data of the kind system files hold, for systems without enough of them: runs of text
// from a small vocabulary, tables of small numbers, repeats of earlier bytes and noise.
std::vector<char> Generated(std::size_t size, std::uint32_t seed) {
    static const char* const kWords[] = {
        "the ",     "license ",  "int ",    "return ",  "struct ", "const ",
        "char ",    "void ",     "static ", "include ", "define ", "software ",
        "without ", "warranty ", "copy ",   "of ",      "to ",     "and ",
        "or ",      "if ",       "else ",   "for ",     "while ",  "unsigned ",
        "\n",       "\n#",       "(",       ") ",       "{\n",     "}\n",
        "; ",       "= ",        "0x",      "size_t ",  "buffer ", "file "};
    std::uint32_t state = seed * 2654435761u + 1;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    std::vector<char> bytes;
    bytes.reserve(size);
    while (bytes.size() < size) {
        std::size_t run = 64 + next() % 1024;
        switch (next() % 4) {
            case 0:
                while (bytes.size() < size && run-- > 0) {
                    for (const char* w = kWords[next() % std::size(kWords)]; *w; ++w) {
                        bytes.push_back(*w);
                    }
                }
                break;
            case 1:
                for (std::size_t i = 0; i < run; ++i) {
                    bytes.push_back(static_cast<char>(i % 4 == 0 ? next() % 32 : 0));
                }
                break;
            case 2:
                if (bytes.size() > 4096) {
                    const std::size_t from = bytes.size() - 1 - next() % 4096;
                    for (std::size_t i = 0; i < run; ++i) bytes.push_back(bytes[from + i]);
                    break;
                }
                [[fallthrough]];
            default:
                for (std::size_t i = 0; i < run / 4; ++i)
                    bytes.push_back(static_cast<char>(next()));
                break;
        }
    }
    bytes.resize(size);
    return bytes;
}

// A whole file of about `want` bytes that is not used yet, or generated data of that size.
std::vector<char> WholeFileNear(const std::vector<std::pair<std::uintmax_t, fs::path>>& files,
                                std::set<std::size_t>& used, std::size_t want) {
    auto at = std::lower_bound(files.begin(), files.end(),
                               std::make_pair(std::uintmax_t{want}, fs::path()));
    std::size_t up = static_cast<std::size_t>(at - files.begin());
    std::size_t down = up;
    for (int tries = 0; tries < 64 && (up < files.size() || down > 0); ++tries) {
        for (std::size_t i : {up, down - 1}) {
            if (i >= files.size() || used.count(i)) continue;
            const double off = std::abs(double(files[i].first) - double(want)) / double(want);
            if (off > 0.25) continue;
            std::ifstream in(files[i].second, std::ios::binary);
            std::vector<char> bytes(files[i].first);
            in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            if (in.gcount() != static_cast<std::streamsize>(bytes.size())) continue;
            used.insert(i);
            return bytes;
        }
        ++up;
        if (down > 0) --down;
    }
    return Generated(want, static_cast<std::uint32_t>(want + used.size()));
}

struct ModuleFile {
    std::vector<char> bytes;
    bool stored = false;  // compressed = no
};

struct Mix {
    std::string name;
    std::vector<ModuleFile> modules;  // the main BIOS's
    std::vector<ModuleFile> ebb;      // the Extended Boot Block's (none: no EBB)
    // The ROM holes of the gap placement build, as (start, size).
    std::vector<std::pair<std::uint32_t, std::uint32_t>> holes = {{0x800000, 0x10000}};
};

// What is built of each mix besides the gap placement build.
struct MixBuilds {
    const char* name;
    bool sequential;  // also built without the ROM holes
    bool one_thread;  // also built on one thread
};
constexpr MixBuilds kMixes[] = {
    {"today", true, true},      {"system files", true, true}, {"many small", true, false},
    {"few large", true, false}, {"with EBB", true, false},    {"split", false, false},
};

// Today's mix: sizes from 1 KB to 300 KB, most of them small (about 100 KB on average);
// one module in five is stored uncompressed and kept below 64 KB, so the image holds them.
std::vector<ModuleFile> TodaysModules(const std::vector<fs::path>& sources) {
    std::vector<ModuleFile> modules;
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < kModules; ++i) {
        const bool stored = i % 5 == 4;
        const double x = ((i * 7919u) % 1000) / 1000.0;
        std::size_t want = 1024 + static_cast<std::size_t>(x * x * 299 * 1024);
        if (stored) want = std::min<std::size_t>(want, 64 * 1024);
        std::vector<char> bytes = TakeFrom(sources, next, want);
        if (bytes.empty()) bytes = Generated(want, i);
        modules.push_back({std::move(bytes), stored});
    }
    return modules;
}

// About 200 whole files of 2 KB to 600 KB, about 10 MB: a quarter under 8448 bytes
// (an input that short reads window bytes that earlier runs left), the rest skewed
// towards the small end, in a scattered order.
std::vector<ModuleFile> SystemFileModules(
    const std::vector<std::pair<std::uintmax_t, fs::path>>& files, std::set<std::size_t>& used) {
    constexpr std::size_t kSmall = 50, kLarge = 150;
    std::vector<std::size_t> wants;
    for (std::size_t k = 0; k < kSmall; ++k) wants.push_back(2048 + k * (8448 - 2048) / kSmall);
    for (std::size_t k = 0; k < kLarge; ++k) {
        const double u = (k + 0.5) / kLarge;
        wants.push_back(8448 + static_cast<std::size_t>((600 * 1024 - 8448) * std::pow(u, 9)));
    }
    std::vector<ModuleFile> modules(wants.size());
    for (std::size_t k = 0; k < wants.size(); ++k) {
        modules[(k * 73) % wants.size()] = {WholeFileNear(files, used, wants[k]), false};
    }
    return modules;
}

std::vector<ModuleFile> SmallModules(const std::vector<std::pair<std::uintmax_t, fs::path>>& files,
                                     std::set<std::size_t>& used, std::size_t count) {
    std::vector<ModuleFile> modules;
    for (std::size_t k = 0; k < count; ++k) {
        modules.push_back({WholeFileNear(files, used, 2048 + (k * 2459) % (8448 - 2048)), false});
    }
    return modules;
}

std::vector<ModuleFile> LargeModules(const std::vector<fs::path>& sources) {
    std::vector<ModuleFile> modules;
    std::size_t next = sources.size() / 2;
    std::uint32_t seed = 1000;
    for (const double mb : {1.3, 0.4, 2.5, 0.8, 1.6, 0.6, 2.0, 1.0}) {
        const auto want = static_cast<std::size_t>(mb * 1048576);
        std::vector<char> bytes = TakeFrom(sources, next, want);
        if (bytes.size() < want) bytes = Generated(want, ++seed);
        modules.push_back({std::move(bytes), false});
    }
    return modules;
}

std::vector<Mix> MakeMixes() {
    const std::vector<fs::path> sources = GatherSources();
    const std::vector<std::pair<std::uintmax_t, fs::path>> files = GatherWholeFiles();
    std::set<std::size_t> used;
    std::vector<Mix> mixes;
    mixes.push_back({"today", TodaysModules(sources), {}});
    mixes.push_back({"system files", SystemFileModules(files, used), {}});
    mixes.push_back({"many small", SmallModules(files, used, 250), {}});
    mixes.push_back({"few large", LargeModules(sources), {}});
    mixes.push_back({"with EBB", mixes[1].modules, SmallModules(files, used, 10)});
    Mix split{"split", mixes[3].modules, {}};
    // Gaps of 256 KB between holes of 768 KB: the largest modules fit none whole.
    split.holes.clear();
    for (std::uint32_t i = 0; i < 15; ++i)
        split.holes.emplace_back(0x100000 * i + 0x80000, 0xC0000);
    mixes.push_back(std::move(split));
    return mixes;
}

std::string Folder(const std::string& name) {
    std::string folder = name;
    std::replace(folder.begin(), folder.end(), ' ', '-');
    return folder;
}

// Writes the boot block, the module files, their concatenation all.bin and the build
// scripts of `mix` into `dir`.
void WriteMix(const fs::path& dir, const Mix& mix) {
    fs::create_directories(dir / "out");
    std::vector<char> boot(0x10000);
    for (std::size_t i = 0; i < boot.size(); ++i) boot[i] = static_cast<char>(i * 7);
    Write(dir / "boot.bin", boot);

    const char hex[] = "0123456789ABCDEF";
    std::ofstream all(dir / "all.bin", std::ios::binary);
    std::string modules;
    auto add = [&](const ModuleFile& module, char kind, std::size_t index, unsigned id,
                   const char* region) {
        char name_text[32];
        std::snprintf(name_text, sizeof name_text, "%c%zu.bin", kind, index);
        const std::string name = name_text;
        Write(dir / name, module.bytes);
        all.write(module.bytes.data(), static_cast<std::streamsize>(module.bytes.size()));
        modules += std::string("[module]\r\nmoduleid = ") + hex[id >> 4] + hex[id & 15] +
                   "\r\nfile = " + name + "\r\ndestn = 1000:0000\r\n" +
                   (module.stored ? "compressed = no\r\n" : "") + region + "\r\n";
    };
    for (std::size_t i = 0; i < mix.ebb.size(); ++i) {
        add(mix.ebb[i], 'e', i, 0x30 + i % 16, "romregion = ebb\r\n");
    }
    for (std::size_t i = 0; i < mix.modules.size(); ++i) {
        add(mix.modules[i], 'm', i, 0x01 + i % 0x1A, "");
    }
    all.close();
    const std::string head =
        "[init]\r\nfile = boot.bin\r\n\r\n[bios]\r\nfile = bench.rom\r\nsize = 01000000\r\n"
        "bbsize = 00010000\r\nnvramsize = 00010000\r\n" +
        std::string(mix.ebb.empty() ? "" : "maxebbsize = 00020000\r\n") +
        "tag = bench\r\n\r\n[romimage]\r\nversion = 1\r\n\r\n";
    // ROM holes make the build place modules into gaps.
    std::string holes;
    for (const auto& [start, size] : mix.holes) {
        char text[96];
        std::snprintf(text, sizeof text, "[romhole]\r\nstartaddress = %08X\r\nsize = %X\r\n\r\n",
                      start, size);
        holes += text;
    }
    std::ofstream(dir / "sequential.scr", std::ios::binary) << head << modules;
    std::ofstream(dir / "gap.scr", std::ios::binary) << head << modules << holes;
}

bool MakeInputs(const fs::path& dir, const std::string& only) {
    for (const Mix& mix : MakeMixes()) {
        if (only.empty() || only == mix.name) WriteMix(dir / Folder(mix.name), mix);
    }
    return true;
}

// fwforge-inspect plan of the benchmark image against its build, and the plan of the same
// modules in a quarter of the image (which stops, and searches for changes that make it
// fit) against the same build, alternating, in the same run.
// Targets: a plan at most 1.2 times the build; a plan that fails at most 5 times.
void MeasurePlan(const fs::path& bin, const fs::path& dir, int rounds) {
    std::ifstream in(dir / "sequential.scr", std::ios::binary);
    std::string script((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string size = "size = 01000000";
    script.replace(script.find(size), size.size(), "size = 00400000");
    std::ofstream(dir / "quarter.scr", std::ios::binary) << script;
    const std::string inspect = (bin / "fwforge-inspect").string();
    std::vector<double> build, plan, failing, build_cpu, plan_cpu, failing_cpu;
    for (int round = 0; round < rounds; ++round) {
        const Measure b = Run(dir, {(bin / "fwforge").string(), "out", "sequential.scr"}, {});
        const Measure p = Run(dir, {inspect, "plan", "sequential.scr", "--out", "out"}, {});
        const Measure f = Run(dir, {inspect, "plan", "quarter.scr", "--out", "out"}, {}, 1);
        build.push_back(b.seconds);
        plan.push_back(p.seconds);
        failing.push_back(f.seconds);
        build_cpu.push_back(b.cpu_seconds);
        plan_cpu.push_back(p.cpu_seconds);
        failing_cpu.push_back(f.cpu_seconds);
    }
    // Ratios to the build of the same run, in wall time and in CPU time (which a busy
    // machine disturbs less).
    std::printf("%-34s %8s %8s %8s %10s\n", "", "seconds", "ratio", "CPU s", "CPU ratio");
    std::printf("%-34s %8.3f %8.2f %8.3f %10.2f\n", "plan, sequential placement", Median(plan),
                Median(plan) / Median(build), Median(plan_cpu),
                Median(plan_cpu) / Median(build_cpu));
    std::printf("%-34s %8.3f %8.2f %8.3f %10.2f\n", "plan that fails, with suggestions",
                Median(failing), Median(failing) / Median(build), Median(failing_cpu),
                Median(failing_cpu) / Median(build_cpu));
    std::printf(
        "targets: a plan at most 1.2 times the build (ratios: to the build of the "
        "same run); a failing plan at most 5\n");
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path bin = fs::absolute(argc > 1 ? argv[1] : FWFORGE_BINARY_DIR);
    const std::string only = argc > 2 ? argv[2] : "";
    const int rounds =
        std::getenv("ROUNDS") ? std::max(1, std::atoi(std::getenv("ROUNDS"))) : kRounds;
    // A folder of this run's own: benchmarks run side by side do not clear each other's.
    const fs::path dir =
        fs::temp_directory_path() / ("fwforge-image-build-bench-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);

    // The inputs are made in a child process: a spawned program's peak memory counts
    // the peak of the process that spawns it, which so stays small.
    const pid_t maker = fork();
    if (maker == 0) std::_Exit(MakeInputs(dir, only) ? 0 : 1);
    int made = 1;
    if (maker < 0 || waitpid(maker, &made, 0) != maker || made != 0) return 1;

    const std::string fwforge = (bin / "fwforge").string();
    const std::string lzh = (bin / "fwforge-lzh").string();
    struct Subject {
        std::string mix;
        std::string label;
        std::vector<std::string> args;
        std::vector<std::string> env;
        bool reference = false;  // the compression pass the mix's builds are compared with
    };
    std::vector<Subject> subjects;
    for (const MixBuilds& mix : kMixes) {
        if (!only.empty() && only != mix.name) continue;
        const std::string one = "FWFORGE_THREADS=1";
        subjects.push_back({mix.name,
                            "fwforge-lzh c, all module files",
                            {lzh, "c", "all.bin", "all.lzh"},
                            {},
                            true});
        if (mix.sequential) {
            subjects.push_back(
                {mix.name, "sequential placement", {fwforge, "out", "sequential.scr"}, {}});
        }
        subjects.push_back({mix.name, "gap placement", {fwforge, "out", "gap.scr"}, {}});
        if (mix.one_thread && mix.sequential) {
            subjects.push_back({mix.name,
                                "sequential placement, 1 thread",
                                {fwforge, "out", "sequential.scr"},
                                {one}});
        }
        if (mix.one_thread) {
            subjects.push_back(
                {mix.name, "gap placement, 1 thread", {fwforge, "out", "gap.scr"}, {one}});
        }
    }
    if (subjects.empty()) {
        std::fprintf(stderr, "no mix named %s\n", only.c_str());
        return 1;
    }
    std::map<std::string, std::vector<double>> times, cpu_times;
    std::map<std::string, double> peaks;
    for (int round = 0; round < rounds; ++round) {
        for (const Subject& s : subjects) {
            const std::string key = s.mix + "/" + s.label;
            const Measure m = Run(dir / Folder(s.mix), s.args, s.env);
            times[key].push_back(m.seconds);
            cpu_times[key].push_back(m.cpu_seconds);
            peaks[key] = std::max(peaks[key], m.peak_mb);
        }
    }

    const double limit_mb = 3.0 * kBiosSize / 1048576.0 + 16.0;
    std::printf("%d rounds, medians; %u cores\n", rounds, std::thread::hardware_concurrency());
    std::printf("%-48s %8s %8s %8s %10s\n", "", "seconds", "ratio", "CPU s", "peak MB");
    double worst = 0;
    std::string worst_key;
    double reference = 0;
    for (const Subject& s : subjects) {
        const std::string key = s.mix + "/" + s.label;
        if (s.reference) {
            reference = Median(times[key]);
            std::uintmax_t modules = 0;
            for (const auto& entry : fs::directory_iterator(dir / Folder(s.mix))) {
                const std::string name = entry.path().filename().string();
                if (entry.is_regular_file() && name != "all.bin" && name != "boot.bin" &&
                    name.ends_with(".bin")) {
                    ++modules;
                }
            }
            std::printf("%s: %ju modules, %.1f MB of input\n", s.mix.c_str(), modules,
                        fs::file_size(dir / Folder(s.mix) / "all.bin") / 1048576.0);
        }
        const double ratio = Median(times[key]) / reference;
        if (!s.reference && s.env.empty() && ratio > worst) {
            worst = ratio;
            worst_key = key;
        }
        std::printf("  %-46s %8.3f %8.2f %8.3f %10.1f\n", s.label.c_str(), Median(times[key]),
                    ratio, Median(cpu_times[key]), peaks[key]);
    }
    std::printf("highest ratio of a build on the default threads: %.2f (%s)\n", worst,
                worst_key.c_str());
    std::printf("targets: builds at most 0.60 of the compression pass; peak under %.0f MB\n",
                limit_mb);
    if (only.empty() || only == "today") MeasurePlan(bin, dir / Folder("today"), rounds);
    if (std::getenv("KEEP")) {
        std::printf("inputs kept in %s\n", dir.c_str());
    } else {
        fs::remove_all(dir);
    }
    return 0;
}
