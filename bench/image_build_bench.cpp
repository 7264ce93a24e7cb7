// Builds a 16 MB image (32-bit mode) from 200 modules of real data gathered from the
// system at run time (programs, libraries, text; 1 KB to 300 KB each), in sequential
// and in gap placement, with the real fwforge, and times each build against one
// `fwforge-lzh c` pass over the concatenated module files, measured in the same run:
// the three alternate, three rounds, and the medians are compared. Also the builds on
// one thread, and the peak memory of every build.
// Targets: a build takes at most 0.6 times one compression pass over its input; peak
// memory stays under 3 x BiosSize + 16 MB; fwforge-inspect plan costs at most 1.2 times
// the build, a plan that fails (and searches for changes) at most 5 times.
// Usage: image_build_bench [BIN_DIR]   (where fwforge and fwforge-lzh are)

#include <spawn.h>
#include <unistd.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>
#include <fcntl.h>
#include <string>
#include <vector>

namespace fs = std::filesystem;

extern char** environ;

namespace {

constexpr std::uint32_t kBiosSize = 16 * 1024 * 1024;
constexpr std::size_t kModules = 200;
constexpr int kRounds = 3;

// Regular files of at least 1 KB under the usual system folders, in a stable order.
std::vector<fs::path> GatherSources() {
    std::vector<fs::path> found;
    for (const char* root :
         {"/usr/bin", "/usr/lib", "/usr/share/doc", "/usr/share/common-licenses", "/usr/include"}) {
        std::error_code ec;
        fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied,
                                            ec);
        for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            std::error_code sec;
            if (!it->is_regular_file(sec) || it->is_symlink(sec)) continue;
            if (it->file_size(sec) >= 1024) found.push_back(it->path());
        }
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

// Writes the boot block, 200 module files, their concatenation all.bin and the two
// build scripts into `dir`.
bool MakeInputs(const fs::path& dir) {
    const std::vector<fs::path> sources = GatherSources();
    if (sources.empty()) {
        std::fprintf(stderr, "no system files found to build modules from\n");
        return false;
    }
    std::vector<char> boot(0x10000);
    for (std::size_t i = 0; i < boot.size(); ++i) boot[i] = static_cast<char>(i * 7);
    Write(dir / "boot.bin", boot);

    // Sizes from 1 KB to 300 KB, most of them small (about 100 KB on average); one
    // module in five is stored uncompressed and kept below 64 KB, so the image holds them.
    std::string modules;
    std::ofstream all(dir / "all.bin", std::ios::binary);
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < kModules; ++i) {
        const bool stored = i % 5 == 4;
        const double x = ((i * 7919u) % 1000) / 1000.0;
        std::size_t want = 1024 + static_cast<std::size_t>(x * x * 299 * 1024);
        if (stored) want = std::min<std::size_t>(want, 64 * 1024);
        const std::vector<char> bytes = TakeFrom(sources, next, want);
        const std::string name = "m" + std::to_string(i) + ".bin";
        Write(dir / name, bytes);
        all.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        const char hex[] = "0123456789ABCDEF";
        const unsigned id = 0x01 + i % 0x1A;
        modules += std::string("[module]\r\nmoduleid = ") + hex[id >> 4] + hex[id & 15] +
                   "\r\nfile = " + name + "\r\ndestn = 1000:0000\r\n" +
                   (stored ? "compressed = no\r\n" : "") + "\r\n";
    }
    all.close();
    const std::string head =
        "[init]\r\nfile = boot.bin\r\n\r\n[bios]\r\nfile = bench.rom\r\nsize = 01000000\r\n"
        "bbsize = 00010000\r\nnvramsize = 00010000\r\ntag = bench\r\n\r\n[romimage]\r\n"
        "version = 1\r\n\r\n";
    // A ROM hole in the middle of the image makes the build place modules into gaps.
    const std::string hole = "[romhole]\r\nstartaddress = 00800000\r\nsize = 10000\r\n\r\n";
    std::ofstream(dir / "sequential.scr", std::ios::binary) << head << modules;
    std::ofstream(dir / "gap.scr", std::ios::binary) << head << modules << hole;

    return true;
}

// fwforge-inspect plan of the benchmark image against its build, and the plan of the same
// modules in a quarter of the image (which stops, and searches for changes that make it
// fit) against the same build, alternating, in the same run.
// Targets: a plan at most 1.2 times the build; a plan that fails at most 5 times.
void MeasurePlan(const fs::path& bin, const fs::path& dir) {
    std::ifstream in(dir / "sequential.scr", std::ios::binary);
    std::string script((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string size = "size = 01000000";
    script.replace(script.find(size), size.size(), "size = 00400000");
    std::ofstream(dir / "quarter.scr", std::ios::binary) << script;
    const std::string inspect = (bin / "fwforge-inspect").string();
    std::vector<double> build, plan, failing, build_cpu, plan_cpu, failing_cpu;
    for (int round = 0; round < kRounds; ++round) {
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
    std::printf("targets: a plan at most 1.2 times the build (ratios: to the build of the "
                "same run); a failing plan at most 5\n");
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path bin = fs::absolute(argc > 1 ? argv[1] : FWFORGE_BINARY_DIR);
    const fs::path dir = fs::temp_directory_path() / "fwforge-image-build-bench";
    fs::remove_all(dir);
    fs::create_directories(dir / "out");

    // The inputs are made in a child process: a spawned program's peak memory counts
    // the peak of the process that spawns it, which so stays small.
    const pid_t maker = fork();
    if (maker == 0) std::_Exit(MakeInputs(dir) ? 0 : 1);
    int made = 1;
    if (maker < 0 || waitpid(maker, &made, 0) != maker || made != 0) return 1;
    const std::uint64_t input_bytes = fs::file_size(dir / "all.bin");

    const std::string fwforge = (bin / "fwforge").string();
    const std::string lzh = (bin / "fwforge-lzh").string();
    struct Subject {
        const char* label;
        std::vector<std::string> args;
        std::vector<std::string> env;
    };
    const std::vector<Subject> subjects = {
        {"fwforge-lzh c, all module files", {lzh, "c", "all.bin", "all.lzh"}, {}},
        {"sequential placement", {fwforge, "out", "sequential.scr"}, {}},
        {"gap placement", {fwforge, "out", "gap.scr"}, {}},
        {"sequential placement, 1 thread", {fwforge, "out", "sequential.scr"},
         {"FWFORGE_THREADS=1"}},
        {"gap placement, 1 thread", {fwforge, "out", "gap.scr"}, {"FWFORGE_THREADS=1"}},
    };
    std::map<std::string, std::vector<double>> times, cpu_times;
    std::map<std::string, double> peaks;
    for (int round = 0; round < kRounds; ++round) {
        for (const Subject& s : subjects) {
            const Measure m = Run(dir, s.args, s.env);
            times[s.label].push_back(m.seconds);
            cpu_times[s.label].push_back(m.cpu_seconds);
            peaks[s.label] = std::max(peaks[s.label], m.peak_mb);
        }
    }

    const double reference = Median(times[subjects[0].label]);
    const double limit_mb = 3.0 * kBiosSize / 1048576.0 + 16.0;
    std::printf("%zu modules, %.1f MB of input; %d rounds, medians; %u cores\n", kModules,
                input_bytes / 1048576.0, kRounds, std::thread::hardware_concurrency());
    std::printf("%-34s %8s %8s %8s %10s\n", "", "seconds", "ratio", "CPU s", "peak MB");
    for (const Subject& s : subjects) {
        std::printf("%-34s %8.3f %8.2f %8.3f %10.1f\n", s.label, Median(times[s.label]),
                    Median(times[s.label]) / reference, Median(cpu_times[s.label]),
                    peaks[s.label]);
    }
    std::printf("targets: builds at most 0.60 of the compression pass; peak under %.0f MB\n",
                limit_mb);
    MeasurePlan(bin, dir);
    if (!std::getenv("KEEP")) fs::remove_all(dir);
    return 0;
}
