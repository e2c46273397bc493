// How long the desktop app's event loop can stall while a large scan runs through its worker
// adapters. A timer asks to tick every 4 ms; the largest gap between two ticks is the longest the
// window could not repaint or answer a click. The scans run on the real screens (the Sweep, and
// the Space Map with its sunburst), so polling, model resets and painting are all measured.

#include "BenchSupport.h"
#include "app/Pages.h"
#include "app/SpaceMapPage.h"
#include "app/Widgets.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string home;
constexpr int entriesWanted = 150'000;

void makeDir(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

void makeDirs(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at == path.size() || path[at] == '/') {
            makeDir(path.substr(0, at));
        }
    }
}

// 150,000 entries in folders of 100 files, split over three caches that three tiles measure side
// by side.
int buildTree() {
    const char* const caches[] = {"/.cache/pip/http", "/.npm/_cacache/content-v2",
                                  "/.cache/google-chrome/Default/Cache"};
    int entries = 0;
    for (int c = 0; entries < entriesWanted; c = (c + 1) % 3) {
        std::string folder = home + caches[c] + "/d" + std::to_string(entries);
        makeDirs(folder);
        ++entries;
        for (int f = 0; f < 100 && entries < entriesWanted; ++f, ++entries) {
            std::string file = folder + "/f" + std::to_string(f);
            int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0 || ::write(fd, "cache", 5) != 5) {
                std::perror(file.c_str());
                std::exit(1);
            }
            ::close(fd);
        }
    }
    return entries;
}

// Runs `start` and spins the event loop until `runner` stops, recording the longest gap between
// ticks of a 4 ms timer, in milliseconds.
template <typename Runner, typename Start> double longestStall(Runner& runner, Start start) {
    QElapsedTimer clock;
    qint64 last = 0;
    qint64 longest = 0;
    QTimer ticker;
    ticker.setTimerType(Qt::PreciseTimer);
    ticker.setInterval(4);
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        qint64 now = clock.nsecsElapsed();
        longest = std::max(longest, now - last);
        last = now;
    });
    QEventLoop loop;
    QObject::connect(&runner, &Runner::runningChanged, &loop, [&](bool running) {
        if (!running) {
            loop.quit();
        }
    });
    clock.start();
    ticker.start();
    start();
    loop.exec();
    ticker.stop();
    return static_cast<double>(std::max(longest, clock.nsecsElapsed() - last)) / 1e6;
}

void BM_EventLoopStallDuringSweep(benchmark::State& state) {
    sd::app::JournalStore journal;
    sd::app::SweepPage page(journal);
    page.resize(1100, 760);
    page.show();
    double worst = 0;
    for (auto _ : state) {
        worst = std::max(worst, longestStall(page.runner(), [&] { page.startSweep(); }));
        if (page.state().sweep == nullptr) {
            sd::bench::reject(state, "the Sweep did not finish");
            return;
        }
    }
    state.counters["longest_stall_ms"] = worst;
    state.counters["items_seen"] = static_cast<double>(page.state().sweep->itemsSeen());
    std::printf("Longest event-loop stall while sweeping %llu items: %.1f ms (target < 100 ms)\n",
                static_cast<unsigned long long>(page.state().sweep->itemsSeen()), worst);
}
BENCHMARK(BM_EventLoopStallDuringSweep)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_EventLoopStallDuringSpaceScan(benchmark::State& state) {
    sd::app::SpaceMapPage page;
    page.resize(1100, 760);
    page.show();
    double worst = 0;
    for (auto _ : state) {
        worst = std::max(worst, longestStall(page.runner(), [&] { page.startScan(); }));
        if (!page.state().tree()) {
            sd::bench::reject(state, "the scan did not finish");
            return;
        }
    }
    auto scanned = page.state().tree()->scannedNodeCount;
    state.counters["longest_stall_ms"] = worst;
    state.counters["entries_scanned"] = static_cast<double>(scanned);
    std::printf("Longest event-loop stall while the Space Map scans %llu entries: %.1f ms "
                "(target < 100 ms)\n",
                static_cast<unsigned long long>(scanned), worst);
}
BENCHMARK(BM_EventLoopStallDuringSpaceScan)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

int main(int argc, char** argv) {
    // The scans read a fixture home in an owned temporary root, never the real one; the core
    // reads these once, so they are set before anything asks.
    std::string root = sd::MockRoots::create();
    home = root + "/home";
    makeDirs(home);
    ::setenv("SPARROWDECK_HOME", home.c_str(), 1);
    ::setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
    if (std::getenv("QT_QPA_PLATFORM") == nullptr) {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    if (sd::homeDirectory() != home) {
        std::fprintf(stderr, "the fixture home was not taken\n");
        return 1;
    }
    // The offscreen platform says on every show that it cannot pass size hints on; that is noise.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        if (!message.contains(QLatin1String("propagateSizeHints"))) {
            std::fprintf(stderr, "%s\n", qPrintable(message));
        }
    });
    QApplication app(argc, argv);
    sd::app::applyStyle(app);
    return sd::bench::runBenchmarks(
        argc, argv, "sparrowdeck_bench_app_event_loop",
        [] { return "Built a tree of " + std::to_string(buildTree()) + " entries."; },
        [root] { return root; });
}
