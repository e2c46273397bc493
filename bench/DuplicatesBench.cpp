// How fast the duplicate comparer reads and hashes files that already sit in the page cache:
// the full-stage SHA-256 of one large file on one thread (the figure to hold at 1.5 GB/s per
// core or more), two copies settled side by side, the same digest of a buffer in memory for
// scale, and the whole search over a generated corpus. Every timed result is checked against an
// independent answer, so a run that gets faster by reading less shows up as an error instead of as
// a win.

#include "BenchSupport.h"
#include "base/CleanerError.h"
#include "base/UniqueFd.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"
#include "review/ContentDigest.h"
#include "review/DuplicateComparer.h"

#include <benchmark/benchmark.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::uint64_t mib = 1'048'576;
constexpr std::uint64_t hashedFileBytes = 512 * mib;

// The corpus: groups of two or three copies of files between 2 and 9 MiB, as many same-size
// decoys that differ only in the middle (read whole, then told apart), and single files.
constexpr int copyGroups = 24;
constexpr int decoyPairs = 12;
constexpr int singles = 40;

struct Fixture {
    std::string root;
    std::string home;
    std::string hashedFile;
    std::string hashedDigest; // as sha256sum prints it
    std::string corpus;
    size_t expectedGroups = 0;
    std::uint64_t bytesCompared = 0; // bytes of the files the full stage must settle
};

Fixture& fixture() {
    static Fixture instance;
    return instance;
}

double threadCpuSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
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

std::string randomBytes(std::uint64_t size, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string out(size, '\0');
    for (std::uint64_t i = 0; i + 8 <= size; i += 8) {
        std::uint64_t word = random();
        std::memcpy(out.data() + i, &word, 8);
    }
    return out;
}

void writeFile(const std::string& path, const std::string& bytes) {
    sd::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) {
        fail("create " + path);
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            fail("write " + path);
        }
        done += static_cast<size_t>(n);
    }
}

std::string shellOutput(const std::string& command) {
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fail("popen " + command);
    }
    std::string out;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        out.append(buffer, n);
    }
    if (::pclose(pipe) != 0) {
        throw std::runtime_error("command failed: " + command);
    }
    return out;
}

void buildCorpus(Fixture& f) {
    makeDir(f.corpus);
    std::uint64_t seed = 1;
    for (int g = 0; g < copyGroups; ++g) {
        std::uint64_t size = (2 + static_cast<std::uint64_t>(g % 8)) * mib + 4096 * g;
        std::string bytes = randomBytes(size, seed++);
        int copies = 2 + g % 2;
        for (int c = 0; c < copies; ++c) {
            std::string folder = f.corpus + "/copies" + std::to_string(c);
            makeDir(folder);
            writeFile(folder + "/g" + std::to_string(g) + ".bin", bytes);
        }
        f.bytesCompared += size * static_cast<std::uint64_t>(copies);
        ++f.expectedGroups;
    }
    makeDir(f.corpus + "/decoys");
    for (int d = 0; d < decoyPairs; ++d) {
        std::uint64_t size = 6 * mib + 512 * d;
        std::string bytes = randomBytes(size, seed++);
        writeFile(f.corpus + "/decoys/d" + std::to_string(d) + "a", bytes);
        bytes[size / 2] = static_cast<char>(~bytes[size / 2]);
        writeFile(f.corpus + "/decoys/d" + std::to_string(d) + "b", bytes);
        f.bytesCompared += 2 * size;
    }
    makeDir(f.corpus + "/singles");
    for (int s = 0; s < singles; ++s) {
        writeFile(f.corpus + "/singles/s" + std::to_string(s),
                  randomBytes(3 * mib + 777 * static_cast<std::uint64_t>(s + 1), seed++));
    }
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
    f.hashedFile = f.home + "/large.bin";
    writeFile(f.hashedFile, randomBytes(hashedFileBytes, 42));
    f.hashedDigest = shellOutput("sha256sum '" + f.hashedFile + "'").substr(0, 64);
    f.corpus = f.home + "/corpus";
    buildCorpus(f);
    // Every byte is read once so the timed runs find it all in the page cache.
    shellOutput("cat '" + f.hashedFile + "' >/dev/null && find '" + f.corpus +
                "' -type f -exec cat {} + >/dev/null");
}

// Full-stage digest of one cached 512 MiB file on one thread: positioned reads of 1 MiB and
// SHA-256 through OpenSSL, exactly as the comparer's full stage does it.
void BM_FullStageSha256(benchmark::State& state) {
    const Fixture& f = fixture();
    std::vector<unsigned char> buffer(sd::contentChunkBytes);
    sd::Sha256 sha;
    std::string digest;
    double cpuSeconds = 0;
    for (auto _ : state) {
        const double cpuBefore = threadCpuSeconds();
        sd::UniqueFd fd(::open(f.hashedFile.c_str(), O_RDONLY | O_CLOEXEC));
        sd::FullDigest full = sd::fullDigest(
            fd.get(), hashedFileBytes, std::chrono::steady_clock::now() + std::chrono::hours(1), {},
            buffer, sha);
        if (!full.digest) {
            reject(state, "the file could not be read in full");
            return;
        }
        digest = sd::hexDigest(*full.digest);
        cpuSeconds += threadCpuSeconds() - cpuBefore;
    }
    if (digest != f.hashedDigest) {
        reject(state, "digest " + digest + " differs from sha256sum's " + f.hashedDigest);
        return;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(hashedFileBytes));
    // Bytes per second of this thread's own CPU time, in decimal GB: the per-core figure, which
    // other work on a shared machine does not dilute the way it dilutes wall time.
    state.counters["GB/s/core"] = static_cast<double>(state.iterations()) *
                                  static_cast<double>(hashedFileBytes) / cpuSeconds / 1e9;
}
BENCHMARK(BM_FullStageSha256)->Unit(benchmark::kMillisecond)->UseRealTime();

// Two copies settled side by side, as the comparer settles small groups: both read, compared
// chunk by chunk, only the first hashed. The file is paired with itself through two
// descriptors, which reads it twice like two copies would be read.
void BM_SideBySidePair(benchmark::State& state) {
    const Fixture& f = fixture();
    std::vector<unsigned char> first(sd::contentChunkBytes);
    std::vector<unsigned char> other(sd::contentChunkBytes);
    sd::Sha256 sha;
    std::string digest;
    for (auto _ : state) {
        sd::UniqueFd a(::open(f.hashedFile.c_str(), O_RDONLY | O_CLOEXEC));
        sd::UniqueFd b(::open(f.hashedFile.c_str(), O_RDONLY | O_CLOEXEC));
        sd::SideBySideReading reading = sd::readSideBySide(
            {a.get(), b.get()}, hashedFileBytes,
            std::chrono::steady_clock::now() + std::chrono::hours(1), {}, first, other, sha);
        if (!reading.digest) {
            reject(state, "a file did not match itself");
            return;
        }
        digest = sd::hexDigest(*reading.digest);
    }
    if (digest != f.hashedDigest) {
        reject(state, "digest " + digest + " differs from sha256sum's " + f.hashedDigest);
        return;
    }
    state.SetBytesProcessed(state.iterations() * 2 * static_cast<std::int64_t>(hashedFileBytes));
}
BENCHMARK(BM_SideBySidePair)->Unit(benchmark::kMillisecond)->UseRealTime();

// The digest alone, over a buffer already in memory: the ceiling for the figure above.
void BM_Sha256InMemory(benchmark::State& state) {
    const std::string bytes = randomBytes(64 * mib, 7);
    sd::Sha256 sha;
    const double cpuBefore = threadCpuSeconds();
    for (auto _ : state) {
        sha.reset();
        sha.update(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(sha.finish());
    }
    const double cpuSeconds = threadCpuSeconds() - cpuBefore;
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
    state.counters["GB/s/core"] = static_cast<double>(state.iterations()) *
                                  static_cast<double>(bytes.size()) / cpuSeconds / 1e9;
}
BENCHMARK(BM_Sha256InMemory)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole search over the cached corpus: walk, buckets, samples, full digests, re-checks.
// range(0) is the number of hashing threads.
void BM_FindDuplicates(benchmark::State& state) {
    const Fixture& f = fixture();
    sd::DuplicateOptions options;
    options.hashThreads = static_cast<unsigned>(state.range(0));
    sd::DuplicateReport report;
    for (auto _ : state) {
        sd::DuplicateComparer comparer;
        comparer.options = options;
        comparer.candidates = sd::collectDuplicateCandidates({f.corpus, f.home}, options);
        report = comparer.compare();
    }
    if (report.groups.size() != f.expectedGroups || report.truncated) {
        reject(state, "found " + std::to_string(report.groups.size()) + " groups, expected " +
                          std::to_string(f.expectedGroups));
        return;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(f.bytesCompared));
    state.counters["groups"] = static_cast<double>(report.groups.size());
}
BENCHMARK(BM_FindDuplicates)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    return sd::bench::runBenchmarks(
        argc, argv, "sparrowdeck_bench_duplicates",
        [] {
            setUp();
            char line[512];
            std::snprintf(line, sizeof line,
                          "corpus: %s (%zu groups, %llu bytes to compare in full)",
                          fixture().corpus.c_str(), fixture().expectedGroups,
                          static_cast<unsigned long long>(fixture().bytesCompared));
            return std::string(line);
        },
        [] { return fixture().root; });
}
