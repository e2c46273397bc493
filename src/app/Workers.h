#pragma once

#include "app/AppState.h"
#include "base/CleanerError.h"
#include "base/Progress.h"
#include "catalog/CleaningService.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultTypes.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"
#include "review/ReviewReclaim.h"
#include "space/SpaceTreeScanner.h"
#include "sweep/Sweep.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>

namespace sd::app {

// Runs one core operation at a time on its own worker thread and hands the finished result back
// to the interface thread through a queued call. Starting again supersedes the running operation:
// its stop is requested, and whatever it still delivers is dropped because its generation is no
// longer the current one. While anything runs, `tick` fires a few times a second so views can
// poll progress instead of receiving one event per file.
class TaskRunner : public QObject {
    Q_OBJECT

public:
    explicit TaskRunner(QObject* parent = nullptr);
    // Stops every run and waits for the worker threads; nothing is delivered afterwards.
    ~TaskRunner() override;

    // Runs `work` on a new worker thread with the run's stop token. `done` runs later on this
    // object's thread with the result, unless a newer run started meanwhile or the runner was
    // stopped or destroyed. An exception from `work` becomes `failed`, with `cancelled` set for
    // "Operation cancelled".
    template <typename Result>
    void start(std::function<Result(std::stop_token)> work, std::function<void(Result&)> done);

    // Asks the current run to stop; it ends with `failed` and `cancelled` set.
    void stop();
    bool isRunning() const noexcept { return current_ != nullptr; }
    bool stopRequested() const noexcept { return current_ != nullptr && current_->stopRequested; }
    std::uint64_t generation() const noexcept { return generation_; }
    // Worker threads not yet finished, superseded ones included.
    size_t liveThreads() const noexcept { return runs_.size(); }
    void setTickInterval(int milliseconds) { timer_.setInterval(milliseconds); }

signals:
    void tick();
    void runningChanged(bool running);
    void failed(const QString& message, bool cancelled);

private:
    struct Run {
        std::uint64_t generation = 0;
        bool stopRequested = false;
        std::jthread thread;
    };

    Run& beginRun();
    void requestStop(Run& run);
    void finishRun(std::uint64_t generation, const std::function<void()>& deliver,
                   const QString& error, bool cancelled);
    void onTick();

    std::list<Run> runs_;
    Run* current_ = nullptr;
    std::uint64_t generation_ = 0;
    QTimer timer_;
};

template <typename Result>
void TaskRunner::start(std::function<Result(std::stop_token)> work,
                       std::function<void(Result&)> done) {
    Run& run = beginRun();
    std::uint64_t generation = run.generation;
    run.thread = std::jthread(
        [this, generation, work = std::move(work), done = std::move(done)](std::stop_token stop) {
            auto result = std::make_shared<std::optional<Result>>();
            QString error;
            bool cancelled = false;
            try {
                result->emplace(work(stop));
            } catch (const CleanerError& e) {
                error = QString::fromStdString(e.what());
                cancelled = e.kind() == CleanerError::Kind::operationCancelled;
            } catch (const std::exception& e) {
                error = QString::fromStdString(e.what());
            }
            QMetaObject::invokeMethod(
                this,
                [this, generation, result, error, cancelled, done] {
                    finishRun(
                        generation,
                        [&] {
                            if (*result) {
                                done(**result);
                            }
                        },
                        error, cancelled);
                },
                Qt::QueuedConnection);
        });
}

// What a screen shows of a running operation, read from the core's polled progress.
struct ProgressReading {
    double fraction = 0;
    std::uint64_t bytes = 0;
    std::uint64_t items = 0;
    QString message; // the phase the operation is in
};
ProgressReading readProgress(const OperationProgress& progress);

SweepReading readSweep(const SweepProgress& progress);

// The Sweep on a worker thread: measuring, reclaiming ticked tiles and putting them back.
class SweepRunner : public QObject {
    Q_OBJECT

public:
    explicit SweepRunner(QObject* parent = nullptr);

    // Starts a new Sweep; a running one is stopped and its result dropped.
    void start();
    // Moves the ticked tiles of a finished Sweep to the Trash, writing one Activity entry.
    void reclaim(std::shared_ptr<Sweep> sweep, std::set<SweepTileKind> kinds);
    void stop() { runner_.stop(); }

    bool isRunning() const noexcept { return runner_.isRunning(); }
    TaskRunner& runner() noexcept { return runner_; }
    SweepReading sweepProgress() const { return readSweep(*sweepProgress_); }
    ProgressReading reclaimProgress() const { return readProgress(*reclaimProgress_); }

signals:
    void progressChanged();
    void swept(std::shared_ptr<sd::Sweep> sweep);
    void reclaimed(const sd::SweepReclaimResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
    std::shared_ptr<SweepProgress> sweepProgress_ = std::make_shared<SweepProgress>();
    std::shared_ptr<OperationProgress> reclaimProgress_ = std::make_shared<OperationProgress>();
};

// What a clean did, with the measurement that checked it afterwards.
struct CleanOutcome {
    CleanResult result;
    std::optional<ScanResult> verification;
    QString verificationError; // "Verification did not complete: …" when it failed
};

// The cleaning service on a worker thread: measure, plan, clean and verify.
class CleanupRunner : public QObject {
    Q_OBJECT

public:
    explicit CleanupRunner(QObject* parent = nullptr);

    void measure(std::vector<Target> targets, std::map<std::string, bool> included);
    // The exact items a clean of `targets` would move, with what stays in place and why.
    void prepare(std::vector<Target> targets, std::map<std::string, bool> cleanIncluded);
    // Moves the plan's items through the vault, then measures `targets` again to verify.
    void clean(CleanPlan plan, std::vector<Target> targets, std::map<std::string, bool> included);
    void stop() { runner_.stop(); }

    bool isRunning() const noexcept { return runner_.isRunning(); }
    TaskRunner& runner() noexcept { return runner_; }
    ProgressReading progress() const { return readProgress(*progress_); }

signals:
    void progressChanged();
    void measured(const sd::ScanResult& result);
    void prepared(const sd::CleanPlan& plan);
    void cleaned(const sd::app::CleanOutcome& outcome);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::shared_ptr<OperationProgress> freshProgress(const char* phase);

    TaskRunner runner_;
    std::shared_ptr<OperationProgress> progress_ = std::make_shared<OperationProgress>();
};

// Put Back of an Activity entry (or one of its groups) on a worker thread.
class PutBackRunner : public QObject {
    Q_OBJECT

public:
    explicit PutBackRunner(QObject* parent = nullptr);

    void putBack(std::string entryID, std::optional<std::string> group);
    void putBack(std::string entryID, PutBackChoice choice);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }

signals:
    void finished(const sd::TrashRestoreResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
};

// A big item the space scan found before it finished.
struct BigItem {
    std::string path;
    std::uint64_t bytes = 0;
};

// The home space-tree scan on a worker thread. Progress and the big items found while it runs
// are polled; the finished tree arrives whole.
class SpaceRunner : public QObject {
    Q_OBJECT

public:
    explicit SpaceRunner(QObject* parent = nullptr);

    // Scans `root` with `budget` seconds (the scanner's default when none), telling of items of
    // `streamMinimumBytes` and more (the scanner's default when none) while it runs.
    void scan(std::string root, std::optional<double> budget = std::nullopt,
              std::optional<std::uint64_t> streamMinimumBytes = std::nullopt);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    ProgressReading progress() const;
    // The big items found since the last call.
    std::vector<BigItem> takeBigItems();

signals:
    void progressChanged();
    void scanned(const sd::SpaceScanResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
    std::shared_ptr<OperationProgress> progress_ = std::make_shared<OperationProgress>();
};

// A search's report with the vault's verdict on every path in it, so a row the vault would keep
// in place shows why before anyone ticks it.
template <typename Report> struct Reviewed {
    Report report;
    std::map<std::string, VaultDenyReason> denied;
};
using LargeOldFound = Reviewed<LargeOldReport>;
using DuplicatesFound = Reviewed<DuplicateReport>;

// The review searches and their moves on a worker thread.
class ReviewRunner : public QObject {
    Q_OBJECT

public:
    explicit ReviewRunner(QObject* parent = nullptr);

    void findLargeOld(LargeOldOptions options = {});
    void findDuplicates(std::string root, DuplicateOptions options = {});
    // Moves the ticked items through the vault and records them in Activity.
    void move(std::vector<ReviewedItem> items, std::string title, std::string group);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    // The stage and the items seen so far: "Comparing contents — 1,234 items".
    ProgressReading progress() const;

signals:
    void progressChanged();
    void largeOldFound(const sd::app::LargeOldFound& found);
    void duplicatesFound(const sd::app::DuplicatesFound& found);
    void moved(const sd::ReviewMoveResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::shared_ptr<OperationProgress> freshProgress(const char* phase);

    TaskRunner runner_;
    std::shared_ptr<OperationProgress> progress_ = std::make_shared<OperationProgress>();
};

// The interface thread's copy of the reclaim journal. Workers write through their own copies
// (the journal merges with the file on every save); this one is read again when they finish.
class JournalStore : public QObject {
    Q_OBJECT

public:
    explicit JournalStore(QObject* parent = nullptr);

    const ReclaimJournal& journal() const noexcept { return journal_; }
    // Sentences from the last load (a journal that could not be read and was set aside).
    const std::vector<std::string>& warnings() const noexcept { return warnings_; }
    void reload();

signals:
    void aboutToChange();
    void changed();

private:
    ReclaimJournal journal_;
    std::vector<std::string> warnings_;
};

// The vault policy of the account's home folder, built once.
std::shared_ptr<const VaultPolicy> homePolicy();

} // namespace sd::app
