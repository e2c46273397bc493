#include "BenchSupport.h"

#include "base/CleanerError.h"
#include "core/MockRoots.h"

#include <atomic>
#include <cstdio>
#include <exception>

namespace sd::bench {
namespace {
std::atomic<bool> anyRejected{false};
} // namespace

void reject(benchmark::State& state, const std::string& why) {
    anyRejected = true;
    state.SkipWithError(why.c_str());
}

int runBenchmarks(int argc, char** argv, const char* program,
                  const std::function<std::string()>& setUp,
                  const std::function<std::string()>& fixtureRoot) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    int status = 0;
    try {
        std::fprintf(stderr, "%s\n", setUp().c_str());
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        status = 1;
    }
    benchmark::Shutdown();
    if (anyRejected) {
        status = 1;
    }
    if (std::string root = fixtureRoot(); !root.empty()) {
        try {
            MockRoots::tearDown(root);
        } catch (const CleanerError& error) {
            std::fprintf(stderr, "could not remove %s: %s\n", root.c_str(), error.what());
            status = 1;
        }
    }
    return status;
}

} // namespace sd::bench
