#pragma once

#include "base/CleanerError.h"
#include "catalog/CleaningService.h"
#include "core/Cancellation.h"
#include "reclaim/ReclaimJournal.h"
#include "sweep/Sweep.h"

#include <QObject>
#include <QString>
#include <QTimer>
#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace sd::app {

// Runs one core operation at a time on its own worker thread and hands the finished result back
// to the interface thread through a queued call. Starting again supersedes the running operation:
// it is told to stop, and whatever it still delivers is dropped because its generation is no
// longer the current one. While anything runs, `tick` fires a few times a second so views can
// poll progress instead of receiving one event per file.
class TaskRunner : public QObject {
    Q_OBJECT

public:
    explicit TaskRunner(QObject* parent = nullptr);
    // Stops every run and waits for the worker threads; nothing is delivered afterwards.
    ~TaskRunner() override;

    // Runs `work` on a new worker thread with the run's cancellation. `done` runs later on this
    // object's thread with the result, unless a newer run started meanwhile or the runner was
    // stopped or destroyed. `onStop` passes Stop on to what cannot see the cancellation (a cleaning
    // service's own flag); it is repeated on every tick until the worker ends, because the
    // operation it reaches may only begin after Stop was pressed. An exception from `work` becomes
    // `failed`, with `cancelled` set for "Operation cancelled".
    template <typename Result>
    void start(std::function<Result(const Cancellation&)> work, std::function<void(Result&)> done,
               std::function<void()> onStop = {});

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
        std::shared_ptr<CoreCancellationState> flag = std::make_shared<CoreCancellationState>();
        std::function<void()> onStop;
        bool stopRequested = false;
        std::jthread thread;
    };

    Run& beginRun(std::function<void()> onStop);
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
void TaskRunner::start(std::function<Result(const Cancellation&)> work,
                       std::function<void(Result&)> done, std::function<void()> onStop) {
    Run& run = beginRun(std::move(onStop));
    std::uint64_t generation = run.generation;
    std::shared_ptr<CoreCancellationState> flag = run.flag;
    run.thread = std::jthread([this, generation, flag, work = std::move(work),
                               done = std::move(done)](std::stop_token stop) {
        auto result = std::make_shared<std::optional<Result>>();
        QString error;
        bool cancelled = false;
        try {
            result->emplace(work(Cancellation(flag.get(), stop)));
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

// Progress that a worker writes and the interface reads when it polls. Numbers are atomics; the
// one text is guarded by a lock held only to copy it.
class LiveProgress {
public:
    struct Reading {
        double fraction = 0;
        std::uint64_t bytes = 0;
        std::uint64_t items = 0;
        QString message;
    };

    void set(double fraction, std::uint64_t bytes, std::uint64_t items, const std::string& message);
    void setMessage(const std::string& message);
    Reading read() const;

private:
    std::atomic<double> fraction_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> items_{0};
    mutable std::mutex lock_;
    std::string message_;
};

// The per-tile progress of a running Sweep, in the same form.
class LiveSweepProgress {
public:
    void set(const SweepProgress& progress);
    SweepProgress read() const;

private:
    std::array<std::atomic<double>, allTileKinds.size()> fractions_{};
    std::array<std::atomic<std::uint64_t>, allTileKinds.size()> bytes_{};
    std::array<std::atomic<std::uint64_t>, allTileKinds.size()> items_{};
    std::atomic<unsigned> finished_{0};
    std::atomic<double> fraction_{0};
    mutable std::mutex lock_;
    std::optional<std::string> currentPath_;
};

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
    SweepProgress sweepProgress() const;
    LiveProgress::Reading reclaimProgress() const;

signals:
    void progressChanged();
    void swept(std::shared_ptr<sd::Sweep> sweep);
    void reclaimed(const sd::SweepReclaimResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
    std::shared_ptr<LiveSweepProgress> sweepProgress_ = std::make_shared<LiveSweepProgress>();
    std::shared_ptr<LiveProgress> reclaimProgress_ = std::make_shared<LiveProgress>();
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
    LiveProgress::Reading progress() const { return progress_->read(); }

signals:
    void progressChanged();
    void measured(const sd::ScanResult& result);
    void prepared(const sd::CleanPlan& plan);
    void cleaned(const sd::app::CleanOutcome& outcome);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::shared_ptr<CleaningService> newService();

    TaskRunner runner_;
    std::shared_ptr<LiveProgress> progress_ = std::make_shared<LiveProgress>();
};

// Put Back of an Activity entry (or one of its groups) on a worker thread.
class PutBackRunner : public QObject {
    Q_OBJECT

public:
    explicit PutBackRunner(QObject* parent = nullptr);

    void putBack(std::string entryID, std::optional<std::string> group);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }

signals:
    void finished(const sd::TrashRestoreResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
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
