// How fast the space-tree scan walks a warm tree shaped like a home: one cache-like folder that
// holds most of the entries, a few project folders hard-linked into it, and small folders
// around them. The tree is built once per process inside an owned mock root, and every timed
// scan is checked against an independent count, so a scan that gets faster by skipping entries
// shows up as an error instead of as a win. The worker count is the argument: with one folder
// holding most of the home, more workers only help if that folder is split between them.

#include "BenchSupport.h"
#include "base/CleanerError.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "space/SpaceTreeScanner.h"

#include <benchmark/benchmark.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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

struct Fixture {
    std::string root;
    std::string home;
    Expected expected;
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

void buildHome(const std::string& home) {
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

void setUp() {
    Fixture& f = fixture();
    f.root = sd::MockRoots::create();
    f.home = f.root + "/home";
    makeDir(f.home);
    ::setenv("SPARROWDECK_HOME", f.home.c_str(), 1);
    if (sd::homeDirectory() != f.home) {
        throw std::runtime_error("fixture home was not taken: " + sd::homeDirectory());
    }
    buildHome(f.home);
    ::sync();
    f.expected = countTree(f.home);
}

void BM_SpaceScan(benchmark::State& state) {
    const Fixture& f = fixture();
    sd::SpaceTreeScanner scanner;
    scanner.workerCount = static_cast<unsigned>(state.range(0));
    scanner.budget = 600;
    sd::SpaceScanResult last;
    std::uint64_t splits = 0;
    for (auto _ : state) {
        last = scanner.scan(f.home);
        splits += scanner.statistics().splits;
        benchmark::DoNotOptimize(last);
    }
    const Expected& want = f.expected;
    const sd::SpaceNode& root = last.tree.root;
    if (root.bytes != want.allocatedBytes || root.fileCount != want.fileCount ||
        last.tree.scannedNodeCount != want.entries || !last.tree.warnings.empty()) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "scanned %llu bytes, %llu files, %llu entries; expected "
                      "%llu, %llu, %llu",
                      static_cast<unsigned long long>(root.bytes),
                      static_cast<unsigned long long>(root.fileCount),
                      static_cast<unsigned long long>(last.tree.scannedNodeCount),
                      static_cast<unsigned long long>(want.allocatedBytes),
                      static_cast<unsigned long long>(want.fileCount),
                      static_cast<unsigned long long>(want.entries));
        reject(state, text);
        return;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(want.entries));
    state.counters["entries"] = static_cast<double>(want.entries);
    state.counters["nodes"] = static_cast<double>(root.children.size());
    state.counters["splitsPerScan"] =
        static_cast<double>(splits) / static_cast<double>(state.iterations());
}

BENCHMARK(BM_SpaceScan)
    ->ArgName("workers")
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    return sd::bench::runBenchmarks(
        argc, argv, "sparrowdeck_bench_space",
        [] {
            setUp();
            char line[512];
            std::snprintf(line, sizeof line, "home: %s (%llu entries, %llu files, %llu bytes)",
                          fixture().home.c_str(),
                          static_cast<unsigned long long>(fixture().expected.entries),
                          static_cast<unsigned long long>(fixture().expected.fileCount),
                          static_cast<unsigned long long>(fixture().expected.allocatedBytes));
            return std::string(line);
        },
        [] { return fixture().root; });
}
