#include "app/Workers.h"

#include "core/ByteFormat.h"
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

TaskRunner::Run& TaskRunner::beginRun() {
    bool wasRunning = isRunning();
    if (current_ != nullptr) {
        requestStop(*current_);
    }
    Run& run = runs_.emplace_back();
    run.generation = ++generation_;
    current_ = &run;
    timer_.start();
    if (!wasRunning) {
        emit runningChanged(true);
    }
    return run;
}

void TaskRunner::requestStop(Run& run) {
    run.stopRequested = true;
    run.thread.request_stop();
}

void TaskRunner::stop() {
    if (current_ != nullptr) {
        requestStop(*current_);
    }
}

void TaskRunner::onTick() {
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

ProgressReading readProgress(const OperationProgress& progress) {
    OperationProgress::Reading now = progress.read();
    return {now.fraction, now.bytes, now.items, QString::fromStdString(now.phase)};
}

SweepReading readSweep(const SweepProgress& progress) {
    SweepReading reading;
    for (SweepTileKind kind : allTileKinds) {
        OperationProgress::Reading now = progress.tile(kind).read();
        SweepReading::Tile& tile = reading.tile(kind);
        tile.fraction = now.fraction;
        tile.bytes = now.bytes;
        tile.items = now.items;
        tile.finished = now.fraction >= 1.0;
        if (!tile.finished && now.currentPath) {
            reading.currentPath = now.currentPath;
        }
        reading.fraction += now.fraction / static_cast<double>(allTileKinds.size());
    }
    return reading;
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
    auto live = std::make_shared<SweepProgress>();
    sweepProgress_ = live;
    runner_.start<std::shared_ptr<Sweep>>(
        [live](const std::stop_token& stop) {
            auto sweep = std::make_shared<Sweep>(DistributionMode::direct,
                                                 platform::UserDefaults::standard(), homePolicy());
            sweep->run(stop, live.get());
            return sweep;
        },
        [this](std::shared_ptr<Sweep>& sweep) { emit swept(sweep); });
}

void SweepRunner::reclaim(std::shared_ptr<Sweep> sweep, std::set<SweepTileKind> kinds) {
    auto live = std::make_shared<OperationProgress>();
    live->setPhase("Checking each item before it moves");
    reclaimProgress_ = live;
    runner_.start<SweepReclaimResult>(
        [sweep, kinds, live](const std::stop_token& stop) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            return sweep->reclaim(kinds, journal, stop, live.get());
        },
        [this](SweepReclaimResult& result) { emit reclaimed(result); });
}

CleanupRunner::CleanupRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &CleanupRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &CleanupRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &CleanupRunner::runningChanged);
}

std::shared_ptr<OperationProgress> CleanupRunner::freshProgress(const char* phase) {
    // Each run reports into its own progress, so a superseded run cannot move the new bar.
    progress_ = std::make_shared<OperationProgress>();
    progress_->setPhase(phase);
    return progress_;
}

void CleanupRunner::measure(std::vector<Target> targets, std::map<std::string, bool> included) {
    auto live = freshProgress("Starting the scan");
    runner_.start<std::optional<ScanResult>>(
        [live, targets = std::move(targets),
         included = std::move(included)](const std::stop_token& stop) {
            CleaningService service(homePolicy());
            return service.scan(targets, included, stop, live.get());
        },
        [this](std::optional<ScanResult>& result) {
            if (result) {
                emit measured(*result);
            }
        });
}

void CleanupRunner::prepare(std::vector<Target> targets,
                            std::map<std::string, bool> cleanIncluded) {
    auto live = freshProgress("Measuring what moving to the Trash would free");
    runner_.start<CleanPlan>(
        [live, targets = std::move(targets),
         cleanIncluded = std::move(cleanIncluded)](const std::stop_token& stop) {
            CleaningService service(homePolicy());
            std::vector<CleanError> errors;
            std::vector<CacheCleaningCandidate> candidates =
                service.buildCandidates(targets, cleanIncluded, errors);
            CleanPlan plan = service.plan(candidates, stop, live.get());
            plan.errors.insert(plan.errors.begin(), errors.begin(), errors.end());
            return plan;
        },
        [this](CleanPlan& plan) { emit prepared(plan); });
}

void CleanupRunner::clean(CleanPlan plan, std::vector<Target> targets,
                          std::map<std::string, bool> included) {
    auto live = freshProgress("Starting to move");
    runner_.start<CleanOutcome>(
        [live, plan = std::move(plan), targets = std::move(targets),
         included = std::move(included)](const std::stop_token& stop) {
            throwIfStopped(stop);
            CleaningService service(homePolicy());
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
            CleanOutcome outcome;
            outcome.result = service.clean(plan, recording, stop, live.get());
            try {
                // What moved is journaled already; Stop here only skips the check.
                throwIfStopped(stop);
                live->setPhase("Checking what is left");
                outcome.verification = service.scan(targets, included, stop, live.get());
            } catch (const CleanerError& error) {
                outcome.verificationError =
                    QStringLiteral("Verification did not complete: ") + error.what();
            }
            return outcome;
        },
        [this](CleanOutcome& outcome) { emit cleaned(outcome); });
}

PutBackRunner::PutBackRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::failed, this, &PutBackRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &PutBackRunner::runningChanged);
}

void PutBackRunner::putBack(std::string entryID, std::optional<std::string> group) {
    putBack(std::move(entryID), PutBackChoice{std::move(group), std::nullopt});
}

void PutBackRunner::putBack(std::string entryID, PutBackChoice choice) {
    runner_.start<TrashRestoreResult>(
        [entryID = std::move(entryID), choice = std::move(choice)](const std::stop_token& stop) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            return journal.putBack(entryID, choice, stop);
        },
        [this](TrashRestoreResult& result) { emit finished(result); });
}

SpaceRunner::SpaceRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &SpaceRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &SpaceRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &SpaceRunner::runningChanged);
}

void SpaceRunner::scan(std::string root, std::optional<double> budget,
                       std::optional<std::uint64_t> streamMinimumBytes) {
    auto live = std::make_shared<OperationProgress>();
    live->setPhase("Starting the scan");
    progress_ = live;
    runner_.start<SpaceScanResult>(
        [live, root = std::move(root), budget, streamMinimumBytes](const std::stop_token& stop) {
            SpaceTreeScanner scanner;
            scanner.budget = budget;
            if (streamMinimumBytes) {
                scanner.streamMinimumBytes = *streamMinimumBytes;
            }
            return scanner.scan(root, stop, live.get());
        },
        [this](SpaceScanResult& result) { emit scanned(result); });
}

ProgressReading SpaceRunner::progress() const {
    ProgressReading reading = readProgress(*progress_);
    if (reading.items > 0 || reading.message == QLatin1String("Scanning")) {
        reading.message = QStringLiteral("%1 items scanned")
                              .arg(QString::fromStdString(formatCount(reading.items)));
    }
    return reading;
}

std::vector<BigItem> SpaceRunner::takeBigItems() {
    std::vector<BigItem> items;
    for (OperationProgress::Notice& notice : progress_->takeNotices()) {
        items.push_back({std::move(notice.path), notice.bytes});
    }
    return items;
}

namespace {

// The vault's verdict on each path, without moving anything.
std::map<std::string, VaultDenyReason> verdicts(const std::vector<std::string>& paths,
                                                const std::stop_token& stop) {
    std::map<std::string, VaultDenyReason> denied;
    if (paths.empty()) {
        return denied;
    }
    throwIfStopped(stop);
    VaultService vault = VaultService::standard(homePolicy());
    VaultPlan plan = vault.planner(paths, {}, nullptr);
    for (size_t i = 0; i < plan.items.size() && i < paths.size(); ++i) {
        if (plan.items[i].denied) {
            denied[paths[i]] = *plan.items[i].denied;
        }
    }
    return denied;
}

} // namespace

ReviewRunner::ReviewRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &ReviewRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &ReviewRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &ReviewRunner::runningChanged);
}

std::shared_ptr<OperationProgress> ReviewRunner::freshProgress(const char* phase) {
    progress_ = std::make_shared<OperationProgress>();
    progress_->setPhase(phase);
    return progress_;
}

ProgressReading ReviewRunner::progress() const {
    OperationProgress::Reading now = progress_->read();
    return {now.fraction, now.bytes, now.items, QString::fromStdString(reviewProgressText(now))};
}

void ReviewRunner::findLargeOld(LargeOldOptions options) {
    auto live = freshProgress("Reading your folders");
    runner_.start<LargeOldFound>(
        [live, options](const std::stop_token& stop) {
            LargeOldFinder finder = LargeOldFinder::standard(homeDirectory());
            finder.options = options;
            finder.stop = stop;
            finder.progress = live.get();
            LargeOldFound found;
            found.report = finder.find();
            live->setPhase("Checking what could move");
            live->setItems(0);
            live->setFraction(1);
            std::vector<std::string> paths;
            for (const LargeOldItem& item : found.report.items) {
                paths.push_back(item.path);
            }
            found.denied = verdicts(paths, stop);
            return found;
        },
        [this](LargeOldFound& found) { emit largeOldFound(found); });
}

void ReviewRunner::findDuplicates(std::string root, DuplicateOptions options) {
    auto live = freshProgress("Reading your folders");
    runner_.start<DuplicatesFound>(
        [live, root = std::move(root), options](const std::stop_token& stop) {
            DuplicateComparer comparer;
            comparer.options = options;
            comparer.candidates = collectDuplicateCandidates(DuplicateScope{root, homeDirectory()},
                                                             options, stop, live.get());
            comparer.stop = stop;
            comparer.progress = live.get();
            DuplicatesFound found;
            found.report = comparer.compare();
            live->setPhase("Checking what could move");
            live->setItems(0);
            live->setFraction(1);
            std::vector<std::string> paths;
            for (const DuplicateGroup& group : found.report.groups) {
                for (const DuplicateFile& file : group.files) {
                    paths.push_back(file.path);
                }
            }
            found.denied = verdicts(paths, stop);
            return found;
        },
        [this](DuplicatesFound& found) { emit duplicatesFound(found); });
}

void ReviewRunner::move(std::vector<ReviewedItem> items, std::string title, std::string group) {
    freshProgress("Checking each item before it moves");
    runner_.start<ReviewMoveResult>(
        [items = std::move(items), title = std::move(title),
         group = std::move(group)](const std::stop_token& stop) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            VaultService vault = VaultService::standard(homePolicy());
            return moveReviewedItems(vault, journal, items, title, group, stop);
        },
        [this](ReviewMoveResult& result) { emit moved(result); });
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
