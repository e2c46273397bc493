// How fast the space-tree scan walks warm trees, and how it spreads them over its workers:
//   - a tree shaped like a home: one cache-like folder that holds most of the entries, a few
//     project folders hard-linked into it, and small folders around them;
//   - a million files, 40 folders × 50 folders × 500 files, scanned with 1, 2, 4, 8 and 16
//     workers: once the cores are busy, more workers must not make the scan slower, or the
//     workers wait on each other (a shared lock or a contended counter on the hot path);
//   - one giant node_modules-like folder of about 300,000 entries in many nested folders, beside
//     small ones: nearly all the work is in one top-level folder, so more workers only help if
//     that folder is split between them.
// The trees are generated once into ${TMPDIR:-/tmp}/SparrowdeckMock-space-scan-bench, which is
// the fixture home of the process, and kept between runs (delete the folder to rebuild them).
// Every timed scan is checked against an independent count of its tree made in the same
// process, so a scan that gets faster by skipping entries shows up as an error instead of as a
// win. The worker count is the argument.

#include "BenchSupport.h"
#include "base/CleanerError.h"
#include "core/PathRules.h"
#include "space/SpaceTreeScanner.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// 64 packages × 10 versions × 30 files in the cache (19,200 files), 16 projects × 8 folders ×
// 20 files beside it (2,560), every 9th project file a hard link into the cache.
constexpr int packages = 64;
constexpr int versions = 10;
constexpr int filesPerVersion = 30;
constexpr int projects = 16;
constexpr int projectFolders = 8;
constexpr int filesPerProjectFolder = 20;
constexpr int linkEvery = 9;

struct Expected {
    std::uint64_t allocatedBytes = 0; // regular files, each inode once
    std::uint64_t fileCount = 0;      // regular-file names, every link counted
    std::uint64_t entries = 0;        // every name under the root
};

// One generated tree under the fixture home, counted independently the first time it is used.
struct Tree {
    std::string path;
    Expected expected;
};

struct Fixture {
    std::string home;
    std::map<std::string, Tree> trees; // by name
};

Fixture& fixture() {
    static Fixture instance;
    return instance;
}

using sd::bench::reject;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void makeDir(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        fail("mkdir " + path);
    }
}

void writeFile(const std::string& path, size_t bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail("create " + path);
    }
    std::string contents(bytes, 's');
    if (!contents.empty() && ::write(fd, contents.data(), contents.size()) < 0) {
        ::close(fd);
        fail("write " + path);
    }
    ::close(fd);
}

// Mostly small files, as in real caches; a few span many blocks, some own none at all.
size_t sizeFor(int index) {
    static constexpr size_t sizes[] = {0, 120, 900, 3'000, 4'096, 9'000, 20'000, 150'000};
    return sizes[static_cast<size_t>(index) % std::size(sizes)];
}

void buildHomeLike(const std::string& home) {
    makeDir(home + "/.cache");
    int index = 0;
    for (int p = 0; p < packages; ++p) {
        std::string package = home + "/.cache/pkg" + std::to_string(p);
        makeDir(package);
        for (int v = 0; v < versions; ++v) {
            std::string version = package + "/v" + std::to_string(v);
            makeDir(version);
            for (int f = 0; f < filesPerVersion; ++f) {
                writeFile(version + "/f" + std::to_string(f), sizeFor(index++));
            }
        }
    }
    makeDir(home + "/Projects");
    for (int p = 0; p < projects; ++p) {
        std::string project = home + "/Projects/p" + std::to_string(p);
        makeDir(project);
        for (int d = 0; d < projectFolders; ++d) {
            std::string folder = project + "/src" + std::to_string(d);
            makeDir(folder);
            for (int f = 0; f < filesPerProjectFolder; ++f, ++index) {
                std::string file = folder + "/m" + std::to_string(f);
                if (index % linkEvery == 0) {
                    std::string target = home + "/.cache/pkg" + std::to_string(index % packages) +
                                         "/v" + std::to_string(index % versions) + "/f" +
                                         std::to_string(index % filesPerVersion);
                    if (::link(target.c_str(), file.c_str()) != 0) {
                        fail("link " + file);
                    }
                } else {
                    writeFile(file, sizeFor(index));
                }
            }
        }
        // Followed, this link would loop back into the home and count it twice.
        if (::symlink("../..", (project + "/home-again").c_str()) != 0) {
            fail("symlink in " + project);
        }
    }
    for (const char* small : {"/Documents", "/Downloads", "/.config"}) {
        makeDir(home + small);
        for (int f = 0; f < 40; ++f) {
            writeFile(home + small + "/note" + std::to_string(f), sizeFor(f));
        }
    }
}

// 40 folders × 50 folders × 500 files; one file in 25 holds a few KB, the rest are empty, as in
// big caches of small entries.
void buildMillion(const std::string& root) {
    for (int top = 0; top < 40; ++top) {
        std::string outer = root + "/top" + std::to_string(top);
        makeDir(outer);
        for (int mid = 0; mid < 50; ++mid) {
            std::string leaf = outer + "/mid" + std::to_string(mid);
            makeDir(leaf);
            for (int f = 0; f < 500; ++f) {
                size_t bytes = (top + mid + f) % 25 == 0 ? 1000 + (f * 37 + mid) % 7000 : 0;
                writeFile(leaf + "/f" + std::to_string(f), bytes);
            }
        }
    }
}

// A package as npm lays it out: metadata at the top, sources in nested folders, and sometimes
// its own node_modules with a few more packages. Most files are small; a third are empty.
void buildPackage(const std::string& folder, int seed, int nestedDependencies) {
    makeDir(folder);
    for (const char* name : {"package.json", "README.md", "LICENSE", "index.js"}) {
        writeFile(folder + "/" + name, 300 + static_cast<size_t>(seed % 2000));
    }
    auto filesIn = [&](const std::string& dir, int count) {
        makeDir(dir);
        for (int f = 0; f < count; ++f) {
            writeFile(dir + "/m" + std::to_string(f) + ".js",
                      (seed + f) % 3 == 0 ? 0
                                          : 100 + static_cast<size_t>((seed * 31 + f * 97) % 5000));
        }
    };
    makeDir(folder + "/lib");
    for (int d = 0; d < 6; ++d) {
        filesIn(folder + "/lib/part" + std::to_string(d), 20);
    }
    makeDir(folder + "/dist");
    for (int d = 0; d < 3; ++d) {
        filesIn(folder + "/dist/build" + std::to_string(d), 20);
    }
    filesIn(folder + "/types", 20);
    if (nestedDependencies > 0) {
        makeDir(folder + "/node_modules");
        for (int n = 0; n < nestedDependencies; ++n) {
            std::string dependency = folder + "/node_modules/dep" + std::to_string(n);
            makeDir(dependency);
            writeFile(dependency + "/package.json", 400);
            filesIn(dependency + "/lib", 25);
            filesIn(dependency + "/lib/internal", 24);
        }
    }
}

// One project whose node_modules holds about 280,000 entries in 1,200 packages (a tenth of them
// scoped, every fourth with dependencies of its own), beside a few small folders of a home.
void buildGiantFolder(const std::string& root) {
    makeDir(root + "/Projects");
    std::string project = root + "/Projects/webapp";
    makeDir(project);
    writeFile(project + "/package.json", 1200);
    std::string modules = project + "/node_modules";
    makeDir(modules);
    for (int p = 0; p < 1200; ++p) {
        std::string folder;
        if (p % 10 == 0) {
            std::string scope = modules + "/@scope" + std::to_string(p % 40);
            makeDir(scope);
            folder = scope + "/pkg" + std::to_string(p);
        } else {
            folder = modules + "/pkg" + std::to_string(p);
        }
        buildPackage(folder, p, p % 4 == 0 ? 2 : 0);
    }
    for (const char* small : {"/Documents", "/Downloads", "/Music", "/.config"}) {
        makeDir(root + small);
        for (int d = 0; d < 5; ++d) {
            std::string dir = root + small + "/d" + std::to_string(d);
            makeDir(dir);
            for (int f = 0; f < 40; ++f) {
                writeFile(dir + "/f" + std::to_string(f), sizeFor(f + d));
            }
        }
    }
}

// Counts the tree with the standard library and lstat, sharing no code with the core.
Expected countTree(const std::string& home) {
    namespace fs = std::filesystem;
    Expected expected;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(home)) {
        ++expected.entries;
        struct stat st {};
        if (::lstat(entry.path().c_str(), &st) != 0) {
            fail("lstat " + entry.path().string());
        }
        if (S_ISREG(st.st_mode)) {
            ++expected.fileCount;
            if (seen.emplace(st.st_dev, st.st_ino).second) {
                expected.allocatedBytes += static_cast<std::uint64_t>(st.st_blocks) * 512;
            }
        }
    }
    return expected;
}

// The fixture home, kept between runs. Its real path, since the home may hold no link.
std::string keptHome() {
    const char* tmp = std::getenv("TMPDIR");
    std::error_code error;
    std::filesystem::path base =
        std::filesystem::canonical(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp", error);
    if (error) {
        throw std::runtime_error("cannot resolve the temporary folder: " + error.message());
    }
    return (base / "SparrowdeckMock-space-scan-bench").string();
}

std::string setUp() {
    Fixture& f = fixture();
    f.home = keptHome();
    makeDir(f.home);
    ::setenv("SPARROWDECK_HOME", f.home.c_str(), 1);
    if (sd::homeDirectory() != f.home) {
        throw std::runtime_error("fixture home was not taken: " + sd::homeDirectory());
    }
    return "home: " + f.home;
}

// The tree `name`, generated by `build` unless a finished one is kept from an earlier run, and
// counted. A marker beside the tree says it was finished; a tree without one is built afresh.
const Tree& tree(const std::string& name, void (*build)(const std::string&)) {
    Fixture& f = fixture();
    if (auto found = f.trees.find(name); found != f.trees.end()) {
        return found->second;
    }
    Tree made;
    made.path = f.home + "/" + name;
    const std::string marker = f.home + "/." + name + ".complete";
    if (::access(marker.c_str(), F_OK) != 0) {
        std::fprintf(stderr, "building %s (once; it is kept for later runs)\n", made.path.c_str());
        std::filesystem::remove_all(made.path);
        makeDir(made.path);
        build(made.path);
        ::sync();
        writeFile(marker, 0);
    }
    made.expected = countTree(made.path);
    std::fprintf(stderr, "%s: %llu entries, %llu files, %llu bytes\n", made.path.c_str(),
                 static_cast<unsigned long long>(made.expected.entries),
                 static_cast<unsigned long long>(made.expected.fileCount),
                 static_cast<unsigned long long>(made.expected.allocatedBytes));
    return f.trees.emplace(name, std::move(made)).first->second;
}

// True when the scan saw exactly the tree; otherwise rejects the run, saying what differed.
bool matches(benchmark::State& state, const sd::SpaceScanResult& result, const Expected& want) {
    const sd::SpaceNode& root = result.tree.root;
    if (root.bytes == want.allocatedBytes && root.fileCount == want.fileCount &&
        result.tree.scannedNodeCount == want.entries && result.tree.warnings.empty()) {
        return true;
    }
    char text[256];
    std::snprintf(text, sizeof text,
                  "scanned %llu bytes, %llu files, %llu entries, %zu warnings; expected "
                  "%llu, %llu, %llu",
                  static_cast<unsigned long long>(root.bytes),
                  static_cast<unsigned long long>(root.fileCount),
                  static_cast<unsigned long long>(result.tree.scannedNodeCount),
                  result.tree.warnings.size(), static_cast<unsigned long long>(want.allocatedBytes),
                  static_cast<unsigned long long>(want.fileCount),
                  static_cast<unsigned long long>(want.entries));
    reject(state, text);
    return false;
}

// The smallest share of the entries one worker read, when the scanner says how many each read.
// Without it, splits only show that the folder was cut, not that every worker got a part.
template <typename Statistics>
std::optional<double> smallestWorkerShare(const Statistics& statistics) {
    if constexpr (requires { statistics.entriesPerWorker; }) {
        double total = 0;
        double least = -1;
        for (auto entries : statistics.entriesPerWorker) {
            total += static_cast<double>(entries);
            least = least < 0 ? static_cast<double>(entries)
                              : std::min(least, static_cast<double>(entries));
        }
        if (total > 0) {
            return least / total;
        }
    }
    return std::nullopt;
}

// User and system time of every thread of the process so far. Unlike wall time it hardly moves
// when other work shares the machine, so workers that spin or wait on each other show in it
// even on a busy machine.
double processCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Times scans of one tree with the worker count given as the argument, and reports how the
// work was shared out: workers, work items and splits per scan, the process's CPU time per scan,
// and the smallest worker's share of the entries where the scanner tells it.
void scanTree(benchmark::State& state, const Tree& tree) {
    sd::SpaceTreeScanner scanner;
    scanner.workerCount = static_cast<unsigned>(state.range(0));
    scanner.budget = 600;
    sd::SpaceScanResult last;
    std::uint64_t splits = 0;
    std::uint64_t workItems = 0;
    double smallestShare = 1;
    bool sharesKnown = false;
    const double cpuBefore = processCpuSeconds();
    for (auto _ : state) {
        last = scanner.scan(tree.path);
        splits += scanner.statistics().splits;
        workItems += scanner.statistics().workItems;
        if (std::optional<double> share = smallestWorkerShare(scanner.statistics())) {
            sharesKnown = true;
            smallestShare = std::min(smallestShare, *share);
        }
        benchmark::DoNotOptimize(last);
    }
    const double cpuSeconds = processCpuSeconds() - cpuBefore;
    if (!matches(state, last, tree.expected)) {
        return;
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(tree.expected.entries));
    state.counters["entries"] = static_cast<double>(tree.expected.entries);
    state.counters["workers"] = static_cast<double>(scanner.statistics().workers);
    state.counters["workItemsPerScan"] = static_cast<double>(workItems) / iterations;
    state.counters["splitsPerScan"] = static_cast<double>(splits) / iterations;
    state.counters["cpuMsPerScan"] = cpuSeconds * 1000 / iterations;
    if (sharesKnown) {
        state.counters["smallestWorkerShare"] = smallestShare;
    }
}

void BM_SpaceScan(benchmark::State& state) {
    scanTree(state, tree("home-like", buildHomeLike));
}

void BM_SpaceScanMillion(benchmark::State& state) {
    scanTree(state, tree("million", buildMillion));
}

void BM_SpaceScanGiantFolder(benchmark::State& state) {
    scanTree(state, tree("giant-folder", buildGiantFolder));
}

BENCHMARK(BM_SpaceScan)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Five scans per worker count, reported by their median and their fastest: on a shared machine
// other work only ever adds time, so the fastest of five is the one it disturbed least, and one
// slow scan must not read as contention. bench/space-scaling reads these.
double fastest(const std::vector<double>& times) {
    return times.empty() ? 0 : *std::min_element(times.begin(), times.end());
}

BENCHMARK(BM_SpaceScanMillion)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->Repetitions(5)
    ->ComputeStatistics("min", fastest)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_SpaceScanGiantFolder)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->Repetitions(5)
    ->ComputeStatistics("min", fastest)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    // The worker counts are timed in random order, repetition by repetition, so that a change in
    // the machine's load during the run spreads over all counts instead of landing on a few. An
    // explicit --benchmark_enable_random_interleaving=false later on the command line wins.
    std::vector<char*> arguments(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + (argc > 0 ? 1 : 0), interleave.data());
    arguments.push_back(nullptr);
    // The trees are kept for the next run, so nothing is torn down.
    return sd::bench::runBenchmarks(static_cast<int>(arguments.size() - 1), arguments.data(),
                                    "sparrowdeck_bench_space", setUp, [] { return std::string(); });
}
