#pragma once

#include <benchmark/benchmark.h>
#include <functional>
#include <string>

namespace sd::bench {

// Marks the run as failed: a benchmark that measured the wrong thing must not pass as fast.
void reject(benchmark::State& state, const std::string& why);

// Runs the registered benchmarks after `setUp` built their fixture (it returns one line saying
// what was built), then removes the fixture's owned root. Returns 1 when anything failed or was
// rejected, so a wrong answer fails `make bench` however quick it was.
int runBenchmarks(int argc, char** argv, const char* program,
                  const std::function<std::string()>& setUp,
                  const std::function<std::string()>& fixtureRoot);

} // namespace sd::bench
