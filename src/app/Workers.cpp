#include "app/Workers.h"

#include "core/PathRules.h"
#include "platform/UserDefaults.h"
#include "reclaim/VaultPolicy.h"

namespace sd::app {

namespace {
// Often enough that a bar moves smoothly, rarely enough that polling costs nothing.
constexpr int tickMilliseconds = 120;
} // namespace

TaskRunner::TaskRunner(QObject* parent) : QObject(parent) {
    timer_.setInterval(tickMilliseconds);
    connect(&timer_, &QTimer::timeout, this, &TaskRunner::onTick);
}

TaskRunner::~TaskRunner() {
    timer_.stop();
    current_ = nullptr;
    for (Run& run : runs_) {
        requestStop(run);
    }
    // The list's threads join as it is destroyed; none of them can reach this object afterwards
    // because their queued calls die with it.
    runs_.clear();
}

TaskRunner::Run& TaskRunner::beginRun(std::function<void()> onStop) {
    bool wasRunning = isRunning();
    if (current_ != nullptr) {
        requestStop(*current_);
    }
    Run& run = runs_.emplace_back();
    run.generation = ++generation_;
    run.onStop = std::move(onStop);
    current_ = &run;
    timer_.start();
    if (!wasRunning) {
        emit runningChanged(true);
    }
    return run;
}

void TaskRunner::requestStop(Run& run) {
    run.stopRequested = true;
    run.flag->cancel();
    run.thread.request_stop();
    if (run.onStop) {
        run.onStop();
    }
}

void TaskRunner::stop() {
    if (current_ != nullptr) {
        requestStop(*current_);
    }
}

void TaskRunner::onTick() {
    for (Run& run : runs_) {
        if (run.stopRequested && run.onStop) {
            run.onStop();
        }
    }
    if (current_ != nullptr) {
        emit tick();
    }
    if (runs_.empty()) {
        timer_.stop();
    }
}

void TaskRunner::finishRun(std::uint64_t generation, const std::function<void()>& deliver,
                           const QString& error, bool cancelled) {
    bool isCurrent = current_ != nullptr && current_->generation == generation;
    for (auto it = runs_.begin(); it != runs_.end(); ++it) {
        if (it->generation == generation) {
            runs_.erase(it); // the worker posted this as its last act: joining is immediate
            break;
        }
    }
    if (!isCurrent) {
        return; // superseded: a newer run owns the screen
    }
    current_ = nullptr;
    if (!error.isEmpty()) {
        emit failed(error, cancelled);
    } else {
        // Also when Stop came too late to be noticed: what finished is whole and true, and a
        // move that happened must be shown.
        deliver();
    }
    if (!isRunning()) {
        emit runningChanged(false);
    }
}

void LiveProgress::set(double fraction, std::uint64_t bytes, std::uint64_t items,
                       const std::string& message) {
    fraction_.store(fraction, std::memory_order_relaxed);
    bytes_.store(bytes, std::memory_order_relaxed);
    items_.store(items, std::memory_order_relaxed);
    setMessage(message);
}

void LiveProgress::setMessage(const std::string& message) {
    std::lock_guard guard(lock_);
    message_ = message;
}

LiveProgress::Reading LiveProgress::read() const {
    Reading r;
    r.fraction = fraction_.load(std::memory_order_relaxed);
    r.bytes = bytes_.load(std::memory_order_relaxed);
    r.items = items_.load(std::memory_order_relaxed);
    std::lock_guard guard(lock_);
    r.message = QString::fromStdString(message_);
    return r;
}

void LiveSweepProgress::set(const SweepProgress& progress) {
    for (size_t i = 0; i < allTileKinds.size(); ++i) {
        SweepTileKind kind = allTileKinds[i];
        if (auto f = progress.moduleFractions.find(kind); f != progress.moduleFractions.end()) {
            fractions_[i].store(f->second, std::memory_order_relaxed);
        }
        if (auto b = progress.moduleBytes.find(kind); b != progress.moduleBytes.end()) {
            bytes_[i].store(b->second, std::memory_order_relaxed);
        }
        if (auto n = progress.moduleItems.find(kind); n != progress.moduleItems.end()) {
            items_[i].store(n->second, std::memory_order_relaxed);
        }
    }
    unsigned mask = 0;
    for (SweepTileKind kind : progress.finishedKinds) {
        mask |= 1u << static_cast<unsigned>(kind);
    }
    finished_.store(mask, std::memory_order_relaxed);
    fraction_.store(progress.fraction, std::memory_order_relaxed);
    std::lock_guard guard(lock_);
    currentPath_ = progress.currentPath;
}

SweepProgress LiveSweepProgress::read() const {
    SweepProgress p;
    unsigned mask = finished_.load(std::memory_order_relaxed);
    for (size_t i = 0; i < allTileKinds.size(); ++i) {
        SweepTileKind kind = allTileKinds[i];
        p.moduleFractions[kind] = fractions_[i].load(std::memory_order_relaxed);
        p.moduleBytes[kind] = bytes_[i].load(std::memory_order_relaxed);
        p.moduleItems[kind] = items_[i].load(std::memory_order_relaxed);
        if ((mask & (1u << static_cast<unsigned>(kind))) != 0) {
            p.finishedKinds.insert(kind);
        }
    }
    p.fraction = fraction_.load(std::memory_order_relaxed);
    std::lock_guard guard(lock_);
    p.currentPath = currentPath_;
    return p;
}

std::shared_ptr<const VaultPolicy> homePolicy() {
    static const std::shared_ptr<const VaultPolicy> policy =
        std::make_shared<const VaultPolicy>(homeDirectory());
    return policy;
}

SweepRunner::SweepRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &SweepRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &SweepRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &SweepRunner::runningChanged);
}

void SweepRunner::start() {
    // Each run writes into its own progress, so a superseded run cannot move the new bars.
    auto live = std::make_shared<LiveSweepProgress>();
    sweepProgress_ = live;
    runner_.start<std::shared_ptr<Sweep>>(
        [live](const Cancellation& cancel) {
            auto sweep = std::make_shared<Sweep>(DistributionMode::direct,
                                                 platform::UserDefaults::standard(), homePolicy());
            sweep->run([&](const SweepProgress& p) { live->set(p); }, cancel);
            return sweep;
        },
        [this](std::shared_ptr<Sweep>& sweep) { emit swept(sweep); });
}

void SweepRunner::reclaim(std::shared_ptr<Sweep> sweep, std::set<SweepTileKind> kinds) {
    auto live = std::make_shared<LiveProgress>();
    live->setMessage("Checking each item before it moves");
    reclaimProgress_ = live;
    runner_.start<SweepReclaimResult>(
        [sweep, kinds, live](const Cancellation& cancel) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            return sweep->reclaim(
                kinds, journal,
                [&](const ProgressEvent& e) {
                    live->set(e.fraction, e.bytesProcessed, e.itemsProcessed, e.message);
                },
                cancel);
        },
        [this](SweepReclaimResult& result) { emit reclaimed(result); });
}

SweepProgress SweepRunner::sweepProgress() const {
    return sweepProgress_->read();
}

LiveProgress::Reading SweepRunner::reclaimProgress() const {
    return reclaimProgress_->read();
}

CleanupRunner::CleanupRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &CleanupRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &CleanupRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &CleanupRunner::runningChanged);
}

std::shared_ptr<CleaningService> CleanupRunner::newService() {
    // One service per run: Stop reaches exactly the run it was pressed for, and a superseded run
    // never holds the next one's operation lock for longer than it takes to notice.
    progress_ = std::make_shared<LiveProgress>();
    return std::make_shared<CleaningService>(homePolicy());
}

void CleanupRunner::measure(std::vector<Target> targets, std::map<std::string, bool> included) {
    auto service = newService();
    auto live = progress_;
    live->set(0, 0, 0, "Starting scan...");
    runner_.start<std::optional<ScanResult>>(
        [service, live, targets = std::move(targets),
         included = std::move(included)](const Cancellation& cancel) {
            cancel.check();
            return service->scan(targets, included, [&](const ProgressEvent& e) {
                live->set(e.fraction, e.bytesProcessed, e.itemsProcessed, e.message);
            });
        },
        [this](std::optional<ScanResult>& result) {
            if (result) {
                emit measured(*result);
            }
        },
        [service] { service->cancel(); });
}

void CleanupRunner::prepare(std::vector<Target> targets,
                            std::map<std::string, bool> cleanIncluded) {
    auto service = newService();
    auto live = progress_;
    live->set(0, 0, 0, "Measuring what emptying the Trash frees");
    runner_.start<CleanPlan>(
        [service, live, targets = std::move(targets),
         cleanIncluded = std::move(cleanIncluded)](const Cancellation& cancel) {
            cancel.check();
            std::vector<CleanError> errors;
            std::vector<CacheCleaningCandidate> candidates =
                service->buildCandidates(targets, cleanIncluded, errors);
            cancel.check();
            CleanPlan plan = service->plan(candidates, [&](const ProgressEvent& e) {
                live->set(e.fraction, e.bytesProcessed, e.itemsProcessed, e.message);
            });
            plan.errors.insert(plan.errors.begin(), errors.begin(), errors.end());
            return plan;
        },
        [this](CleanPlan& plan) { emit prepared(plan); }, [service] { service->cancel(); });
}

void CleanupRunner::clean(CleanPlan plan, std::vector<Target> targets,
                          std::map<std::string, bool> included) {
    auto service = newService();
    auto live = progress_;
    live->set(0, 0, 0, "Starting clean...");
    runner_.start<CleanOutcome>(
        [service, live, plan = std::move(plan), targets = std::move(targets),
         included = std::move(included)](const Cancellation& cancel) {
            cancel.check();
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            JournalRecording recording;
            recording.journal = &journal;
            recording.title = "Cleanup";
            recording.kind = JournalKind::caches;
            // One row group per target, so Activity can put back one target alone.
            recording.groupOf = [](const std::optional<std::string>& targetID) {
                return targetID.value_or("caches");
            };
            auto report = [&](const ProgressEvent& e) {
                live->set(e.fraction, e.bytesProcessed, e.itemsProcessed, e.message);
            };
            CleanOutcome outcome;
            outcome.result = service->clean(plan, recording, report);
            try {
                // What moved is journaled already; Stop here only skips the check.
                cancel.check();
                live->set(0, 0, 0, "Checking what is left");
                outcome.verification = service->scan(targets, included, report);
            } catch (const CleanerError& error) {
                outcome.verificationError =
                    QStringLiteral("Verification did not complete: ") + error.what();
            }
            return outcome;
        },
        [this](CleanOutcome& outcome) { emit cleaned(outcome); }, [service] { service->cancel(); });
}

PutBackRunner::PutBackRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::failed, this, &PutBackRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &PutBackRunner::runningChanged);
}

void PutBackRunner::putBack(std::string entryID, std::optional<std::string> group) {
    runner_.start<TrashRestoreResult>(
        [entryID = std::move(entryID), group = std::move(group)](const Cancellation& cancel) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            return journal.putBack(entryID, group, cancel);
        },
        [this](TrashRestoreResult& result) { emit finished(result); });
}

JournalStore::JournalStore(QObject* parent)
    : QObject(parent), journal_(ReclaimJournal::standard()) {
    reload();
}

void JournalStore::reload() {
    emit aboutToChange();
    try {
        warnings_ = journal_.load();
    } catch (const CleanerError& error) {
        warnings_ = {std::string("The activity journal could not be opened: ") + error.what()};
    }
    emit changed();
}

} // namespace sd::app
