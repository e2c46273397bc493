// How fast measureFootprint walks a tree that already sits in the page cache. The tree is built
// once per process inside an owned mock root, and every timed walk is checked against an
// independent count of the same tree, so a walk that gets faster by skipping entries shows up
// as an error instead of as a win.

#include "BenchSupport.h"
#include "base/CleanerError.h"
#include "core/CoreFileSystem.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"

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
#include <vector>

namespace {

// 16 × 8 × 4 leaf folders of 40 files: 20,480 files three folders deep, about the size of a
// large project checkout or a busy cache folder.
constexpr int topFolders = 16;
constexpr int middleFolders = 8;
constexpr int leafFolders = 4;
constexpr int filesPerLeaf = 40;
// Every 37th file gets a second name in its top folder's "linked" folder, every 370th a third
// one in the next top folder, so link sets cross folder boundaries and must be counted once.
constexpr int secondLinkEvery = 37;
constexpr int thirdLinkEvery = 370;

// What an independent walk of the generated tree says the core should report.
struct Expected {
    std::uint64_t allocatedBytes = 0;
    std::uint64_t fileCount = 0;      // regular-file names, every hard link counted
    std::uint64_t directoryCount = 0; // the root included
    std::uint64_t entries = 0;        // every name under the root
};

struct Fixture {
    std::string root;
    std::string home;
    std::string tree;
    Expected expected;
};

Fixture& fixture() {
    static Fixture instance;
    return instance;
}

// Google Benchmark reports a skipped run but still exits 0; this makes a wrong walk fail the
// whole program so bench/run-all stops on it.
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
    std::string contents(bytes, 'm');
    size_t done = 0;
    while (done < contents.size()) {
        ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
        if (n <= 0) {
            ::close(fd);
            fail("write " + path);
        }
        done += static_cast<size_t>(n);
    }
    ::close(fd);
}

void makeLink(const std::string& existing, const std::string& name) {
    if (::link(existing.c_str(), name.c_str()) != 0) {
        fail("link " + name);
    }
}

// Mostly small files, as in real caches, with a few that span many blocks; empty files are
// there because they own no blocks at all.
size_t sizeFor(int index) {
    static constexpr size_t sizes[] = {0, 1, 300, 2'000, 4'096, 5'000, 12'000, 65'536};
    return sizes[static_cast<size_t>(index) % std::size(sizes)];
}

void buildTree(const std::string& tree) {
    makeDir(tree);
    int index = 0;
    for (int t = 0; t < topFolders; ++t) {
        std::string top = tree + "/top" + std::to_string(t);
        makeDir(top);
        makeDir(top + "/linked");
        // Followed, this link would loop back into the tree and inflate every count.
        if (::symlink("..", (top + "/back-to-tree").c_str()) != 0) {
            fail("symlink in " + top);
        }
        for (int m = 0; m < middleFolders; ++m) {
            std::string middle = top + "/mid" + std::to_string(m);
            makeDir(middle);
            for (int l = 0; l < leafFolders; ++l) {
                std::string leaf = middle + "/leaf" + std::to_string(l);
                makeDir(leaf);
                for (int f = 0; f < filesPerLeaf; ++f, ++index) {
                    std::string file = leaf + "/file" + std::to_string(f) + ".dat";
                    writeFile(file, sizeFor(index));
                    if (index % secondLinkEvery == 0) {
                        makeLink(file, top + "/linked/second" + std::to_string(index));
                    }
                    if (index % thirdLinkEvery == 0) {
                        std::string other = tree + "/top" + std::to_string((t + 1) % topFolders);
                        makeDir(other);
                        makeDir(other + "/linked");
                        makeLink(file, other + "/linked/third" + std::to_string(index));
                    }
                }
            }
        }
    }
}

// Counts the tree with the standard library and lstat, sharing no code with the core.
Expected countTree(const std::string& tree) {
    namespace fs = std::filesystem;
    Expected expected;
    expected.directoryCount = 1;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        ++expected.entries;
        struct stat st {};
        if (::lstat(entry.path().c_str(), &st) != 0) {
            fail("lstat " + entry.path().string());
        }
        if (S_ISDIR(st.st_mode)) {
            ++expected.directoryCount;
        } else if (S_ISREG(st.st_mode)) {
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
    f.tree = f.home + "/tree";
    makeDir(f.home);
    // The core takes its home once, at first use, and must never see the real one here.
    ::setenv("SPARROWDECK_HOME", f.home.c_str(), 1);
    if (sd::homeDirectory() != f.home) {
        throw std::runtime_error("fixture home was not taken: " + sd::homeDirectory());
    }
    buildTree(f.tree);
    // Written blocks are settled before anything is counted, so delayed allocation cannot move
    // st_blocks between the independent count and the timed walks.
    ::sync();
    f.expected = countTree(f.tree);
}

std::string describe(const sd::Footprint& got, const Expected& want) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "measured %llu bytes, %llu files, %llu folders; expected %llu, %llu, %llu",
                  static_cast<unsigned long long>(got.allocatedBytes),
                  static_cast<unsigned long long>(got.fileCount),
                  static_cast<unsigned long long>(got.directoryCount),
                  static_cast<unsigned long long>(want.allocatedBytes),
                  static_cast<unsigned long long>(want.fileCount),
                  static_cast<unsigned long long>(want.directoryCount));
    return text;
}

// range(0) == 1 passes a progress block, as the command line does while it shows a spinner.
void BM_MeasureFootprint(benchmark::State& state) {
    const Fixture& f = fixture();
    const bool withProgress = state.range(0) != 0;
    sd::Footprint last;
    std::uint64_t lastEntries = 0;
    for (auto _ : state) {
        std::vector<std::string> warnings;
        sd::FootprintTally tally;
        sd::OperationProgress progress;
        last = sd::measureFootprint(f.tree, std::nullopt, warnings, tally, {},
                                    withProgress ? &progress : nullptr);
        lastEntries = progress.read().items;
        benchmark::DoNotOptimize(last);
        benchmark::DoNotOptimize(tally);
        if (!warnings.empty()) {
            reject(state, "unexpected warning: " + warnings.front());
            break;
        }
    }
    const Expected& want = f.expected;
    if (last.allocatedBytes != want.allocatedBytes || last.fileCount != want.fileCount ||
        last.directoryCount != want.directoryCount) {
        reject(state, describe(last, want));
        return;
    }
    if (withProgress && lastEntries != want.entries) {
        reject(state, "progress counted a different number of entries than the tree holds");
        return;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(want.entries));
    state.counters["files"] = static_cast<double>(want.fileCount);
    state.counters["folders"] = static_cast<double>(want.directoryCount);
    state.counters["allocatedBytes"] = static_cast<double>(want.allocatedBytes);
}

BENCHMARK(BM_MeasureFootprint)
    ->ArgName("progress")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    return sd::bench::runBenchmarks(
        argc, argv, "sparrowdeck_bench_measure",
        [] {
            setUp();
            char line[512];
            std::snprintf(
                line, sizeof line, "tree: %s (%llu entries, %llu files, %llu folders, %llu bytes)",
                fixture().tree.c_str(), static_cast<unsigned long long>(fixture().expected.entries),
                static_cast<unsigned long long>(fixture().expected.fileCount),
                static_cast<unsigned long long>(fixture().expected.directoryCount),
                static_cast<unsigned long long>(fixture().expected.allocatedBytes));
            return std::string(line);
        },
        [] { return fixture().root; });
}
